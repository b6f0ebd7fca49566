#include "originals.hpp"

#include "cpython/special.hpp"

namespace health {

using cpython::Answer;

namespace {

constexpr std::array tracker_fields{&tracker_field::repo,       &tracker_field::limits, &tracker_field::lock,
                                    &tracker_field::state,      &tracker_field::dirty,  &tracker_field::usage,
                                    &tracker_field::usage_dirty};

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

}  // namespace

bool TrackerClass::learn(PyTypeObject* type)
{
    plain_.forget();
    other_.remember(type);
    if (type->tp_getattro != PyObject_GenericGetAttr || type->tp_setattro != PyObject_GenericSetAttr ||
        !PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT)) {
        return false;
    }
    switch (hides_a_field(type)) {
    case Answer::yes:
        return false;
    case Answer::failed:
        PyErr_Clear();  // for want of memory: the next operation looks again
        other_.forget();
        return false;
    case Answer::no:
        break;
    }
    other_.forget();
    plain_.remember(type);
    return plain_.is(reinterpret_cast<PyObject*>(type));
}

bool keep_constants(Originals& originals)
{
    originals.round = cpython::item(PyEval_GetBuiltins(), names::round);
    originals.enabled = Ref::steal(PyTuple_Pack(2, Py_False, Py_None));
    return originals.round && originals.enabled &&
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
    // The attribute of a plain module is an entry of its dictionary, and a C function without arguments can be called
    // as the interpreter would: neither needs a bound method or an argument list.
    const Ref clock = PyModule_CheckExact(time.get())
                          ? kept.time_function.find(PyModule_GetDict(time.get()), names::time)
                          : Ref{};
    if (clock && PyCFunction_CheckExact(clock.get()) && PyCFunction_GET_FLAGS(clock.get()) == METH_NOARGS) {
        return Ref::steal(PyCFunction_GET_FUNCTION(clock.get())(PyCFunction_GET_SELF(clock.get()), nullptr));
    }
    return cpython::call_method(time.get(), names::time);
}

}  // namespace health
