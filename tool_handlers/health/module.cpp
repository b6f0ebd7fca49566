// The module's creation and set-up.
//
// The set-up runs once for every module object, in the order of `set_up`, and leaves everything it makes in the
// module's namespace; the only C++ statics are interned strings, constant tables, pointers into the interpreter and the
// nesting counter of function.hpp. So the module can be imported again under another package name, or in another
// (legacy) subinterpreter, and each copy stands on its own.
#include "operations.hpp"
#include "originals.hpp"
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

namespace {

using cpython::call;
using cpython::item;
using cpython::Named;

bool bind(PyObject* globals, PyObject* name, const Ref& value)
{
    return value && PyDict_SetItem(globals, name, value.get()) == 0;
}

/// `__import__(module, globals, globals, names, 0)`, the builtin as it stands, as an import statement calls it.
Ref import(PyObject* globals, PyObject* module, PyObject* imported_names)
{
    PyObject* const builtins = PyEval_GetBuiltins();
    const Ref import_function = builtins != nullptr ? item(builtins, names::dunder_import) : Ref{};
    return import_function ? call(import_function.get(), module, globals, globals, imported_names,
                                  Py_GetConstantBorrowed(Py_CONSTANT_ZERO))
                           : Ref{};
}

/// `import name`
bool import_module(PyObject* globals, PyObject* name)
{
    return bind(globals, name, import(globals, name, Py_None));
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
    const Ref error = text ? cpython::call_named(PyExc_ImportError, named, text.get()) : Ref{};
    if (error) {
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
    const Ref list = Ref::steal(PyTuple_Pack(sizeof...(wanted), static_cast<PyObject*>(wanted)...));
    const Ref module = list ? import(globals, module_name, list.get()) : Ref{};
    return module && (bind(globals, wanted, imported_attr(module.get(), wanted)) && ...);
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
    const Ref logging = item(globals, names::logging);
    const Ref name = logging ? item(globals, names::dunder_name) : Ref{};
    return name ? cpython::call_method(logging.get(), names::get_logger, name.get()) : Ref{};
}

/// `tuple[str, str | None, str, bool]`
Ref make_usage_key()
{
    auto* const text = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    const Ref optional = Ref::steal(PyNumber_Or(text, Py_None));
    const Ref parts = optional ? Ref::steal(PyTuple_Pack(4, text, optional.get(), text,
                                                         reinterpret_cast<PyObject*>(&PyBool_Type)))
                               : Ref{};
    return parts ? item(reinterpret_cast<PyObject*>(&PyTuple_Type), parts.get()) : Ref{};
}

bool bind_constants(PyObject* globals)
{
    return bind(globals, names::logger, make_logger(globals)) &&
           bind(globals, names::sqlite_timestamp, Ref::borrow(names::timestamp_pattern)) &&
           bind(globals, names::tool_health_columns, Ref::borrow(names::health_columns)) &&
           bind(globals, names::tool_usage_key, Ref::borrow(names::tool_usage)) &&
           bind(globals, names::usage_key, make_usage_key());
}

bool define_function(PyObject* globals, PyObject* keepsake, const cpython::Operation& operation)
{
    const Ref function = cpython::make_function(operation, nullptr, globals, keepsake);
    return function && PyDict_SetItemString(globals, operation.name, function.get()) == 0;
}

/// `class ToolHealthTracker: ...`
bool define_tracker(PyObject* globals, PyObject* keepsake, Originals& originals)
{
    const Ref space = Ref::steal(PyDict_New());
    if (!space || !bind(space.get(), names::dunder_module, item(globals, names::dunder_name)) ||
        !bind(space.get(), names::dunder_qualname, Ref::borrow(names::tracker)) ||
        !bind(space.get(), names::dunder_doc, Ref::steal(PyUnicode_FromString(tracker_doc)))) {
        return false;
    }
    for (const Member& member : tracker_members) {
        Ref value = cpython::make_function(member.operation, names::tracker.text(), globals, keepsake);
        if (value && member.is_property) {
            value = call(reinterpret_cast<PyObject*>(&PyProperty_Type), value.get());
        }
        if (!value || PyDict_SetItemString(space.get(), member.operation.name, value.get()) != 0) {
            return false;
        }
    }
    const Ref type = call(reinterpret_cast<PyObject*>(&PyType_Type), static_cast<PyObject*>(names::tracker),
                          Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE), space.get());
    if (type) {
        originals.tracker.remember(reinterpret_cast<PyTypeObject*>(type.get()));
    }
    return bind(globals, names::tracker, type);
}

/// Defines the records. The `dataclass` decorator asks `sys.modules` for the module of a class, so a module that is
/// executed without an entry there gets one for as long as this takes.
bool define_records_of(PyObject* module, PyObject* globals, Originals& originals)
{
    PyObject* const modules = PyImport_GetModuleDict();
    const Ref name = item(globals, names::dunder_name);
    const int is_entered = name ? PyDict_Contains(modules, name.get()) : -1;
    if (is_entered < 0 || (is_entered == 0 && PyDict_SetItem(modules, name.get(), module) != 0)) {
        return false;
    }
    const bool defined = define_records(globals, originals.tool_state, originals.usage);
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
    Originals* originals = nullptr;
    const Ref keepsake = cpython::make_keepsake(originals);
    return keepsake && keep_constants(*originals) && keep_tool_order(*originals) &&
           keep_row_order(*originals) && define_function(globals, keepsake.get(), sqlite_time_operation) &&
           define_function(globals, keepsake.get(), epoch_operation) &&
           define_records_of(module, globals, *originals) &&
           define_function(globals, keepsake.get(), known_operation) &&
           define_tracker(globals, keepsake.get(), *originals) &&
           define_function(globals, keepsake.get(), performance_stats_operation) &&
           define_function(globals, keepsake.get(), census_report_operation);
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
