#include "records.hpp"

#include <algorithm>

namespace health {

using cpython::attr;
using cpython::call;

namespace {

/// The body of the class statement before its decorator: `class <name>: <annotated fields with defaults>`.
template <std::size_t Fields>
bool fill_class(const Ref& space, PyObject* globals, PyObject* name, const char* doc,
                const typename RecordClass<Fields>::Definition& definition)
{
    const auto put = [](const Ref& map, PyObject* key, const Ref& value) {
        return value && PyDict_SetItem(map.get(), key, value.get()) == 0;
    };
    if (!put(space, names::dunder_module, cpython::item(globals, names::dunder_name)) ||
        !put(space, names::dunder_qualname, Ref::borrow(name)) ||
        !put(space, names::dunder_doc, Ref::steal(PyUnicode_FromString(doc)))) {
        return false;
    }
    const Ref annotations = Ref::steal(PyDict_New());
    if (!put(space, names::dunder_annotations, annotations.copy())) {
        return false;
    }
    return std::ranges::all_of(definition, [&](const auto& part) {
        return put(annotations, part.field.name, Ref::steal(PyUnicode_FromString(part.annotation))) &&
               put(space, part.field.name, part.value.copy());
    });
}

template <std::size_t Fields>
Ref make_class(PyObject* globals, PyObject* name, const char* doc,
               const typename RecordClass<Fields>::Definition& definition)
{
    const Ref space = Ref::steal(PyDict_New());
    return space && fill_class<Fields>(space, globals, name, doc, definition)
               ? call(reinterpret_cast<PyObject*>(&PyType_Type), name,
                      Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE), space.get())
               : Ref{};
}

/// `globals["dataclass"](slots=True)`
Ref make_decorator(PyObject* globals)
{
    const Ref dataclass = cpython::item(globals, names::dataclass);
    return dataclass ? cpython::call_named(dataclass.get(), std::array{cpython::Named{names::slots, Py_True}})
                     : Ref{};
}

template <std::size_t Fields>
bool define_record(PyObject* globals, PyObject* name, const char* doc, RecordClass<Fields>& record_class,
                   const typename RecordClass<Fields>::Definition& definition)
{
    const Ref type = record_class.define(globals, name, doc, definition);
    return type && PyDict_SetItem(globals, name, type.get()) == 0;
}

}  // namespace

template <std::size_t Fields>
Ref RecordClass<Fields>::define(PyObject* globals, PyObject* name, const char* doc,
                                const Definition& definition)
{
    for (const auto& [field, annotation, value] : definition) {
        defaults_[field.index] = value.copy();
    }
    const Ref decorator = make_decorator(globals);
    const Ref plain = decorator ? make_class<Fields>(globals, name, doc, definition) : Ref{};
    Ref type = plain ? call(decorator.get(), plain.get()) : Ref{};
    if (!type || !learn(type.get(), definition)) {
        return {};
    }
    return type;
}

/// Takes note of the layout, if it is the expected one: a class without base whose fields are all slots, with nothing
/// of its own in attribute access or creation. False only for an error.
template <std::size_t Fields>
bool RecordClass<Fields>::learn(PyObject* type, const Definition& definition)
{
    known_.forget();
    if (!PyType_CheckExact(type)) {
        return true;
    }
    auto* const as_type = reinterpret_cast<PyTypeObject*>(type);
    if (as_type->tp_base != &PyBaseObject_Type || as_type->tp_new != PyBaseObject_Type.tp_new ||
        as_type->tp_getattro != PyObject_GenericGetAttr || as_type->tp_setattro != PyObject_GenericSetAttr) {
        return true;
    }
    for (const auto& [field, annotation, value] : definition) {
        const Ref descriptor = attr(type, field.name);
        if (!descriptor) {
            return false;
        }
        if (!Py_IS_TYPE(descriptor.get(), &PyMemberDescr_Type)) {
            return true;
        }
        const PyMemberDef* const member = reinterpret_cast<PyMemberDescrObject*>(descriptor.get())->d_member;
        if (member->type != Py_T_OBJECT_EX) {
            return true;
        }
        offsets_[field.index] = member->offset;
    }
    known_.remember(as_type);
    return true;
}

template class RecordClass<6>;
template class RecordClass<3>;

bool define_records(PyObject* globals, ToolStateClass& tool_state_class, UsageClass& usage_class)
{
    const Ref no_time = Ref::steal(PyFloat_FromDouble(0.0));
    return no_time &&
           define_record<6>(
               globals, names::tool_state,
               "What is known about one tool's health.\n"
               "\n"
               "Every recorded call counts in call_count, every failed one in error_count, and\n"
               "consecutive_errors is the run of errors since the last success (in memory only:\n"
               "a restart starts a new run). disabled_at and updated_at are epoch seconds; None\n"
               "for an enabled tool and 0.0 for a record that never changed.",
               tool_state_class,
               {{{tool_state::call_count, "int", cpython::zero()},
                 {tool_state::error_count, "int", cpython::zero()},
                 {tool_state::last_error, "str | None", cpython::none()},
                 {tool_state::disabled_at, "float | None", cpython::none()},
                 {tool_state::updated_at, "float", no_time.copy()},
                 {tool_state::consecutive_errors, "int", cpython::zero()}}}) &&
           define_record<3>(
               globals, names::usage_record,
               "How many calls one usage key counts, and the time their handlers took.\n"
               "\n"
               "timed_calls of the calls came with a duration; total_ms is the sum of those, in\n"
               "milliseconds.",
               usage_class,
               {{{usage_record::calls, "int", cpython::zero()},
                 {usage_record::timed_calls, "int", cpython::zero()},
                 {usage_record::total_ms, "float", no_time.copy()}}});
}

}  // namespace health
