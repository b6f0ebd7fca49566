#include "records.hpp"

#include "cpython/containers.hpp"

namespace health {

using cpython::Named;
using cpython::set_entry;

namespace {

/// Whether the decorator is the function that the `dataclasses` module defines, and not another in its place.
bool is_of_standard_library(const Ref& decorator)
{
    if (!decorator || !PyFunction_Check(decorator.get())) {
        return false;
    }
    PyObject* const its_module = PyFunction_GET_GLOBALS(decorator.get());
    const Ref module = Ref::steal(PyImport_GetModule(names::dataclasses));
    return module && PyModule_Check(module.get()) && PyModule_GetDict(module.get()) == its_module;
}

}  // namespace

bool RecordClass::define(PyObject* globals, PyObject* name, const char* doc,
                         std::span<const FieldDefinition> fields)
{
    const Ref dataclass = cpython::item(globals, names::dataclass);
    is_standard_ = is_of_standard_library(dataclass);
    const Ref decorator = PyErr_Occurred() == nullptr
                              ? cpython::call_named(dataclass, std::array{Named{names::slots, Py_True}})
                              : Ref{};
    const Ref body = decorator ? class_body(globals, name, doc) : Ref{};
    const Ref annotations = body ? Ref::steal(PyDict_New()) : Ref{};
    if (!set_entry(body, names::dunder_annotations, annotations)) {
        return false;
    }
    for (const auto& [field, annotation, value] : fields) {
        const Ref text = Ref::steal(PyUnicode_FromString(annotation));
        if (!set_entry(annotations, field.name, text) || !set_entry(body, field.name, value)) {
            return false;
        }
    }
    const Ref type = cpython::call(decorator, make_class(name, body));
    if (type) {
        learn(type.get(), fields);
    }
    return set_entry(globals, name, type);
}

/// Takes note of the layout, if it is the expected one: all fields are slots of the class itself, and attribute access
/// is the usual one.
void RecordClass::learn(PyObject* type, std::span<const FieldDefinition> fields)
{
    auto* const as_type = reinterpret_cast<PyTypeObject*>(type);
    if (!PyType_CheckExact(type) || as_type->tp_getattro != PyObject_GenericGetAttr ||
        as_type->tp_setattro != PyObject_GenericSetAttr) {
        return;
    }
    for (const auto& [field, annotation, value] : fields) {
        PyObject* const descriptor = _PyType_Lookup(as_type, field.name);
        if (descriptor == nullptr || !Py_IS_TYPE(descriptor, &PyMemberDescr_Type) ||
            PyDescr_TYPE(descriptor) != as_type) {
            return;
        }
        const PyMemberDef* const member = reinterpret_cast<PyMemberDescrObject*>(descriptor)->d_member;
        if (member->type != Py_T_OBJECT_EX || member->flags != 0) {
            return;
        }
        offsets_[field.index] = member->offset;
    }
    known_.remember(as_type);
}

bool define_records(PyObject* globals, RecordClass& tool_state_class, RecordClass& usage_class)
{
    PyObject* const zero = Py_GetConstantBorrowed(Py_CONSTANT_ZERO);
    const Ref no_time = Ref::steal(PyFloat_FromDouble(0.0));
    if (!no_time) {
        return false;
    }
    const std::array<RecordClass::FieldDefinition, 6> tool_state_fields{{
        {tool_state::call_count, "int", zero},
        {tool_state::error_count, "int", zero},
        {tool_state::last_error, "str | None", Py_None},
        {tool_state::disabled_at, "float | None", Py_None},
        {tool_state::updated_at, "float", no_time.get()},
        {tool_state::consecutive_errors, "int", zero},
    }};
    const std::array<RecordClass::FieldDefinition, 3> usage_fields{{
        {usage_record::calls, "int", zero},
        {usage_record::timed_calls, "int", zero},
        {usage_record::total_ms, "float", no_time.get()},
    }};
    return tool_state_class.define(
               globals, names::tool_state,
               "What is known about one tool's health.\n"
               "\n"
               "Every recorded call counts in call_count, every failed one in error_count, and\n"
               "consecutive_errors is the run of errors since the last success (in memory only:\n"
               "a restart starts a new run). disabled_at and updated_at are epoch seconds; None\n"
               "for an enabled tool and 0.0 for a record that never changed.",
               tool_state_fields) &&
           usage_class.define(
               globals, names::usage_record,
               "How many calls one usage key counts, and the time their handlers took.\n"
               "\n"
               "timed_calls of the calls came with a duration; total_ms is the sum of those, in\n"
               "milliseconds.",
               usage_fields);
}

Ref class_body(PyObject* globals, PyObject* name, const char* doc)
{
    const Ref module = cpython::item(globals, names::dunder_name);
    const Ref text = module ? Ref::steal(PyUnicode_FromString(doc)) : Ref{};
    return text ? cpython::dict_of(std::array{Named{names::dunder_module, module},
                                              Named{names::dunder_qualname, name},
                                              Named{names::dunder_doc, text}})
                : Ref{};
}

Ref make_class(PyObject* name, const Ref& body)
{
    return cpython::call(reinterpret_cast<PyObject*>(&PyType_Type), name,
                         Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE), body);
}

}  // namespace health
