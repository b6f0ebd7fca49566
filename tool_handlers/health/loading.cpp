// Reading the history when a tracker is created: blocking, outside the lock, best-effort.
//
// Whatever the database, or a document in it, does wrong ends in one warning and a tracker without that part of its
// history. What the host's registry does wrong outside the guarded steps, or a row whose counts are no numbers, leaves
// the constructor.
#include "cpython/containers.hpp"
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

using cpython::Answer;
using cpython::append;
using cpython::attr;
using cpython::call_method;
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
    return logger && call_method(logger.get(), names::warning, message, handling.error()) ? cpython::none()
                                                                                          : Ref{};
}

/// Whether the registry still has the tool: `TOOLS.get(name) is not None`.
Answer is_registered(const Scope& scope, PyObject* name)
{
    const Ref registry = scope.global(names::tools);
    Ref entry;
    return registry ? cpython::get_from(registry.get(), name, names::get, entry) : Answer::failed;
}

/// `list(self._repo.db.fetchall(...))`
Ref read_rows(const Scope& scope, PyObject* self)
{
    const Ref fetch = database_method(self, names::fetchall);
    Ref columns = fetch ? scope.global(names::tool_health_columns) : Ref{};
    columns = columns ? cpython::formatted(columns.get()) : Ref{};
    const Ref statement =
        columns ? Ref::steal(PyUnicode_FromFormat("SELECT %U FROM tool_health", columns.get())) : Ref{};
    const Ref rows = statement ? cpython::call(fetch.get(), statement.get()) : Ref{};
    return rows ? Ref::steal(PySequence_List(rows.get())) : Ref{};
}

/// Deletes the rows of tools that the registry no longer has, in one batch.
bool delete_removed(const Scope& scope, PyObject* self, const Ref& rows)
{
    const Ref removed = Ref::steal(PyList_New(0));
    if (!removed) {
        return false;
    }
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows.get()); ++i) {
        const Ref row = Ref::borrow(PyList_GET_ITEM(rows.get(), i));
        const Ref name = cpython::item(row.get(), Py_GetConstantBorrowed(Py_CONSTANT_ZERO));
        const Answer registered = name ? is_registered(scope, name.get()) : Answer::failed;
        if (registered == Answer::failed ||
            (registered == Answer::no && !append(removed, Ref::steal(PyTuple_Pack(1, name.get()))))) {
            return false;
        }
    }
    if (PyList_GET_SIZE(removed.get()) == 0) {
        return true;
    }
    const Ref execute = database_method(self, names::executemany);
    return execute &&
           cpython::call(execute.get(), static_cast<PyObject*>(names::delete_health), removed.get());
}

/// `_ToolState(call_count=..., error_count=..., last_error=..., disabled_at=..., updated_at=...)` from a row.
Ref make_state(const Scope& scope, const HealthRow& columns)
{
    const ToolStateClass& records = originals(scope).tool_state;
    const Ref type = scope.global(names::tool_state);
    Ref calls = type ? whole_or_zero(columns[1].get()) : Ref{};
    Ref errors = calls ? whole_or_zero(columns[2].get()) : Ref{};
    Ref disabled_at = errors ? call_epoch(scope, columns[4].get()) : Ref{};
    Ref updated_at = disabled_at ? call_epoch(scope, columns[5].get()) : Ref{};
    switch (updated_at ? cpython::truth(updated_at.get()) : Answer::failed) {
    case Answer::failed:
        return {};
    case Answer::no:
        updated_at = records.default_of(tool_state::updated_at).copy();
        break;
    case Answer::yes:
        break;
    }
    std::array<Ref, 6> values{std::move(calls),       std::move(errors),     columns[3].copy(),
                              std::move(disabled_at), std::move(updated_at), {}};
    if (records.is_original(type.get())) {
        values[5] = records.default_of(tool_state::consecutive_errors).copy();
        return records.make_original(type.get(), values);
    }
    return cpython::call_named(type.get(), std::array{Named{names::call_count, values[0].get()},
                                                      Named{names::error_count, values[1].get()},
                                                      Named{names::last_error, values[2].get()},
                                                      Named{names::disabled_at, values[3].get()},
                                                      Named{names::updated_at, values[4].get()}});
}

/// Puts the rows of registered tools into the state, under the lock.
bool seed_state(const Scope& scope, PyObject* self, const Ref& rows)
{
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows.get()); ++i) {
        const Ref row = Ref::borrow(PyList_GET_ITEM(rows.get(), i));
        HealthRow columns;
        const Answer registered =
            cpython::unpack(row.get(), columns) ? is_registered(scope, columns[0].get()) : Answer::failed;
        if (registered == Answer::failed) {
            return false;
        }
        if (registered == Answer::no) {
            continue;
        }
        const Ref state = make_state(scope, columns);
        const Ref states = state ? attr(self, names::state) : Ref{};
        if (!states || PyObject_SetItem(states.get(), columns[0].get(), state.get()) != 0) {
            return false;
        }
    }
    return true;
}

/// The entries of the stored usage document, any iterable; an empty list when there is none.
Ref read_document(const Scope& scope, PyObject* self)
{
    const Ref fetch = database_method(self, names::fetchone);
    const Ref key = fetch ? scope.global(names::tool_usage_key) : Ref{};
    const Ref parameters = key ? Ref::steal(PyTuple_Pack(1, key.get())) : Ref{};
    const Ref row =
        parameters ? cpython::call(fetch.get(), static_cast<PyObject*>(names::select_usage), parameters.get())
                   : Ref{};
    if (!row || row.get() == Py_None) {
        return row ? Ref::steal(PyList_New(0)) : Ref{};
    }
    const Ref value = cpython::item(row.get(), Py_GetConstantBorrowed(Py_CONSTANT_ZERO));
    const int is_text =
        value ? PyObject_IsInstance(value.get(), reinterpret_cast<PyObject*>(&PyUnicode_Type)) : -1;
    if (is_text <= 0) {
        return is_text == 0 ? Ref::steal(PyList_New(0)) : Ref{};
    }
    const Ref json = scope.global(names::json);
    return json ? call_method(json.get(), names::loads, value.get()) : Ref{};
}

/// The usage key of an entry: `(str(tool), action, str(outcome), bool(alias_hit))`.
Ref entry_key(PyObject* entry)
{
    Ref tool = cpython::item(entry, names::tool);
    tool = tool ? cpython::text_of(tool.get()) : Ref{};
    Ref action = tool ? cpython::item(entry, names::action) : Ref{};
    Ref outcome = action ? cpython::item(entry, names::outcome) : Ref{};
    outcome = outcome ? cpython::text_of(outcome.get()) : Ref{};
    const Ref alias_hit = outcome ? cpython::item(entry, names::alias_hit) : Ref{};
    const Answer by_alias = alias_hit ? cpython::truth(alias_hit.get()) : Answer::failed;
    return by_alias == Answer::failed
               ? Ref{}
               : cpython::tuple_of(std::move(tool), std::move(action), std::move(outcome),
                                   cpython::boolean(by_alias == Answer::yes));
}

/// `_Usage(int(calls), int(timed_calls), float(total_ms))` of an entry.
Ref entry_usage(const Scope& scope, PyObject* entry)
{
    const Ref type = scope.global(names::usage_record);
    Ref calls = type ? cpython::item(entry, names::calls) : Ref{};
    calls = calls ? Ref::steal(PyNumber_Long(calls.get())) : Ref{};
    Ref timed_calls = calls ? cpython::item(entry, names::timed_calls) : Ref{};
    timed_calls = timed_calls ? Ref::steal(PyNumber_Long(timed_calls.get())) : Ref{};
    Ref total_ms = timed_calls ? cpython::item(entry, names::total_ms) : Ref{};
    total_ms = total_ms ? Ref::steal(PyNumber_Float(total_ms.get())) : Ref{};
    if (!total_ms) {
        return {};
    }
    const UsageClass& records = originals(scope).usage;
    return records.is_original(type.get())
               ? records.make_original(type.get(),
                                       {std::move(calls), std::move(timed_calls), std::move(total_ms)})
               : cpython::call(type.get(), calls.get(), timed_calls.get(), total_ms.get());
}

/// Everything that the stored document counts, by usage key.
Ref read_usage(const Scope& scope, PyObject* self)
{
    const Ref saved = read_document(scope, self);
    Ref loaded = saved ? Ref::steal(PyDict_New()) : Ref{};
    const Ref entries = loaded ? Ref::steal(PyObject_GetIter(saved.get())) : Ref{};
    if (!entries) {
        return {};
    }
    while (const Ref entry = Ref::steal(PyIter_Next(entries.get()))) {
        const Ref key = entry_key(entry.get());
        const Ref usage = key ? entry_usage(scope, entry.get()) : Ref{};
        if (!usage || PyDict_SetItem(loaded.get(), key.get(), usage.get()) != 0) {
            return {};
        }
    }
    return PyErr_Occurred() == nullptr ? std::move(loaded) : Ref{};
}

/// `_known(key[0], key[1])`, looked up in the module. The key may be anything by now: the collector shows the map.
Answer is_known(const Scope& scope, PyObject* key)
{
    const Ref function = scope.global(names::known);
    const Ref tool = function ? Ref::steal(PySequence_GetItem(key, 0)) : Ref{};
    const Ref action = tool ? Ref::steal(PySequence_GetItem(key, 1)) : Ref{};
    if (!action) {
        return Answer::failed;
    }
    const std::array arguments{tool.get(), action.get()};
    const Ref result = scope.owns(function.get(), cpython::enter<known, 2, 0>)
                           ? known(scope, arguments.data())
                           : cpython::call(function.get(), tool.get(), action.get());
    return result ? cpython::truth(result.get()) : Answer::failed;
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
            (known == Answer::yes && PyDict_SetItem(kept.get(), held_key.get(), held_usage.get()) != 0)) {
            return {};
        }
    }
    return kept;
}

/// `self._usage.update(kept); self._usage_dirty = len(kept) != len(loaded)`, under the lock
bool seed_usage(PyObject* self, const Ref& kept, const Ref& loaded)
{
    const Ref usage = attr(self, names::usage);
    if (!usage || !call_method(usage.get(), names::update, kept.get())) {
        return false;
    }
    const bool dropped = PyDict_GET_SIZE(kept.get()) != PyDict_GET_SIZE(loaded.get());
    return cpython::set_attr(self, names::usage_dirty, dropped ? Py_True : Py_False);
}

/// `with self._lock: body()`, by attribute access alone: a tracker that dies half-made for want of memory must not have
/// had its fields turned into a dictionary, as the interpreter cannot take that apart then.
template <class Body>
Ref under_lock(const Scope& scope, PyObject* self, Body&& body)
{
    const Ref lock = attr(self, names::lock);
    return lock ? result_of(cpython::with_lock(originals(scope).lock, lock.get(), body), cpython::none())
                : Ref{};
}

}  // namespace

Ref load(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    const Ref rows = read_rows(scope, self);
    if (!rows || !delete_removed(scope, self, rows)) {
        return log_and_go_on(scope, names::health_unreadable);
    }
    return under_lock(scope, self, [&] { return seed_state(scope, self, rows); });
}

Ref load_usage(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    const Ref loaded = read_usage(scope, self);
    if (!loaded) {
        return log_and_go_on(scope, names::usage_unreadable);
    }
    const Ref kept = known_usage(scope, loaded);
    return kept ? under_lock(scope, self, [&] { return seed_usage(self, kept, loaded); }) : Ref{};
}

}  // namespace health
