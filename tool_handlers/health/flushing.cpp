// Writing what changed: blocking, and nothing that blocks under the lock.
//
// Each writer takes its snapshot and clears the marks in one critical section, writes outside the lock, and puts the
// marks back, in a second critical section, when the write fails.
#include "cpython/containers.hpp"
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

using cpython::Answer;
using cpython::append;
using cpython::attr;
using cpython::BlockEnd;
using cpython::call_method;

namespace {

constexpr Py_ssize_t copy_width = 4;  // references that a copy takes of every usage count

/// What reading a variable raises that a `with` block was to set, had its error not been swallowed.
void raise_unbound(const char* variable)
{
    PyErr_Format(PyExc_UnboundLocalError,
                 "cannot access local variable '%s' where it is not associated with a value", variable);
}

/// `self._dirty.update(marked)`. Name by name, so that one for which there is no memory does not keep the others out;
/// MemoryError says that there was one.
bool put_back(const Tracker& tracker, PyObject* marked)
{
    const Ref dirty = tracker.get(tracker_field::dirty);
    if (!dirty || !PySet_CheckExact(dirty.get())) {
        return dirty && call_method(dirty.get(), names::update, marked);
    }
    bool complete = true;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(marked); ++i) {
        const Ref name = Ref::borrow(PyList_GET_ITEM(marked, i));
        if (cpython::add_to_set(dirty.get(), name.get(), names::update)) {
            continue;
        }
        if (PyErr_ExceptionMatches(PyExc_MemoryError) == 0) {
            return false;
        }
        PyErr_Clear();
        complete = false;
    }
    if (!complete) {
        PyErr_NoMemory();
    }
    return complete;
}

/// The snapshot of a health flush.
struct HealthSnapshot {
    Ref marked;  // the names, in order
    Ref rows;
};

/// The end of `except Exception: with self._lock: <restore>; raise`. Always leaves an exception set.
template <class Restore>
Ref restore_and_raise(const Scope& scope, PyObject* self, Restore restore)
{
    if (cpython::is_caught()) {
        const cpython::Handling handling;
        if (locked(scope, self, restore) != BlockEnd::failed) {
            handling.raise_again();
        }
    }
    return {};
}

/// `(name, call_count, error_count, last_error, disabled_at, updated_at)`, the times as text.
Ref health_row(const Scope& scope, PyObject* name, PyObject* state)
{
    const ToolStateClass& records = originals(scope).tool_state;
    Ref calls = records.get(state, tool_state::call_count);
    Ref errors = calls ? records.get(state, tool_state::error_count) : Ref{};
    Ref last_error = errors ? records.get(state, tool_state::last_error) : Ref{};
    Ref disabled_at = last_error ? time_of(scope, state, tool_state::disabled_at) : Ref{};
    Ref updated_at = disabled_at ? time_of(scope, state, tool_state::updated_at) : Ref{};
    return updated_at
               ? cpython::tuple_of(Ref::borrow(name), std::move(calls), std::move(errors),
                                   std::move(last_error), std::move(disabled_at), std::move(updated_at))
               : Ref{};
}

/// The rows of the named tools that have a record, in the order of the names.
Ref health_rows(const Scope& scope, const Tracker& tracker, PyObject* marked)
{
    Ref rows = Ref::steal(PyList_New(0));
    for (Py_ssize_t i = 0; rows && i < PyList_GET_SIZE(marked); ++i) {
        const Ref name = Ref::borrow(PyList_GET_ITEM(marked, i));
        const Ref states = tracker.get(tracker_field::state);
        Ref state;
        switch (states ? cpython::get_from(states.get(), name.get(), names::get, state) : Answer::failed) {
        case Answer::failed:
            return {};
        case Answer::no:
            break;
        case Answer::yes:
            if (!append(rows, health_row(scope, name.get(), state.get()))) {
                return {};
            }
        }
    }
    return rows;
}

/// Takes the snapshot, under the lock: the marked names in order, and their rows; the marks are cleared. When memory
/// runs out here, they are put back.
bool take_health(const Scope& scope, const Tracker& tracker, HealthSnapshot& snapshot)
{
    Ref dirty = tracker.get(tracker_field::dirty);
    snapshot.marked = dirty ? Ref::steal(PySequence_List(dirty.get())) : Ref{};
    if (!snapshot.marked || PyList_Sort(snapshot.marked.get()) != 0) {
        return false;
    }
    dirty = tracker.get(tracker_field::dirty);
    if (!dirty || !call_method(dirty.get(), names::clear)) {
        return false;
    }
    snapshot.rows = health_rows(scope, tracker, snapshot.marked.get());
    if (!snapshot.rows && PyErr_ExceptionMatches(PyExc_MemoryError) != 0) {
        const cpython::Handling handling;
        if (put_back(tracker, snapshot.marked.get())) {
            handling.raise_again();
        }
    }
    return static_cast<bool>(snapshot.rows);
}

/// The upsert, eight lines.
Ref upsert_statement(const Scope& scope)
{
    Ref columns = scope.global(names::tool_health_columns);
    columns = columns ? cpython::formatted(columns.get()) : Ref{};
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
    const Ref statement = execute ? upsert_statement(scope) : Ref{};
    return statement ? cpython::call(execute.get(), statement.get(), rows) : Ref{};
}

/// A stored entry from the parts of its key and its counts; the total is rounded already.
Ref make_entry(const Scope& scope, const UsageKey& key, PyObject* calls, PyObject* timed_calls,
               PyObject* total_ms)
{
    const auto& [tool, action, outcome, alias_hit] = key;
    return originals(scope).saved_entry.make(
        {tool.get(), action.get(), outcome.get(), alias_hit.get(), calls, timed_calls, total_ms});
}

/// The entries of the usage map, whatever it is.
Ref entries_of_any(const Scope& scope, PyObject* usage)
{
    const UsageClass& records = originals(scope).usage;
    const Ref items = call_method(usage, names::items);
    const Ref pairs = items ? Ref::steal(PyObject_GetIter(items.get())) : Ref{};
    Ref saved = pairs ? Ref::steal(PyList_New(0)) : Ref{};
    if (!saved) {
        return {};
    }
    while (const Ref item = Ref::steal(PyIter_Next(pairs.get()))) {
        std::array<Ref, 2> pair;
        UsageKey key;
        if (!cpython::unpack(item.get(), pair) || !cpython::unpack(pair[0].get(), key)) {
            return {};
        }
        PyObject* const counts = pair[1].get();
        const Ref calls = records.get(counts, usage_record::calls);
        const Ref timed_calls = calls ? records.get(counts, usage_record::timed_calls) : Ref{};
        Ref total_ms = timed_calls ? records.get(counts, usage_record::total_ms) : Ref{};
        total_ms = total_ms ? rounded(scope, total_ms.get(), 3) : Ref{};
        if (!total_ms ||
            !append(saved, make_entry(scope, key, calls.get(), timed_calls.get(), total_ms.get()))) {
            return {};
        }
    }
    return PyErr_Occurred() == nullptr ? std::move(saved) : Ref{};
}

/// A copy of the usage counts that is quick to take: a tuple of key, calls, timed calls and total for every key, as the
/// references stand, from which `entries_of_copy` makes the entries without the lock. No when the map or anything in
/// it is not plain; nothing foreign has run then.
Answer copy_plain(const Scope& scope, PyObject* usage, Ref& copy)
{
    const UsageClass& records = originals(scope).usage;
    if (!PyDict_CheckExact(usage)) {
        return Answer::no;
    }
    copy = Ref::steal(PyTuple_New(PyDict_GET_SIZE(usage) * copy_width));
    if (!copy) {
        return Answer::failed;
    }
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* counts = nullptr;
    for (Py_ssize_t at = 0; PyDict_Next(usage, &position, &key, &counts) != 0; at += copy_width) {
        if (!PyTuple_CheckExact(key) || PyTuple_GET_SIZE(key) != static_cast<Py_ssize_t>(key_parts) ||
            !records.is_plain(counts)) {
            return Answer::no;
        }
        Ref total_ms = records.get(counts, usage_record::total_ms);
        if (!PyFloat_CheckExact(total_ms.get())) {
            return Answer::no;
        }
        PyTuple_SET_ITEM(copy.get(), at, Py_NewRef(key));
        PyTuple_SET_ITEM(copy.get(), at + 1, records.get(counts, usage_record::calls).release());
        PyTuple_SET_ITEM(copy.get(), at + 2, records.get(counts, usage_record::timed_calls).release());
        PyTuple_SET_ITEM(copy.get(), at + 3, total_ms.release());
    }
    return Answer::yes;
}

/// The entries of such a copy, which ends here: whoever writes them has no use for it, nor has the garbage collector.
Ref entries_of_copy(const Scope& scope, const Ref copy)
{
    Ref saved = Ref::steal(PyList_New(0));
    for (Py_ssize_t at = 0; saved && at < PyTuple_GET_SIZE(copy.get()); at += copy_width) {
        UsageKey key;
        const Ref total_ms = rounded(scope, PyTuple_GET_ITEM(copy.get(), at + 3), 3);
        if (!total_ms || !cpython::unpack(PyTuple_GET_ITEM(copy.get(), at), key) ||
            !append(saved, make_entry(scope, key, PyTuple_GET_ITEM(copy.get(), at + 1),
                                      PyTuple_GET_ITEM(copy.get(), at + 2), total_ms.get()))) {
            return {};
        }
    }
    return saved;
}

/// The snapshot of the usage flush: nothing to write, a plain copy, or the entries themselves.
struct UsageSnapshot {
    bool pending = false;
    Ref copy;
    Ref saved;
};

/// Takes it, under the lock, and clears the mark.
bool take_usage(const Scope& scope, const Tracker& tracker, UsageSnapshot& snapshot)
{
    Ref mark = tracker.get(tracker_field::usage_dirty);
    const Answer pending = mark ? cpython::truth(mark.get()) : Answer::failed;
    mark = Ref{};  // a mark of somebody's own dies when it is replaced, not later
    snapshot.pending = pending == Answer::yes;
    if (pending != Answer::yes) {
        return pending == Answer::no;
    }
    if (!tracker.set(tracker_field::usage_dirty, Py_False)) {
        return false;
    }
    const Ref usage = tracker.get(tracker_field::usage);
    switch (usage ? copy_plain(scope, usage.get(), snapshot.copy) : Answer::failed) {
    case Answer::yes:
        return true;
    case Answer::no:
        snapshot.copy = Ref{};
        snapshot.saved = entries_of_any(scope, usage.get());
        break;
    case Answer::failed:
        break;
    }
    if (!snapshot.saved && PyErr_ExceptionMatches(PyExc_MemoryError) != 0) {
        const cpython::Handling handling;  // the mark stays when memory runs out
        if (tracker.set(tracker_field::usage_dirty, Py_True)) {
            handling.raise_again();
        }
    }
    return static_cast<bool>(snapshot.saved);
}

/// `json.dumps(saved, separators=(",", ":"))`
Ref make_document(const Scope& scope, PyObject* saved)
{
    const Ref json = scope.global(names::json);
    const Ref dump = json ? attr(json.get(), names::dumps) : Ref{};
    const Ref separators = dump ? Ref::steal(Py_BuildValue("(ss)", ",", ":")) : Ref{};
    return separators
               ? cpython::call_named(dump.get(),
                                     std::array{cpython::Named{names::separators, separators.get()}}, saved)
               : Ref{};
}

/// `self._repo.db.execute(statement, (TOOL_USAGE_KEY, document))`
Ref write_usage(const Scope& scope, PyObject* self, PyObject* saved)
{
    const Ref document = make_document(scope, saved);
    const Ref execute = document ? database_method(self, names::execute) : Ref{};
    const Ref key = execute ? scope.global(names::tool_usage_key) : Ref{};
    const Ref parameters = key ? Ref::steal(PyTuple_Pack(2, key.get(), document.get())) : Ref{};
    return parameters
               ? cpython::call(execute.get(), static_cast<PyObject*>(names::replace_usage), parameters.get())
               : Ref{};
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
    PyObject* const self = arguments[0];
    HealthSnapshot snapshot;
    const BlockEnd end =
        locked(scope, self, [&](const Tracker& tracker) { return take_health(scope, tracker, snapshot); });
    if (end != BlockEnd::reached) {
        if (end == BlockEnd::swallowed) {
            raise_unbound("rows");
        }
        return {};
    }
    PyObject* const rows = snapshot.rows.get();
    if (PyList_GET_SIZE(rows) != 0 && !write_health(scope, self, rows)) {
        return restore_and_raise(
            scope, self, [&](const Tracker& tracker) { return put_back(tracker, snapshot.marked.get()); });
    }
    return Ref::steal(PyLong_FromSsize_t(PyList_GET_SIZE(rows)));
}

Ref flush_usage(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    UsageSnapshot snapshot;
    const BlockEnd end =
        locked(scope, self, [&](const Tracker& tracker) { return take_usage(scope, tracker, snapshot); });
    if (end == BlockEnd::failed) {
        return {};
    }
    if (end == BlockEnd::reached && !snapshot.pending) {
        return cpython::zero();
    }
    Ref saved;
    if (end == BlockEnd::swallowed) {
        raise_unbound("saved");
    } else {
        saved = snapshot.saved ? std::move(snapshot.saved) : entries_of_copy(scope, std::move(snapshot.copy));
    }
    if (!saved || !write_usage(scope, self, saved.get())) {
        return restore_and_raise(scope, self, [](const Tracker& tracker) {
            return tracker.set(tracker_field::usage_dirty, Py_True);
        });
    }
    return Ref::steal(PyLong_FromSsize_t(PyList_GET_SIZE(saved.get())));
}

}  // namespace health
