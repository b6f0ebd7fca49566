// The module's creation and set-up.
//
// The set-up runs once for every module object, in the order of `set_up`, and leaves everything it makes in the
// module's namespace; the only C++ statics are interned strings, constant tables and pointers into the interpreter. So
// the module can be imported again under another package name, or in another (legacy) subinterpreter, and each copy
// stands on its own.
#include "operations.hpp"
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

namespace {

using cpython::call;
using cpython::item;
using cpython::Named;
using cpython::OperationMaker;
using cpython::set_entry;

/// `__import__(module, globals, globals, names, 0)`, the builtin as it stands, as an import statement calls it.
Ref import(PyObject* globals, PyObject* module, cpython::Arg imported_names)
{
    return call(item(PyEval_GetBuiltins(), names::dunder_import), module, globals, globals, imported_names,
                Py_GetConstantBorrowed(Py_CONSTANT_ZERO));
}

/// `import name`
bool import_module(PyObject* globals, PyObject* name)
{
    return set_entry(globals, name, import(globals, name, Py_None));
}

/// The ImportError of `from module import name`.
void raise_cannot_import(PyObject* module, PyObject* name)
{
    Ref module_name;
    Ref path;
    if (PyObject_GetOptionalAttr(module, names::dunder_name, module_name.out()) < 0 ||
        PyObject_GetOptionalAttr(module, names::dunder_file, path.out()) < 0) {
        return;
    }
    PyObject* const shown_name = module_name ? module_name.get() : Py_None;
    const Ref text = path ? Ref::steal(PyUnicode_FromFormat("cannot import name %R from %R (%S)", name,
                                                            shown_name, path.get()))
                          : Ref::steal(PyUnicode_FromFormat(
                                "cannot import name %R from %R (unknown location)", name, shown_name));
    const std::array named{Named{names::name, shown_name}, Named{names::path, path ? path.get() : Py_None},
                           Named{names::name_from, name}};
    if (const Ref error = cpython::call_named(PyExc_ImportError, named, text)) {
        PyErr_SetObject(PyExc_ImportError, error.get());
    }
}

/// The import system's `module.name`: the attribute, or a submodule that is imported but not bound.
Ref imported_attr(PyObject* module, PyObject* name)
{
    Ref value;
    if (PyObject_GetOptionalAttr(module, name, value.out()) != 0) {
        return value;
    }
    Ref package;
    if (PyObject_GetOptionalAttr(module, names::dunder_name, package.out()) < 0) {
        return {};
    }
    if (package && PyUnicode_Check(package.get())) {
        const Ref full_name = Ref::steal(PyUnicode_FromFormat("%U.%U", package.get(), name));
        value = full_name ? Ref::steal(PyImport_GetModule(full_name.get())) : Ref{};
    }
    if (!value && PyErr_Occurred() == nullptr) {
        raise_cannot_import(module, name);
    }
    return value;
}

/// `from module import name, ...`
template <class... Names>
bool import_names(PyObject* globals, PyObject* module_name, const Names&... wanted)
{
    const Ref module = import(globals, module_name, cpython::tuple_of(wanted...));
    return module && (set_entry(globals, wanted, imported_attr(module.get(), wanted)) && ...);
}

/// The package that holds `tool_handlers`: the module's own full name without its last two parts.
Ref host_package(PyObject* globals)
{
    const Ref name = item(globals, names::dunder_name);
    if (!name) {
        return {};
    }
    if (!PyUnicode_Check(name.get())) {
        PyErr_SetString(PyExc_TypeError, "__name__ must be a string");
        return {};
    }
    Py_ssize_t end = PyUnicode_GET_LENGTH(name.get());
    for (int part = 0; part < 2 && end > 0; ++part) {
        end = PyUnicode_FindChar(name.get(), '.', 0, end, -1);
    }
    if (end <= 0) {
        PyErr_Format(PyExc_ImportError,
                     "%R must be a submodule of the 'tool_handlers' package of a host package", name.get());
        return {};
    }
    return Ref::steal(PyUnicode_Substring(name.get(), 0, end));
}

/// `from <host>.<module> import name, ...`
template <class... Names>
bool import_from_host(PyObject* globals, PyObject* host, const char* module, const Names&... wanted)
{
    const Ref full_name = Ref::steal(PyUnicode_FromFormat("%U.%s", host, module));
    return full_name && import_names(globals, full_name.get(), wanted...);
}

bool import_standard_modules(PyObject* globals)
{
    return import_names(globals, names::future, names::annotations) && import_module(globals, names::json) &&
           import_module(globals, names::logging) && import_module(globals, names::threading) &&
           import_module(globals, names::time) &&
           import_names(globals, names::dataclasses, names::dataclass) &&
           import_names(globals, names::datetime, names::datetime, names::timezone) &&
           import_names(globals, names::typing, names::type_checking, names::any);
}

bool import_host_services(PyObject* globals)
{
    const Ref host = host_package(globals);
    return host && import_from_host(globals, host.get(), "config", names::tools_config) &&
           import_from_host(globals, host.get(), "tool_registry", names::tools) &&
           import_from_host(globals, host.get(), "tool_schemas", names::is_slow_call) &&
           import_from_host(globals, host.get(), "utils.process", names::thread_census_type,
                            names::thread_census) &&
           import_from_host(globals, host.get(), "utils.timing", names::get_timing_collector);
}

/// `logging.getLogger(__name__)`
Ref make_logger(PyObject* globals)
{
    const Ref get_logger = cpython::attr(item(globals, names::logging), names::get_logger);
    return call(get_logger, get_logger ? item(globals, names::dunder_name) : Ref{});
}

/// `tuple[str, str | None, str, bool]`
Ref make_usage_key()
{
    auto* const text = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    const Ref optional = Ref::steal(PyNumber_Or(text, Py_None));
    return item(reinterpret_cast<PyObject*>(&PyTuple_Type),
                cpython::tuple_of(text, optional, text, reinterpret_cast<PyObject*>(&PyBool_Type)));
}

bool bind_constants(PyObject* globals)
{
    return set_entry(globals, names::logger, make_logger(globals)) &&
           set_entry(globals, names::sqlite_timestamp, names::timestamp_pattern) &&
           set_entry(globals, names::tool_health_columns, names::health_columns) &&
           set_entry(globals, names::tool_usage_key, names::tool_usage) &&
           set_entry(globals, names::usage_key, make_usage_key());
}

/// What is made anew by every import, but for the classes.
bool fill(ImportState& state)
{
    state.enabled = cpython::tuple_of(Py_False, Py_None);
    state.worst_first = state.enabled ? Ref::steal(PyCFunction_New(&rank_of_pair, nullptr)) : Ref{};
    state.most_first = state.worst_first ? Ref::steal(PyCFunction_New(&rank_of_row, nullptr)) : Ref{};
    return state.most_first && state.lock.find();
}

bool define_function(PyObject* globals, const OperationMaker& maker, const cpython::Operation& operation)
{
    const Ref function = maker.make(operation, nullptr);
    return function && PyDict_SetItemString(globals, operation.name, function.get()) == 0;
}

/// `class ToolHealthTracker: ...`
bool define_tracker(PyObject* globals, const OperationMaker& maker, ImportState& state)
{
    const Ref body = class_body(globals, names::tracker, tracker_doc);
    for (const Member& member : tracker_members) {
        Ref value = body ? maker.make(member.operation, names::tracker.text()) : Ref{};
        if (member.is_property) {
            value = call(reinterpret_cast<PyObject*>(&PyProperty_Type), value);
        }
        if (!value || PyDict_SetItemString(body.get(), member.operation.name, value.get()) != 0) {
            return false;
        }
    }
    const Ref type = make_class(names::tracker, body);
    if (type) {
        state.tracker.remember(reinterpret_cast<PyTypeObject*>(type.get()));
    }
    return set_entry(globals, names::tracker, type);
}

/// Defines the records. The `dataclass` decorator asks `sys.modules` for the module of a class, so a module that is
/// executed without an entry there gets one for as long as this takes.
bool define_records_of(PyObject* module, PyObject* globals, ImportState& state)
{
    PyObject* const modules = PyImport_GetModuleDict();
    const Ref name = item(globals, names::dunder_name);
    const int is_entered = name ? PyDict_Contains(modules, name.get()) : -1;
    if (is_entered < 0 || (is_entered == 0 && PyDict_SetItem(modules, name.get(), module) != 0)) {
        return false;
    }
    const bool defined = define_records(globals, state.tool_state, state.usage);
    if (is_entered == 0) {
        Ref error = Ref::steal(PyErr_GetRaisedException());
        if (PyDict_Pop(modules, name.get(), nullptr) < 0) {
            return false;
        }
        PyErr_SetRaisedException(error.release());
    }
    return defined;
}

bool set_up(PyObject* module, PyObject* globals)
{
    if (!import_standard_modules(globals) || !import_host_services(globals) || !bind_constants(globals) ||
        !find_datetime()) {
        return false;
    }
    OperationMaker maker;
    auto* const state = maker.start<ImportState>(globals);
    return state != nullptr && fill(*state) && define_function(globals, maker, sqlite_time_operation) &&
           define_function(globals, maker, epoch_operation) && define_records_of(module, globals, *state) &&
           define_function(globals, maker, known_operation) && define_tracker(globals, maker, *state) &&
           define_function(globals, maker, performance_stats_operation) &&
           define_function(globals, maker, census_report_operation);
}

int execute(PyObject* module)
{
    const Ref globals = Ref::borrow(PyModule_GetDict(module));
    return cpython::Name::intern_all() && set_up(module, globals.get()) ? 0 : -1;
}

std::array<PyModuleDef_Slot, 2> slots{{
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {0, nullptr},
}};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "health", nullptr, 0, nullptr, slots.data(), nullptr, nullptr, nullptr,
};

}  // namespace

}  // namespace health

PyMODINIT_FUNC PyInit_health()
{
    health::definition.m_doc = health::module_doc;
    return PyModuleDef_Init(&health::definition);
}
