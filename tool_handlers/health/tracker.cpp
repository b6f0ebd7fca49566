// The tool-call path: recording calls, disabling a failing tool, re-enabling it after the cooldown.
//
// Reentrancy. Nearly every line can run foreign code: hashing and comparing a name, adding to a number that somebody
// put into a record, the settings and the clock, `__exit__` of a replaced lock, and the destructor of whatever value a
// store pushes out. So every object in use is held by a Ref, nothing is looked up twice that must be the same, a field
// is replaced before its old value is dropped, and after every call-out the tracker's maps count as changed. No
// borrowed reference is used after a line that can run foreign code. What would be a local variable in Python
// is one here too, and dies after the lock is released: a destructor that asks the tracker must not find it locked.
//
// The critical section runs no bytecode as long as records, settings and clock are what they usually are, so no other
// thread can get hold of the interpreter, and hence wait for the lock, while it is held.
#include "tracker.hpp"

#include "cpython/containers.hpp"

namespace health {

using cpython::Answer;
using cpython::attr;
using cpython::call_method;
using cpython::set_attr;

namespace {

constexpr Py_ssize_t last_error_limit = 500;  // characters (code points) of an error text that are kept

/// The record under `key` in a map of the tracker, which is made and put there when it is missing.
template <std::size_t Fields>
Ref find_or_make(const Scope& scope, const Tracker& tracker, const Field& map, PyObject* key,
                 const RecordClass<Fields>& record_class, const cpython::Name& class_name)
{
    Ref record;
    Ref records = tracker.get(map);
    if (!records) {
        return {};
    }
    const Answer found = cpython::get_from(records.get(), key, names::get, record);
    if (found != Answer::no) {
        return record;
    }
    const Ref type = scope.global(class_name);
    record = type ? record_class.make(type.get()) : Ref{};
    if (!record) {
        return {};
    }
    records = tracker.get(map);
    if (!records || PyObject_SetItem(records.get(), key, record.get()) != 0) {
        return {};
    }
    return record;
}

Ref tool_record(const Scope& scope, const Tracker& tracker, PyObject* tool_name)
{
    return find_or_make(scope, tracker, tracker_field::state, tool_name, originals(scope).tool_state,
                        names::tool_state);
}

/// `self._dirty.add(tool_name)`
bool mark_dirty(const Tracker& tracker, PyObject* tool_name)
{
    const Ref dirty = tracker.get(tracker_field::dirty);
    if (!dirty) {
        return false;
    }
    if (PySet_CheckExact(dirty.get())) {
        return cpython::add_to_set(dirty.get(), tool_name, names::update);
    }
    return static_cast<bool>(call_method(dirty.get(), names::add, tool_name));
}

/// `error[:500] if error else ""`
Ref kept_error_text(PyObject* error)
{
    if (PyUnicode_CheckExact(error)) {
        return Ref::steal(PyUnicode_Substring(error, 0, last_error_limit));
    }
    switch (cpython::truth(error)) {
    case Answer::failed:
        return {};
    case Answer::no:
        return Ref::borrow(Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_STR));
    case Answer::yes:
        break;
    }
    const Ref end = Ref::steal(PyLong_FromSsize_t(last_error_limit));
    const Ref slice = end ? Ref::steal(PySlice_New(nullptr, end.get(), nullptr)) : Ref{};
    return slice ? cpython::item(error, slice.get()) : Ref{};
}

/// `now - disabled_at >= self.cooldown_s`
Answer is_over(const Tracker& tracker, PyObject* now, Ref disabled_at)
{
    const Ref elapsed = Ref::steal(PyNumber_Subtract(now, disabled_at.get()));
    disabled_at = Ref{};
    const Ref cooldown = elapsed ? attr(tracker.self(), names::cooldown_s) : Ref{};
    return cooldown ? cpython::is_at_least(elapsed.get(), cooldown.get()) : Answer::failed;
}

/// One successful call of the tool.
bool count_success(const Scope& scope, const Tracker& tracker, PyObject* tool_name, Ref& state)
{
    const ToolStateClass& records = originals(scope).tool_state;
    state = tool_record(scope, tracker, tool_name);
    return state && records.add_one(state.get(), tool_state::call_count) &&
           records.set(state.get(), tool_state::consecutive_errors, cpython::zero()) &&
           records.set(state.get(), tool_state::disabled_at, cpython::none()) &&
           records.set(state.get(), tool_state::updated_at, now(scope)) && mark_dirty(tracker, tool_name);
}

/// `state.consecutive_errors >= self._limits.disable_after_errors`
Answer is_failing(const ToolStateClass& records, const Tracker& tracker, PyObject* state)
{
    const Ref run = records.get(state, tool_state::consecutive_errors);
    Ref limit = run ? tracker.get(tracker_field::limits) : Ref{};
    limit = limit ? attr(limit.get(), names::disable_after_errors) : Ref{};
    return limit ? cpython::is_at_least(run.get(), limit.get()) : Answer::failed;
}

/// Disables the tool, from the time of its last change on, when its run of errors has reached the limit.
bool disable_if_failing(const ToolStateClass& records, const Tracker& tracker, PyObject* state)
{
    const Answer failing = is_failing(records, tracker, state);
    return failing == Answer::yes
               ? records.set(state, tool_state::disabled_at, records.get(state, tool_state::updated_at))
               : failing == Answer::no;
}

/// One failed call of the tool.
bool count_error(const Scope& scope, const Tracker& tracker, PyObject* tool_name, PyObject* error, Ref& state)
{
    const ToolStateClass& records = originals(scope).tool_state;
    state = tool_record(scope, tracker, tool_name);
    return state && records.add_one(state.get(), tool_state::call_count) &&
           records.add_one(state.get(), tool_state::error_count) &&
           records.add_one(state.get(), tool_state::consecutive_errors) &&
           records.set(state.get(), tool_state::last_error, kept_error_text(error)) &&
           records.set(state.get(), tool_state::updated_at, now(scope)) &&
           disable_if_failing(records, tracker, state.get()) && mark_dirty(tracker, tool_name);
}

/// One call in the usage counts; `key` is the usage key.
bool count_call(const Scope& scope, const Tracker& tracker, PyObject* key, PyObject* duration_ms, Ref& usage)
{
    const UsageClass& records = originals(scope).usage;
    usage = find_or_make(scope, tracker, tracker_field::usage, key, records, names::usage_record);
    if (!usage || !records.add_one(usage.get(), usage_record::calls)) {
        return false;
    }
    if (duration_ms != Py_None && (!records.add_one(usage.get(), usage_record::timed_calls) ||
                                   !records.add(usage.get(), usage_record::total_ms, duration_ms))) {
        return false;
    }
    return tracker.set(tracker_field::usage_dirty, Py_True);
}

/// Ends a disablement whose cooldown is over.
bool enable(const ToolStateClass& records, const Tracker& tracker, PyObject* state, PyObject* tool_name,
            PyObject* now)
{
    return records.set(state, tool_state::consecutive_errors, cpython::zero()) &&
           records.set(state, tool_state::disabled_at, cpython::none()) &&
           records.set(state, tool_state::updated_at, Ref::borrow(now)) && mark_dirty(tracker, tool_name);
}

/// The answer to `is_disabled`, under the lock.
Ref disabled_answer(const Scope& scope, const Tracker& tracker, PyObject* tool_name, Ref& state,
                    Ref& asked_at)
{
    const ToolStateClass& records = originals(scope).tool_state;
    const Ref states = tracker.get(tracker_field::state);
    Answer enabled = states ? cpython::get_from(states.get(), tool_name, names::get, state) : Answer::failed;
    if (enabled != Answer::failed) {
        enabled = enabled == Answer::no ? Answer::yes : records.is_none(state.get(), tool_state::disabled_at);
    }
    if (enabled != Answer::no) {
        return enabled == Answer::yes ? originals(scope).enabled.copy() : Ref{};
    }
    asked_at = now(scope);
    Ref disabled_at = asked_at ? records.get(state.get(), tool_state::disabled_at) : Ref{};
    if (!disabled_at) {
        return {};
    }
    switch (is_over(tracker, asked_at.get(), std::move(disabled_at))) {
    case Answer::failed:
        return {};
    case Answer::yes:
        return enable(records, tracker, state.get(), tool_name, asked_at.get())
                   ? originals(scope).enabled.copy()
                   : Ref{};
    case Answer::no:
        break;
    }
    Ref last_error = records.get(state.get(), tool_state::last_error);
    return last_error ? cpython::tuple_of(cpython::boolean(true), std::move(last_error)) : Ref{};
}

}  // namespace

Ref construct(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    if (!set_attr(self, names::repo, arguments[1])) {
        return {};
    }
    Ref settings = Ref::borrow(arguments[2]);
    if (settings.get() == Py_None) {
        const Ref make = scope.global(names::tools_config);
        settings = make ? cpython::call(make.get()) : Ref{};
    }
    if (!settings || !set_attr(self, names::limits, settings.get())) {
        return {};
    }
    const Ref threading = scope.global(names::threading);
    const Ref lock = threading ? call_method(threading.get(), names::lock_type) : Ref{};
    if (!lock || !set_attr(self, names::lock, lock.get())) {
        return {};
    }
    const auto set_new = [self](PyObject* name, const Ref& value) {
        return value && set_attr(self, name, value.get());
    };
    if (!set_new(names::state, Ref::steal(PyDict_New())) ||
        !set_new(names::dirty, Ref::steal(PySet_New(nullptr))) ||
        !set_new(names::usage, Ref::steal(PyDict_New())) || !set_attr(self, names::usage_dirty, Py_False) ||
        !call_method(self, names::load) || !call_method(self, names::load_usage)) {
        return {};
    }
    return cpython::none();
}

Ref limits(const Scope& /*scope*/, PyObject* const* arguments) { return attr(arguments[0], names::limits); }

Ref known(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const tool = arguments[0];
    PyObject* const action = arguments[1];
    const Ref registry = scope.global(names::tools);
    Ref entry;
    const Answer found =
        registry ? cpython::get_from(registry.get(), tool, names::get, entry) : Answer::failed;
    if (found == Answer::failed) {
        return {};
    }
    if (found == Answer::no || action == Py_None) {
        return cpython::boolean(found == Answer::yes);
    }
    const Ref entry_action = call_method(entry.get(), names::action, action);
    return entry_action ? cpython::boolean(entry_action.get() != Py_None) : Ref{};
}

Ref record_call(const Scope& scope, PyObject* const* arguments)
{
    Ref usage;
    Ref key;
    const cpython::BlockEnd end = locked(scope, arguments[0], [&](const Tracker& tracker) {
        key = cpython::tuple_of(Ref::borrow(arguments[1]), Ref::borrow(arguments[2]),
                                Ref::borrow(arguments[3]), Ref::borrow(arguments[4]));
        return key && count_call(scope, tracker, key.get(), arguments[5], usage);
    });
    return result_of(end, cpython::none());
}

Ref record_success(const Scope& scope, PyObject* const* arguments)
{
    Ref state;
    const cpython::BlockEnd end = locked(scope, arguments[0], [&](const Tracker& tracker) {
        return count_success(scope, tracker, arguments[1], state);
    });
    return result_of(end, cpython::none());
}

Ref record_error(const Scope& scope, PyObject* const* arguments)
{
    Ref state;
    const cpython::BlockEnd end = locked(scope, arguments[0], [&](const Tracker& tracker) {
        return count_error(scope, tracker, arguments[1], arguments[2], state);
    });
    return result_of(end, cpython::none());
}

Ref cooldown_s(const Scope& /*scope*/, PyObject* const* arguments)
{
    const Ref settings = attr(arguments[0], names::limits);
    return settings ? attr(settings.get(), names::disable_cooldown_s) : Ref{};
}

Ref is_disabled(const Scope& scope, PyObject* const* arguments)
{
    Ref asked_at;
    Ref state;
    Ref result;
    const cpython::BlockEnd end = locked(scope, arguments[0], [&](const Tracker& tracker) {
        result = disabled_answer(scope, tracker, arguments[1], state, asked_at);
        return static_cast<bool>(result);
    });
    return result_of(end, std::move(result));
}

Ref has_unsaved_changes(const Scope& scope, PyObject* const* arguments)
{
    Ref result;
    const cpython::BlockEnd end = locked(scope, arguments[0], [&](const Tracker& tracker) {
        const Ref dirty = tracker.get(tracker_field::dirty);
        const Answer any = dirty ? cpython::truth(dirty.get()) : Answer::failed;
        if (any != Answer::failed) {
            result = any == Answer::yes ? cpython::boolean(true) : tracker.get(tracker_field::usage_dirty);
        }
        return static_cast<bool>(result);
    });
    return result_of(end, std::move(result));
}

}  // namespace health
