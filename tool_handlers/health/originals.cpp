#include "originals.hpp"

#include "tracker.hpp"

#include <cstring>

namespace health {

namespace {

constexpr std::array tracker_fields{&tracker_field::repo,       &tracker_field::limits, &tracker_field::lock,
                                    &tracker_field::state,      &tracker_field::dirty,  &tracker_field::usage,
                                    &tracker_field::usage_dirty};

/// What the class or a base of it has under the name, as it lies there; null for nothing.
Ref class_attribute(PyTypeObject* type, PyObject* name)
{
    const Ref mro = Ref::borrow(type->tp_mro);
    Ref found;
    for (Py_ssize_t i = 0; !found && i < PyTuple_GET_SIZE(mro.get()); ++i) {
        const Ref space =
            Ref::steal(PyType_GetDict(reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro.get(), i))));
        if (!space || PyDict_GetItemRef(space.get(), name, found.out()) < 0) {
            break;
        }
    }
    return found;
}

/// Whether the object is a property whose getter is the module's own.
bool is_own_cooldown(const Scope& scope, PyObject* descriptor)
{
    if (descriptor == nullptr || !Py_IS_TYPE(descriptor, &PyProperty_Type)) {
        return false;
    }
    const Ref getter = cpython::attr(descriptor, names::fget);
    return getter && scope.owns(getter.get(), cpython::enter<cooldown_s, 1, 0>);
}

/// The function `time.time` of the interpreter, if that is what the module `time` holds: a C function of that module.
/// No Python code can make one, so the name is proof.
Ref builtin_clock()
{
    const Ref module = Ref::steal(PyImport_ImportModule("time"));
    Ref clock = module ? cpython::attr(module.get(), names::time) : Ref{};
    if (!clock || !PyCFunction_CheckExact(clock.get())) {
        return {};
    }
    PyObject* const owner = PyCFunction_GET_SELF(clock.get());
    const char* const name = reinterpret_cast<PyCFunctionObject*>(clock.get())->m_ml->ml_name;
    const bool genuine = owner != nullptr && owner == module.get() && PyModule_CheckExact(owner) &&
                         PyModule_GetDef(owner) != nullptr &&
                         std::strcmp(PyModule_GetDef(owner)->m_name, "time") == 0 &&
                         std::strcmp(name, "time") == 0;
    return genuine ? std::move(clock) : Ref{};
}

}  // namespace

bool TrackerClass::learn(const Scope& scope, PyTypeObject* type)
{
    plain_.forget();
    other_.remember(type);
    if (type->tp_getattro != PyObject_GenericGetAttr || type->tp_setattro != PyObject_GenericSetAttr ||
        !PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT)) {
        return false;
    }
    for (const Field* field : tracker_fields) {
        if (class_attribute(type, field->name)) {
            return false;
        }
    }
    own_cooldown_ = is_own_cooldown(scope, class_attribute(type, names::cooldown_s).get());
    if (PyErr_Occurred() != nullptr) {
        PyErr_Clear();
        return false;
    }
    other_.forget();
    plain_.remember(type);
    return plain_.is(reinterpret_cast<PyObject*>(type));
}

bool keep_constants(Originals& originals)
{
    originals.clock = builtin_clock();
    PyErr_Clear();
    originals.enabled = Ref::steal(PyTuple_Pack(2, Py_False, Py_None));
    return originals.enabled &&
           originals.summary_record.set_keys({names::tool_name, names::call_count, names::error_count,
                                              names::last_error, names::disabled, names::disabled_at,
                                              names::updated_at, names::usage_list}) &&
           originals.usage_row.set_keys(
               {names::action, names::outcome, names::alias_hit, names::calls, names::avg_ms, names::slow}) &&
           originals.saved_entry.set_keys({names::tool, names::action, names::outcome, names::alias_hit,
                                           names::calls, names::timed_calls, names::total_ms}) &&
           originals.tool_stats.set_keys({names::name, names::count, names::avg_ms, names::p95_ms,
                                          names::min_ms, names::max_ms, names::errors});
}

Ref now(const Scope& scope)
{
    Originals& kept = originals(scope);
    Ref time = kept.time_module.find(scope.globals(), names::time);
    if (!time) {
        time = scope.global(names::time);
    }
    if (!time) {
        return {};
    }
    // The attribute of a plain module is an entry of its dictionary; reading the clock here spares the call.
    const Ref clock = PyModule_CheckExact(time.get())
                          ? kept.time_function.find(PyModule_GetDict(time.get()), names::time)
                          : Ref{};
    PyTime_t reading = 0;
    if (clock && clock.get() == kept.clock.get() && PyTime_TimeRaw(&reading) == 0) {
        return Ref::steal(PyFloat_FromDouble(PyTime_AsSecondsDouble(reading)));
    }
    return cpython::call_method(time.get(), names::time);
}

}  // namespace health
