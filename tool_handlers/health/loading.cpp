// Reading the history when a tracker is created: blocking, outside the lock, best-effort.
//
// Whatever the database, or a document in it, does wrong ends in one warning and a tracker without that part of its
// history. What the host's registry does wrong outside the guarded steps, or a row whose counts are no numbers, leaves
// the constructor.
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

using cpython::Answer;
using cpython::append;
using cpython::attr;
using cpython::call_method;
using cpython::item;
using cpython::Named;

namespace {

constexpr std::size_t health_columns = 6;
using HealthRow = std::array<Ref, health_columns>;

/// The end of `except Exception as error: logger.warning(message, error); return`; null for an error that is let out.
Ref log_and_go_on(const Scope& scope, PyObject* message)
{
    if (!cpython::is_caught()) {
        return {};
    }
    const cpython::Handling handling;
    const Ref logger = scope.global(names::logger);
    return cpython::none_if(
        static_cast<bool>(call_method(logger, names::warning, message, handling.error())));
}

/// `TOOLS.get(name) is not None`, whether the registry still has the tool
Answer is_registered(const Scope& scope, cpython::Arg name)
{
    Ref entry;
    return name != nullptr ? cpython::get_from(scope.global(names::tools), name, names::get, entry)
                           : Answer::failed;
}

/// `list(self._repo.db.fetchall(...))`
Ref read_rows(const Scope& scope, PyObject* self)
{
    const Ref fetch = database_method(self, names::fetchall);
    const Ref columns = cpython::formatted(fetch ? scope.global(names::tool_health_columns) : Ref{});
    const Ref statement =
        columns ? Ref::steal(PyUnicode_FromFormat("SELECT %U FROM tool_health", columns.get())) : Ref{};
    return cpython::list_of(cpython::call(fetch, statement));
}

/// Deletes the rows of tools that the registry no longer has, in one batch.
bool delete_removed(const Scope& scope, PyObject* self, const Ref& rows)
{
    const Ref removed = Ref::steal(PyList_New(0));
    const bool done = removed && cpython::for_each(rows, [&](PyObject* row) {
                          const Ref name = cpython::first_item(row);
                          const Answer registered = is_registered(scope, name);
                          return registered == Answer::no ? append(removed, cpython::tuple_of(name))
                                                          : registered == Answer::yes;
                      });
    if (!done || PyList_GET_SIZE(removed.get()) == 0) {
        return done;
    }
    const Ref execute = database_method(self, names::executemany);
    return static_cast<bool>(cpython::call(execute, names::delete_health, removed));
}

/// `int(value or 0)`
Ref whole_or_zero(PyObject* value)
{
    const Answer present = cpython::truth(value);
    if (present == Answer::no) {
        return cpython::zero();
    }
    return present == Answer::yes ? cpython::whole(value) : Ref{};
}

/// `_epoch(text)`, looked up in the module
Ref call_epoch(const Scope& scope, const Ref& text)
{
    return cpython::call_operation<epoch>(scope, scope.global(names::epoch), text);
}

/// `_epoch(text) or 0.0`
Ref epoch_or_zero(const Scope& scope, const Ref& text)
{
    Ref seconds = call_epoch(scope, text);
    const Answer present = cpython::truth(seconds);
    if (present == Answer::no) {
        return Ref::steal(PyFloat_FromDouble(0.0));
    }
    return present == Answer::yes ? std::move(seconds) : Ref{};
}

/// `_ToolState(call_count=..., error_count=..., last_error=..., disabled_at=..., updated_at=...)` from a row.
Ref make_state(const Scope& scope, const HealthRow& columns)
{
    const Ref type = scope.global(names::tool_state);
    const Ref calls = type ? whole_or_zero(columns[1].get()) : Ref{};
    const Ref errors = calls ? whole_or_zero(columns[2].get()) : Ref{};
    const Ref disabled_at = errors ? call_epoch(scope, columns[4]) : Ref{};
    const Ref updated_at = disabled_at ? epoch_or_zero(scope, columns[5]) : Ref{};
    if (const RecordClass& records = import_state(scope).tool_state;
        updated_at && records.is_original(type.get())) {
        return records.make<6>(type.get(), {calls.get(), errors.get(), columns[3].get(), disabled_at.get(),
                                            updated_at.get(), Py_GetConstantBorrowed(Py_CONSTANT_ZERO)});
    }
    return updated_at ? cpython::call_named(type, std::array{Named{names::call_count, calls},
                                                             Named{names::error_count, errors},
                                                             Named{names::last_error, columns[3]},
                                                             Named{names::disabled_at, disabled_at},
                                                             Named{names::updated_at, updated_at}})
                      : Ref{};
}

/// Puts the rows of registered tools into the state, under the lock.
bool seed_state(const Scope& scope, PyObject* self, const Ref& rows)
{
    return cpython::for_each(rows, [&](PyObject* row) {
        HealthRow columns;
        const Answer registered =
            cpython::unpack(row, columns) ? is_registered(scope, columns[0]) : Answer::failed;
        if (registered != Answer::yes) {
            return registered == Answer::no;
        }
        const Ref state = make_state(scope, columns);
        return state && cpython::set_item(attr(self, names::state), columns[0], state);
    });
}

/// The entries of the stored usage document, any iterable; an empty list when there is none.
Ref read_document(const Scope& scope, PyObject* self)
{
    const Ref fetch = database_method(self, names::fetchone);
    const Ref parameters = cpython::tuple_of(fetch ? scope.global(names::tool_usage_key) : Ref{});
    const Ref row = cpython::call(fetch, names::select_usage, parameters);
    if (row && row.get() == Py_None) {
        return Ref::steal(PyList_New(0));
    }
    const Ref value = cpython::first_item(row);
    const int is_text =
        value ? PyObject_IsInstance(value.get(), reinterpret_cast<PyObject*>(&PyUnicode_Type)) : -1;
    if (is_text <= 0) {
        return is_text == 0 ? Ref::steal(PyList_New(0)) : Ref{};
    }
    return call_method(scope.global(names::json), names::loads, value);
}

/// The usage key of an entry: `(str(tool), action, str(outcome), bool(alias_hit))`.
Ref entry_key(PyObject* entry)
{
    const Ref tool = cpython::text_of(item(entry, names::tool));
    const Ref action = tool ? item(entry, names::action) : Ref{};
    const Ref outcome = action ? cpython::text_of(item(entry, names::outcome)) : Ref{};
    const Answer alias_hit = cpython::truth(outcome ? item(entry, names::alias_hit) : Ref{});
    return alias_hit != Answer::failed
               ? cpython::tuple_of(tool, action, outcome, alias_hit == Answer::yes ? Py_True : Py_False)
               : Ref{};
}

/// `_Usage(int(calls), int(timed_calls), float(total_ms))` of an entry.
Ref entry_usage(const Scope& scope, PyObject* entry)
{
    const Ref type = scope.global(names::usage_record);
    const Ref calls = type ? cpython::whole(item(entry, names::calls)) : Ref{};
    const Ref timed_calls = calls ? cpython::whole(item(entry, names::timed_calls)) : Ref{};
    const Ref number = timed_calls ? item(entry, names::total_ms) : Ref{};
    const Ref total_ms = number ? Ref::steal(PyNumber_Float(number.get())) : Ref{};
    if (const RecordClass& records = import_state(scope).usage; total_ms && records.is_original(type.get())) {
        return records.make<3>(type.get(), {calls.get(), timed_calls.get(), total_ms.get()});
    }
    return cpython::call(type, calls, timed_calls, total_ms);
}

/// Everything that the stored document counts, by usage key.
Ref read_usage(const Scope& scope, PyObject* self)
{
    const Ref saved = read_document(scope, self);
    Ref loaded = saved ? Ref::steal(PyDict_New()) : Ref{};
    const bool done = loaded && cpython::for_each(saved, [&](PyObject* entry) {
                          const Ref key = entry_key(entry);
                          return key && cpython::set_entry(loaded, key, entry_usage(scope, entry));
                      });
    return done ? std::move(loaded) : Ref{};
}

/// `_known(key[0], key[1])`, looked up in the module. The key may be anything by now: the collector shows the map.
Answer is_known(const Scope& scope, PyObject* key)
{
    const Ref function = scope.global(names::known);
    const Ref tool = function ? Ref::steal(PySequence_GetItem(key, 0)) : Ref{};
    const Ref action = tool ? Ref::steal(PySequence_GetItem(key, 1)) : Ref{};
    return cpython::truth(cpython::call_operation<known>(scope, function, tool, action));
}

/// The loaded counts whose tool and action the registry still has.
Ref known_usage(const Scope& scope, const Ref& loaded)
{
    Ref kept = Ref::steal(PyDict_New());
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* usage = nullptr;
    while (kept && PyDict_Next(loaded.get(), &position, &key, &usage) != 0) {
        const Ref held_key = Ref::borrow(key);
        const Ref held_usage = Ref::borrow(usage);
        const Answer known = is_known(scope, key);
        if (known == Answer::failed ||
            (known == Answer::yes && !cpython::set_entry(kept, held_key, held_usage))) {
            return {};
        }
    }
    return kept;
}

/// `self._usage.update(kept); self._usage_dirty = len(kept) != len(loaded)`, under the lock
bool seed_usage(PyObject* self, const Ref& kept, const Ref& loaded)
{
    const bool dropped = PyDict_GET_SIZE(kept.get()) != PyDict_GET_SIZE(loaded.get());
    return call_method(attr(self, names::usage), names::update, kept) &&
           cpython::set_attr(self, names::usage_dirty, dropped ? Py_True : Py_False);
}

}  // namespace

Ref load(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    const Ref rows = read_rows(scope, self);
    if (!rows || !delete_removed(scope, self, rows)) {
        return log_and_go_on(scope, names::health_unreadable);
    }
    return locked(scope, attr(self, names::lock),
                  [&] { return cpython::none_if(seed_state(scope, self, rows)); });
}

Ref load_usage(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    const Ref loaded = read_usage(scope, self);
    if (!loaded) {
        return log_and_go_on(scope, names::usage_unreadable);
    }
    const Ref kept = known_usage(scope, loaded);
    return kept ? locked(scope, attr(self, names::lock),
                         [&] { return cpython::none_if(seed_usage(self, kept, loaded)); })
                : Ref{};
}

}  // namespace health
