// The tool-call path: recording calls, disabling a failing tool, re-enabling it after the cooldown.
//
// Reentrancy. Nearly every line can run foreign code: hashing and comparing a name, adding to a user-defined number
// in a record, the settings and the clock, `__exit__` of a replaced lock, and the destructor of whatever value a
// store pushes out. So every object in use is held by a Ref, nothing is looked up twice that must be the same, a field
// is replaced before its old value is dropped, and after every call-out the tracker's maps count as changed. No
// borrowed reference is used after a line that can run foreign code. What would be a local variable in Python
// is one here too, and dies after the lock is released: a destructor that asks the tracker must not find it locked.
//
// The critical section runs no bytecode as long as records, settings and clock are what they usually are, so no other
// thread can get hold of the interpreter, and hence wait for the lock, while it is held.
#include "tracker.hpp"

namespace health {

using cpython::Answer;
using cpython::attr;
using cpython::call_method;
using cpython::none_if;
using cpython::set_attr;

namespace {

constexpr Py_ssize_t last_error_limit = 500;  // characters (code points) of an error text that are kept

/// `time.time()`
Ref now(const Scope& scope)
{
    const Ref module = scope.global(names::time);
    // The attribute of a plain module is an entry of its dictionary, and a C function without arguments can be called
    // as the interpreter would: neither needs a bound method or an argument list.
    if (module && PyModule_CheckExact(module.get())) {
        Ref clock;
        if (PyDict_GetItemRef(PyModule_GetDict(module.get()), names::time, clock.out()) < 0) {
            return {};
        }
        if (clock && PyCFunction_CheckExact(clock.get()) &&
            PyCFunction_GET_FLAGS(clock.get()) == METH_NOARGS) {
            return Ref::steal(
                PyCFunction_GET_FUNCTION(clock.get())(PyCFunction_GET_SELF(clock.get()), nullptr));
        }
    }
    return call_method(module, names::time);
}

/// The record under `key` in a map of the tracker, which is made and put there when it is missing.
Ref find_or_make(const Scope& scope, const Tracker& tracker, const Field& map, PyObject* key,
                 PyObject* class_name)
{
    Ref record;
    const Answer found = cpython::get_from(tracker.get(map), key, names::get, record);
    if (found != Answer::no) {
        return record;
    }
    record = cpython::call(scope.global(class_name));
    return record && cpython::set_item(tracker.get(map), key, record) ? std::move(record) : Ref{};
}

Ref tool_record(const Scope& scope, const Tracker& tracker, PyObject* tool_name)
{
    return find_or_make(scope, tracker, tracker_field::state, tool_name, names::tool_state);
}

/// `self._dirty.add(tool_name)`
bool mark_dirty(const Tracker& tracker, PyObject* tool_name)
{
    const Ref dirty = tracker.get(tracker_field::dirty);
    if (dirty && PySet_CheckExact(dirty.get())) {
        return PySet_Add(dirty.get(), tool_name) == 0;
    }
    return static_cast<bool>(call_method(dirty, names::add, tool_name));
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
    return cpython::item(error, end ? Ref::steal(PySlice_New(nullptr, end.get(), nullptr)) : Ref{});
}

/// `value is not None`
Answer is_not_none(const Ref& value)
{
    return value ? cpython::answer(value.get() != Py_None ? 1 : 0) : Answer::failed;
}

/// One successful call of the tool.
bool count_success(const Scope& scope, const Tracker& tracker, PyObject* tool_name, Ref& state)
{
    const RecordClass& records = import_state(scope).tool_state;
    state = tool_record(scope, tracker, tool_name);
    return state && records.add_one(state.get(), tool_state::call_count) &&
           records.set(state.get(), tool_state::consecutive_errors, cpython::zero()) &&
           records.set(state.get(), tool_state::disabled_at, cpython::none()) &&
           records.set(state.get(), tool_state::updated_at, now(scope)) && mark_dirty(tracker, tool_name);
}

/// Disables the tool, from the time of its last change on, when its run of errors has reached the limit.
bool disable_if_failing(const RecordClass& records, const Tracker& tracker, PyObject* state)
{
    const Ref run = records.get(state, tool_state::consecutive_errors);
    const Ref limits = run ? tracker.get(tracker_field::limits) : Ref{};
    const Answer is_failing = cpython::compare_numbers(run, attr(limits, names::disable_after_errors), Py_GE);
    return is_failing == Answer::yes
               ? records.set(state, tool_state::disabled_at, records.get(state, tool_state::updated_at))
               : is_failing == Answer::no;
}

/// One failed call of the tool.
bool count_error(const Scope& scope, const Tracker& tracker, PyObject* tool_name, PyObject* error, Ref& state)
{
    const RecordClass& records = import_state(scope).tool_state;
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
    const RecordClass& records = import_state(scope).usage;
    usage = find_or_make(scope, tracker, tracker_field::usage, key, names::usage_record);
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
bool enable(const RecordClass& records, const Tracker& tracker, PyObject* state, PyObject* tool_name,
            PyObject* now)
{
    return records.set(state, tool_state::consecutive_errors, cpython::zero()) &&
           records.set(state, tool_state::disabled_at, cpython::none()) &&
           records.set(state, tool_state::updated_at, Ref::borrow(now)) && mark_dirty(tracker, tool_name);
}

/// `now - state.disabled_at >= self.cooldown_s`
Answer is_over(const RecordClass& records, const Tracker& tracker, PyObject* state, PyObject* now)
{
    Ref disabled_at = records.get(state, tool_state::disabled_at);
    const Ref elapsed = disabled_at ? Ref::steal(PyNumber_Subtract(now, disabled_at.get())) : Ref{};
    disabled_at = Ref{};
    return cpython::compare_numbers(elapsed, elapsed ? attr(tracker.self(), names::cooldown_s) : Ref{},
                                    Py_GE);
}

/// The answer to `is_disabled`, under the lock.
Ref disabled_answer(const Scope& scope, const Tracker& tracker, PyObject* tool_name, Ref& state,
                    Ref& asked_at)
{
    const RecordClass& records = import_state(scope).tool_state;
    const Answer known = cpython::get_from(tracker.get(tracker_field::state), tool_name, names::get, state);
    const Answer disabled =
        known == Answer::yes ? is_not_none(records.get(state.get(), tool_state::disabled_at)) : known;
    if (disabled != Answer::yes) {
        return disabled == Answer::no ? import_state(scope).enabled.copy() : Ref{};
    }
    asked_at = now(scope);
    switch (asked_at ? is_over(records, tracker, state.get(), asked_at.get()) : Answer::failed) {
    case Answer::failed:
        return {};
    case Answer::yes:
        return enable(records, tracker, state.get(), tool_name, asked_at.get())
                   ? import_state(scope).enabled.copy()
                   : Ref{};
    case Answer::no:
        break;
    }
    return cpython::tuple_of(Py_True, records.get(state.get(), tool_state::last_error));
}

}  // namespace

Ref construct(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const self = arguments[0];
    if (!set_attr(self, names::repo, arguments[1])) {
        return {};
    }
    const Ref settings = arguments[2] != Py_None ? Ref::borrow(arguments[2])
                                                 : cpython::call(scope.global(names::tools_config));
    if (!set_attr(self, names::limits, settings) ||
        !set_attr(self, names::lock, call_method(scope.global(names::threading), names::lock_type)) ||
        !set_attr(self, names::state, Ref::steal(PyDict_New())) ||
        !set_attr(self, names::dirty, Ref::steal(PySet_New(nullptr))) ||
        !set_attr(self, names::usage, Ref::steal(PyDict_New())) ||
        !set_attr(self, names::usage_dirty, Py_False) || !call_method(self, names::load) ||
        !call_method(self, names::load_usage)) {
        return {};
    }
    return cpython::none();
}

Ref limits(const Scope& /*scope*/, PyObject* const* arguments) { return attr(arguments[0], names::limits); }

Ref known(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const action = arguments[1];
    Ref entry;
    const Answer found = cpython::get_from(scope.global(names::tools), arguments[0], names::get, entry);
    if (found == Answer::failed) {
        return {};
    }
    if (found == Answer::no || action == Py_None) {
        return cpython::boolean(found == Answer::yes);
    }
    const Ref entry_action = call_method(entry, names::action, action);
    return entry_action ? cpython::boolean(entry_action.get() != Py_None) : Ref{};
}

Ref record_call(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    Ref usage;
    Ref key;
    return locked(scope, tracker.get(tracker_field::lock), [&] {
        key = cpython::tuple_of(arguments[1], arguments[2], arguments[3], arguments[4]);
        return none_if(key && count_call(scope, tracker, key.get(), arguments[5], usage));
    });
}

Ref record_success(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    Ref state;
    return locked(scope, tracker.get(tracker_field::lock),
                  [&] { return none_if(count_success(scope, tracker, arguments[1], state)); });
}

Ref record_error(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    Ref state;
    return locked(scope, tracker.get(tracker_field::lock),
                  [&] { return none_if(count_error(scope, tracker, arguments[1], arguments[2], state)); });
}

Ref cooldown_s(const Scope& /*scope*/, PyObject* const* arguments)
{
    return attr(attr(arguments[0], names::limits), names::disable_cooldown_s);
}

Ref is_disabled(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    Ref asked_at;
    Ref state;
    return locked(scope, tracker.get(tracker_field::lock),
                  [&] { return disabled_answer(scope, tracker, arguments[1], state, asked_at); });
}

Ref has_unsaved_changes(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    return locked(scope, tracker.get(tracker_field::lock), [&] {
        const Answer any = cpython::truth(tracker.get(tracker_field::dirty));
        if (any == Answer::no) {
            return tracker.get(tracker_field::usage_dirty);
        }
        return any == Answer::yes ? cpython::boolean(true) : Ref{};
    });
}

}  // namespace health
