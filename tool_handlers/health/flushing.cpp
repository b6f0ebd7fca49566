// Writing what changed: blocking, and nothing that blocks under the lock.
//
// Each writer takes its snapshot and clears the marks in one critical section, writes outside the lock, and puts the
// marks back, in a second critical section, when the write fails.
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

using cpython::Answer;
using cpython::append;
using cpython::attr;
using cpython::BlockEnd;
using cpython::call_method;
using cpython::Named;

namespace {

/// `with self._lock: body()`
template <class Body>
BlockEnd under_lock(const Scope& scope, const Tracker& tracker, Body&& body)
{
    return cpython::with_lock(import_state(scope).lock, tracker.get(tracker_field::lock), body);
}

/// What reading a variable raises that a `with` block was to set, had its error not been swallowed.
void raise_unbound(const char* variable)
{
    PyErr_Format(PyExc_UnboundLocalError,
                 "cannot access local variable '%s' where it is not associated with a value", variable);
}

/// The end of `except Exception: with self._lock: <restore>; raise`. Always leaves an exception set.
template <class Restore>
Ref restore_and_raise(const Scope& scope, const Tracker& tracker, Restore restore)
{
    if (cpython::is_caught()) {
        const cpython::Handling handling;
        if (under_lock(scope, tracker, restore) != BlockEnd::failed) {
            handling.raise_again();
        }
    }
    return {};
}

/// `(name, call_count, error_count, last_error, disabled_at, updated_at)`, the times as text.
Ref health_row(const Scope& scope, PyObject* name, PyObject* state)
{
    const RecordClass& records = import_state(scope).tool_state;
    const Ref calls = records.get(state, tool_state::call_count);
    const Ref errors = calls ? records.get(state, tool_state::error_count) : Ref{};
    const Ref last_error = errors ? records.get(state, tool_state::last_error) : Ref{};
    const Ref disabled_at = last_error ? time_of(scope, state, tool_state::disabled_at) : Ref{};
    const Ref updated_at = disabled_at ? time_of(scope, state, tool_state::updated_at) : Ref{};
    return cpython::tuple_of(name, calls, errors, last_error, disabled_at, updated_at);
}

/// The rows of the named tools that have a record, in the order of the names.
Ref health_rows(const Scope& scope, const Tracker& tracker, const Ref& marked)
{
    Ref rows = Ref::steal(PyList_New(0));
    const bool done = rows && cpython::for_each(marked, [&](PyObject* name) {
                          Ref state;
                          const Answer found =
                              cpython::get_from(tracker.get(tracker_field::state), name, names::get, state);
                          return found == Answer::yes ? append(rows, health_row(scope, name, state.get()))
                                                      : found == Answer::no;
                      });
    return done ? std::move(rows) : Ref{};
}

/// Takes the snapshot, under the lock: the marked names in order, and their rows; the marks are cleared.
bool take_health(const Scope& scope, const Tracker& tracker, Ref& marked, Ref& rows)
{
    marked = cpython::list_of(tracker.get(tracker_field::dirty));
    if (!marked || PyList_Sort(marked.get()) != 0 ||
        !call_method(tracker.get(tracker_field::dirty), names::clear)) {
        return false;
    }
    rows = health_rows(scope, tracker, marked);
    return static_cast<bool>(rows);
}

/// The upsert, eight lines.
Ref upsert_statement(const Scope& scope)
{
    const Ref columns = cpython::formatted(scope.global(names::tool_health_columns));
    return columns ? Ref::steal(
                         PyUnicode_FromFormat("INSERT INTO tool_health (%U)\n"
                                              "                    VALUES (?, ?, ?, ?, ?, ?)\n"
                                              "                    ON CONFLICT(tool_name) DO UPDATE SET\n"
                                              "                        call_count = excluded.call_count,\n"
                                              "                        error_count = excluded.error_count,\n"
                                              "                        last_error = excluded.last_error,\n"
                                              "                        disabled_at = excluded.disabled_at,\n"
                                              "                        updated_at = excluded.updated_at",
                                              columns.get()))
                   : Ref{};
}

/// `self._repo.db.executemany(statement, rows)`
Ref write_health(const Scope& scope, PyObject* self, PyObject* rows)
{
    const Ref execute = database_method(self, names::executemany);
    return cpython::call(execute, execute ? upsert_statement(scope) : Ref{}, rows);
}

/// The stored entry of a usage key and its record; `last` is the one before.
Ref make_entry(const Scope& scope, const UsageKey& key, PyObject* usage, Ref& last)
{
    const auto& [tool, action, outcome, alias_hit] = key;
    const RecordClass& records = import_state(scope).usage;
    const Ref calls = records.get(usage, usage_record::calls);
    const Ref timed_calls = calls ? records.get(usage, usage_record::timed_calls) : Ref{};
    const Ref total_ms =
        cpython::rounded(scope, timed_calls ? records.get(usage, usage_record::total_ms) : Ref{}, 3);
    return total_ms ? cpython::dict_of<7>({{{names::tool, tool},
                                            {names::action, action},
                                            {names::outcome, outcome},
                                            {names::alias_hit, alias_hit},
                                            {names::calls, calls},
                                            {names::timed_calls, timed_calls},
                                            {names::total_ms, total_ms}}},
                                          last)
                    : Ref{};
}

/// The entries of the usage map, in its order.
Ref make_entries(const Scope& scope, const Ref& usage)
{
    Ref saved = Ref::steal(PyList_New(0));
    Ref last;
    const bool done = saved && cpython::for_each(call_method(usage, names::items), [&](PyObject* entry) {
                          std::array<Ref, 2> pair;
                          UsageKey key;
                          return cpython::unpack(entry, pair) && cpython::unpack(pair[0].get(), key) &&
                                 append(saved, make_entry(scope, key, pair[1].get(), last));
                      });
    return done ? std::move(saved) : Ref{};
}

/// Takes the snapshot, under the lock, and clears the mark; `saved` stays null when nothing changed.
bool take_usage(const Scope& scope, const Tracker& tracker, Ref& saved)
{
    const Answer pending = cpython::truth(tracker.get(tracker_field::usage_dirty));
    if (pending != Answer::yes) {
        return pending == Answer::no;
    }
    if (!tracker.set(tracker_field::usage_dirty, Py_False)) {
        return false;
    }
    saved = make_entries(scope, tracker.get(tracker_field::usage));
    return static_cast<bool>(saved);
}

/// `json.dumps(saved, separators=(",", ":"))`
Ref make_document(const Scope& scope, const Ref& saved)
{
    const Ref dump = attr(scope.global(names::json), names::dumps);
    const Ref separators = dump ? Ref::steal(Py_BuildValue("(ss)", ",", ":")) : Ref{};
    return cpython::call_named(dump, std::array{Named{names::separators, separators}}, saved);
}

/// `self._repo.db.execute(statement, (TOOL_USAGE_KEY, document))`
Ref write_usage(const Scope& scope, PyObject* self, const Ref& saved)
{
    const Ref document = make_document(scope, saved);
    const Ref execute = document ? database_method(self, names::execute) : Ref{};
    const Ref key = execute ? scope.global(names::tool_usage_key) : Ref{};
    return cpython::call(execute, names::replace_usage, cpython::tuple_of(key, document));
}

}  // namespace

Ref flush(const Scope& /*scope*/, PyObject* const* arguments)
{
    const Ref rows = call_method(arguments[0], names::flush_health);
    const Ref entries = rows ? call_method(arguments[0], names::flush_usage) : Ref{};
    return entries ? Ref::steal(PyNumber_Add(rows.get(), entries.get())) : Ref{};
}

Ref flush_health(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    Ref marked;
    Ref rows;
    const BlockEnd end =
        under_lock(scope, tracker, [&] { return take_health(scope, tracker, marked, rows); });
    if (end != BlockEnd::completed) {
        if (end == BlockEnd::swallowed) {
            raise_unbound("rows");
        }
        return {};
    }
    if (PyList_GET_SIZE(rows.get()) != 0 && !write_health(scope, tracker.self(), rows.get())) {
        return restore_and_raise(scope, tracker, [&] {
            return static_cast<bool>(call_method(tracker.get(tracker_field::dirty), names::update, marked));
        });
    }
    return Ref::steal(PyLong_FromSsize_t(PyList_GET_SIZE(rows.get())));
}

Ref flush_usage(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    Ref saved;
    const BlockEnd end = under_lock(scope, tracker, [&] { return take_usage(scope, tracker, saved); });
    if (end == BlockEnd::failed) {
        return {};
    }
    if (end == BlockEnd::completed && !saved) {
        return cpython::zero();
    }
    if (end == BlockEnd::swallowed) {
        raise_unbound("saved");
    }
    if (end == BlockEnd::swallowed || !write_usage(scope, tracker.self(), saved)) {
        return restore_and_raise(scope, tracker,
                                 [&] { return tracker.set(tracker_field::usage_dirty, Py_True); });
    }
    return Ref::steal(PyLong_FromSsize_t(PyList_GET_SIZE(saved.get())));
}

}  // namespace health
