#include "originals.hpp"

#include "cpython/special.hpp"

#include <string_view>

namespace health {

using cpython::Answer;

namespace {

constexpr std::array tracker_fields{&tracker_field::repo,       &tracker_field::limits, &tracker_field::lock,
                                    &tracker_field::state,      &tracker_field::dirty,  &tracker_field::usage,
                                    &tracker_field::usage_dirty};

/// What `TrackerClass::has_plain_fields` asks, of the class.
Answer has_only_entries(PyTypeObject* type)
{
    if (type->tp_getattro != PyObject_GenericGetAttr || type->tp_setattro != PyObject_GenericSetAttr ||
        PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT) == 0) {
        return Answer::no;
    }
    Ref ignored;
    Answer hidden = Answer::no;
    for (std::size_t i = 0; hidden == Answer::no && i < tracker_fields.size(); ++i) {
        hidden = cpython::find_in_class(type, tracker_fields[i]->name, ignored);
    }
    if (hidden == Answer::failed) {
        return hidden;
    }
    return hidden == Answer::no ? Answer::yes : Answer::no;
}

}  // namespace

bool TrackerClass::learn(PyTypeObject* type)
{
    plain_.forget();
    other_.forget();
    cpython::KnownType known;
    known.remember(type);  // before the look, which may run foreign code that changes the class
    switch (has_only_entries(type)) {
    case Answer::failed:
        PyErr_Clear();  // for want of memory: the next operation looks again
        return false;
    case Answer::no:
        other_ = known;
        return false;
    case Answer::yes:
        break;
    }
    learn_cooldown(type);
    plain_ = known;
    return plain_.is(reinterpret_cast<PyObject*>(type));
}

void TrackerClass::learn_cooldown(PyTypeObject* type)
{
    Ref member;
    const Answer found = cpython::find_in_class(type, names::cooldown_s, member);
    if (found == Answer::failed) {
        PyErr_Clear();
    }
    PyMemberDef* const getter = PyProperty_Type.tp_members;
    const bool is_property = found == Answer::yes && Py_IS_TYPE(member.get(), &PyProperty_Type) &&
                             std::string_view{getter->name} == "fget";
    cooldown_ = is_property ? member.get() : nullptr;
    getter_of_property_ = getter;
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
    // The attribute of a plain module is an entry of its dictionary, and a C function without arguments can be called
    // as the interpreter would: neither needs a bound method or an argument list.
    PyObject* const module = kept.time_module.find(scope.globals(), names::time);
    if (module != nullptr && PyModule_CheckExact(module)) {
        PyObject* const function = kept.time_function.find(PyModule_GetDict(module), names::time);
        if (function != nullptr && PyCFunction_CheckExact(function) &&
            PyCFunction_GET_FLAGS(function) == METH_NOARGS) {
            const Ref clock = Ref::borrow(function);
            return Ref::steal(
                PyCFunction_GET_FUNCTION(clock.get())(PyCFunction_GET_SELF(clock.get()), nullptr));
        }
    }
    const Ref time = scope.global(names::time);
    return time ? cpython::call_method(time.get(), names::time) : Ref{};
}

}  // namespace health
