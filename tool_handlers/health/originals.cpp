#include "originals.hpp"

#include "cpython/special.hpp"
#include "tracker.hpp"

#include <cstring>

namespace health {

using cpython::Answer;

namespace {

constexpr std::array tracker_fields{&tracker_field::repo,       &tracker_field::limits, &tracker_field::lock,
                                    &tracker_field::state,      &tracker_field::dirty,  &tracker_field::usage,
                                    &tracker_field::usage_dirty};

/// Whether `cooldown_s` of the class is a property whose getter is the module's own.
Answer has_own_cooldown_property(const Scope& scope, PyTypeObject* type)
{
    Ref descriptor;
    const Answer found = cpython::find_in_class(type, names::cooldown_s, descriptor);
    if (found != Answer::yes || !Py_IS_TYPE(descriptor.get(), &PyProperty_Type)) {
        return found == Answer::failed ? found : Answer::no;
    }
    const Ref getter = cpython::attr(descriptor.get(), names::fget);
    if (!getter) {
        return Answer::failed;
    }
    return scope.owns(getter.get(), cpython::enter<cooldown_s, 1, 0>) ? Answer::yes : Answer::no;
}

/// Whether the class, or a base of it, has an attribute that would stand before a field of the instance.
Answer hides_a_field(PyTypeObject* type)
{
    Ref ignored;
    Answer hidden = Answer::no;
    for (std::size_t i = 0; hidden == Answer::no && i < tracker_fields.size(); ++i) {
        hidden = cpython::find_in_class(type, tracker_fields[i]->name, ignored);
    }
    return hidden;
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
    const Answer hidden = hides_a_field(type);
    if (hidden == Answer::yes) {
        return false;
    }
    other_.forget();
    const Answer own_cooldown = hidden == Answer::no ? has_own_cooldown_property(scope, type) : hidden;
    if (own_cooldown == Answer::failed) {
        PyErr_Clear();  // for want of memory: the next operation looks again
        return false;
    }
    own_cooldown_ = own_cooldown == Answer::yes;
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
