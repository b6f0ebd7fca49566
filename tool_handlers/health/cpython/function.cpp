#include "function.hpp"

#include "names.hpp"

namespace cpython {

namespace {

// What a call of any function runs before we redirect it: the interpreter's binder and its bytecode.
vectorcallfunc interpreted = nullptr;

namespace names {
Name replace{"replace"};
Name co_argcount{"co_argcount"};
Name co_kwonlyargcount{"co_kwonlyargcount"};
Name co_nlocals{"co_nlocals"};
Name co_varnames{"co_varnames"};
Name co_consts{"co_consts"};
Name co_flags{"co_flags"};
Name co_filename{"co_filename"};
Name co_qualname{"co_qualname"};
Name file{"__file__"};
Name doc{"__doc__"};
Name name{"name"};
}  // namespace names

/// The constant of an operation's code. One more of them, in no code, owns what the import keeps.
struct Keepsake {
    PyObject ob_base;
    void* kept;
    void (*destroy)(void*);  // null in those of the operations
    PyObject* owner;         // the one that owns; null there
    vectorcallfunc entry;    // of the operation
    PyObject* parameters;    // the tuple of names in its code; owned, so that no other can be taken for it
};

void dealloc_keepsake(PyObject* self)
{
    const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
    const auto* const keepsake = reinterpret_cast<Keepsake*>(self);
    const Ref owner = Ref::steal(keepsake->owner);
    const Ref parameters = Ref::steal(keepsake->parameters);
    if (keepsake->destroy != nullptr) {
        keepsake->destroy(keepsake->kept);
    }
    reinterpret_cast<PyTypeObject*>(type.get())->tp_free(self);
}

Ref new_keepsake(PyObject* type, void* kept)
{
    Ref keepsake = Ref::steal(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(type), 0));
    if (keepsake) {
        reinterpret_cast<Keepsake*>(keepsake.get())->kept = kept;
    }
    return keepsake;
}

PyCodeObject* code_of(const PyFunctionObject* function)
{
    return reinterpret_cast<PyCodeObject*>(function->func_code);
}

/// The keepsake in the function's code, if that is the very code which this operation was made with: somebody may have
/// assigned a copy, changed or not, or the code of another operation. Every code object has a tuple of names of its
/// own, made with it, so that its identity tells; and no other class deallocates with our function.
Keepsake* keepsake_of(const PyFunctionObject* function)
{
    const PyCodeObject* const code = code_of(function);
    if (PyTuple_GET_SIZE(code->co_consts) != 1) {
        return nullptr;
    }
    PyObject* const constant = PyTuple_GET_ITEM(code->co_consts, 0);
    if (Py_TYPE(constant)->tp_dealloc != dealloc_keepsake) {
        return nullptr;
    }
    auto* const keepsake = reinterpret_cast<Keepsake*>(constant);
    return keepsake->parameters == code->co_localsplusnames && keepsake->entry == function->vectorcall
               ? keepsake
               : nullptr;
}

void raise_name_error(PyObject* name)
{
    const Ref text = Ref::steal(PyUnicode_FromFormat("name '%.200U' is not defined", name));
    const Ref error =
        text ? call_named(PyExc_NameError, std::array{Named{names::name, name}}, text.get()) : Ref{};
    if (error) {
        PyErr_SetObject(PyExc_NameError, error.get());
    }
}

/// The names of the parameters, which are all the local variables there are.
Ref make_variables(const Operation& operation)
{
    Ref variables = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(operation.parameters.size())));
    for (std::size_t i = 0; variables && i < operation.parameters.size(); ++i) {
        PyObject* const name = PyUnicode_InternFromString(operation.parameters[i].name);
        if (name == nullptr) {
            return {};
        }
        PyTuple_SET_ITEM(variables.get(), static_cast<Py_ssize_t>(i), name);
    }
    return variables;
}

bool change(const Ref& changes, PyObject* name, const Ref& value)
{
    return value && PyDict_SetItem(changes.get(), name, value.get()) == 0;
}

/// What `code.replace` is to change in a code object that only raises.
Ref make_changes(const Operation& operation, PyObject* qualified_name, PyObject* globals, const Ref& constant)
{
    const auto total = static_cast<long>(operation.parameters.size());
    const long keyword_only = std::ranges::count(operation.parameters, true, &Parameter::keyword_only);
    Ref changes = Ref::steal(PyDict_New());
    if (!changes || !change(changes, names::co_varnames, make_variables(operation)) ||
        !change(changes, names::co_argcount, Ref::steal(PyLong_FromLong(total - keyword_only))) ||
        !change(changes, names::co_kwonlyargcount, Ref::steal(PyLong_FromLong(keyword_only))) ||
        !change(changes, names::co_nlocals, Ref::steal(PyLong_FromLong(total))) ||
        !change(changes, names::co_consts, Ref::steal(PyTuple_Pack(1, constant.get()))) ||
        !change(changes, names::co_flags,
                Ref::steal(PyLong_FromLong(CO_NEWLOCALS | CO_FUTURE_ANNOTATIONS))) ||
        !change(changes, names::co_qualname, Ref::borrow(qualified_name))) {
        return {};
    }
    Ref file;
    if (PyDict_GetItemRef(globals, names::file, file.out()) < 0 ||
        (file && PyUnicode_Check(file.get()) && !change(changes, names::co_filename, file))) {
        return {};
    }
    return changes;
}

/// The code object: parameters and keepsake, and no instruction of ours.
Ref make_code(const Operation& operation, PyObject* qualified_name, PyObject* globals, PyObject* owner)
{
    const Ref constant =
        new_keepsake(reinterpret_cast<PyObject*>(Py_TYPE(owner)), reinterpret_cast<Keepsake*>(owner)->kept);
    if (!constant) {
        return {};
    }
    auto* const keepsake = reinterpret_cast<Keepsake*>(constant.get());
    keepsake->owner = Py_NewRef(owner);
    keepsake->entry = operation.entry;
    const Ref changes = make_changes(operation, qualified_name, globals, constant);
    const Ref empty = changes ? Ref::steal(reinterpret_cast<PyObject*>(
                                    PyCode_NewEmpty("<extension module>", operation.name, 1)))
                              : Ref{};
    const Ref replace = empty ? attr(empty.get(), names::replace) : Ref{};
    Ref code =
        replace ? Ref::steal(PyObject_VectorcallDict(replace.get(), nullptr, 0, changes.get())) : Ref{};
    if (code) {
        keepsake->parameters = Py_NewRef(reinterpret_cast<PyCodeObject*>(code.get())->co_localsplusnames);
    }
    return code;
}

Ref make_annotations(const Operation& operation)
{
    Ref annotations = Ref::steal(PyDict_New());
    if (!annotations) {
        return {};
    }
    const auto annotate = [&](const char* name, const char* text) {
        const Ref value = Ref::steal(PyUnicode_FromString(text));
        return value && PyDict_SetItemString(annotations.get(), name, value.get()) == 0;
    };
    for (const Parameter& parameter : operation.parameters) {
        if (parameter.annotation != nullptr && !annotate(parameter.name, parameter.annotation)) {
            return {};
        }
    }
    return annotate("return", operation.result) ? std::move(annotations) : Ref{};
}

/// The tuple of defaults (all of them None), or None for none.
Ref make_defaults(const Operation& operation)
{
    const auto count = std::count_if(operation.parameters.begin(), operation.parameters.end(),
                                     [](const Parameter& parameter) { return parameter.none_by_default; });
    if (count == 0) {
        return none();
    }
    Ref defaults = Ref::steal(PyTuple_New(count));
    for (Py_ssize_t i = 0; defaults && i < count; ++i) {
        PyTuple_SET_ITEM(defaults.get(), i, Py_NewRef(Py_None));
    }
    return defaults;
}

/// Finds the parameter that a keyword names, by identity first, as nearly every call passes interned names.
Answer find_parameter(PyObject* parameters, PyObject* keyword, std::size_t count, std::size_t& index)
{
    for (index = 0; index < count; ++index) {
        if (PyTuple_GET_ITEM(parameters, static_cast<Py_ssize_t>(index)) == keyword) {
            return Answer::yes;
        }
    }
    for (index = 0; index < count; ++index) {
        const Answer same =
            compare(PyTuple_GET_ITEM(parameters, static_cast<Py_ssize_t>(index)), keyword, Py_EQ);
        if (same != Answer::no) {
            return same;
        }
    }
    return Answer::no;
}

/// `function.__defaults__` and `function.__kwdefaults__` for what was not given.
Answer fill_in_defaults(const PyFunctionObject* function, PyObject* parameters, const Binding& binding)
{
    const std::size_t positional = binding.values.size() - binding.keyword_only;
    const Ref defaults = Ref::borrow_optional(function->func_defaults);
    const Ref by_name = Ref::borrow_optional(function->func_kwdefaults);
    const auto count = defaults ? static_cast<std::size_t>(PyTuple_GET_SIZE(defaults.get())) : 0;
    for (std::size_t i = 0; i < binding.values.size(); ++i) {
        if (binding.values[i] != nullptr) {
            continue;
        }
        if (i >= positional && by_name) {
            if (PyDict_GetItemRef(by_name.get(), PyTuple_GET_ITEM(parameters, static_cast<Py_ssize_t>(i)),
                                  binding.defaults[i].out()) < 0) {
                return Answer::failed;
            }
        } else if (i < positional && i + count >= positional) {
            binding.defaults[i] = Ref::borrow(
                PyTuple_GET_ITEM(defaults.get(), static_cast<Py_ssize_t>(i + count - positional)));
        }
        binding.values[i] = binding.defaults[i].get();
        if (binding.values[i] == nullptr) {
            return Answer::no;
        }
    }
    return Answer::yes;
}

}  // namespace

Scope::Scope(PyObject* function)
    : function_{Ref::borrow(function)}, globals_{reinterpret_cast<PyFunctionObject*>(function)->func_globals},
      builtins_{reinterpret_cast<PyFunctionObject*>(function)->func_builtins}
{
    if (Keepsake* const keepsake = keepsake_of(reinterpret_cast<PyFunctionObject*>(function))) {
        keepsake_ = Ref::borrow(reinterpret_cast<PyObject*>(keepsake));
        kept_ = keepsake->kept;
    }
}

Answer Scope::find_global(PyObject* name, Ref& value) const
{
    const int found = PyDict_GetItemRef(globals_, name, value.out());
    return answer(found != 0 ? found : PyDict_GetItemRef(builtins_, name, value.out()));
}

Ref Scope::global(PyObject* name) const
{
    Ref value;
    if (find_global(name, value) == Answer::no) {
        raise_name_error(name);
    }
    return value;
}

bool Scope::owns(PyObject* value, vectorcallfunc entry) const
{
    if (!PyFunction_Check(value)) {
        return false;
    }
    const auto* const function = reinterpret_cast<PyFunctionObject*>(value);
    const Keepsake* const keepsake = function->vectorcall == entry ? keepsake_of(function) : nullptr;
    return keepsake != nullptr && keepsake->kept == kept_;
}

Ref make_keepsake(void* kept, void (*destroy)(void*))
{
    std::array<PyType_Slot, 2> slots{
        {{Py_tp_dealloc, reinterpret_cast<void*>(dealloc_keepsake)}, {0, nullptr}}};
    PyType_Spec spec{"operations.keepsake", sizeof(Keepsake), 0,
                     Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
                     slots.data()};
    const Ref type = Ref::steal(PyType_FromSpec(&spec));
    if (!type && PyErr_Occurred() == nullptr) {
        PyErr_NoMemory();  // CPython 3.13.0 does not say so of the copy that it makes of the name
    }
    Ref owner = type ? new_keepsake(type.get(), kept) : Ref{};
    if (!owner) {
        destroy(kept);
        return {};
    }
    reinterpret_cast<Keepsake*>(owner.get())->destroy = destroy;
    return owner;
}

Ref make_function(const Operation& operation, const char* owner, PyObject* globals, PyObject* keepsake)
{
    const Ref qualified_name =
        Ref::steal(owner == nullptr ? PyUnicode_FromString(operation.name)
                                    : PyUnicode_FromFormat("%s.%s", owner, operation.name));
    const Ref code = qualified_name ? make_code(operation, qualified_name.get(), globals, keepsake) : Ref{};
    Ref function =
        code ? Ref::steal(PyFunction_NewWithQualName(code.get(), globals, qualified_name.get())) : Ref{};
    const Ref annotations = function ? make_annotations(operation) : Ref{};
    if (!annotations || PyFunction_SetAnnotations(function.get(), annotations.get()) != 0) {
        return {};
    }
    const Ref defaults = make_defaults(operation);
    if (!defaults || PyFunction_SetDefaults(function.get(), defaults.get()) != 0) {
        return {};
    }
    const Ref doc = Ref::steal(PyUnicode_FromString(operation.doc));
    if (!doc || !set_attr(function.get(), names::doc, doc.get())) {
        return {};
    }
    auto* const as_function = reinterpret_cast<PyFunctionObject*>(function.get());
    interpreted = as_function->vectorcall;
    PyFunction_SetVectorcall(as_function, operation.entry);
    return function;
}

PyObject* call_interpreted(PyObject* function, PyObject* const* arguments, std::size_t flags,
                           PyObject* keywords)
{
    return interpreted(function, arguments, flags, keywords);
}

bool are_last_parameters(PyObject* function, PyObject* keywords, std::size_t first)
{
    PyObject* const parameters = code_of(reinterpret_cast<PyFunctionObject*>(function))->co_localsplusnames;
    const Py_ssize_t count = PyTuple_GET_SIZE(keywords);
    const auto skipped = static_cast<Py_ssize_t>(first);
    if (skipped + count != PyTuple_GET_SIZE(parameters)) {
        return false;
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (PyTuple_GET_ITEM(keywords, i) != PyTuple_GET_ITEM(parameters, skipped + i)) {
            return false;
        }
    }
    return true;
}

Answer bind(PyObject* function, PyObject* const* arguments, std::size_t given, PyObject* keywords,
            const Binding& binding)
{
    const auto* const as_function = reinterpret_cast<PyFunctionObject*>(function);
    const std::size_t count = binding.values.size();
    if (given > count - binding.keyword_only) {
        return Answer::no;
    }
    const Ref parameters = Ref::borrow(code_of(as_function)->co_localsplusnames);
    std::copy_n(arguments, given, binding.values.begin());
    const std::size_t named = keywords == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(keywords));
    for (std::size_t i = 0; i < named; ++i) {
        std::size_t index = 0;
        const Answer found = find_parameter(
            parameters.get(), PyTuple_GET_ITEM(keywords, static_cast<Py_ssize_t>(i)), count, index);
        if (found != Answer::yes) {
            return found;
        }
        if (binding.values[index] != nullptr) {
            return Answer::no;
        }
        binding.values[index] = arguments[given + i];
    }
    return fill_in_defaults(as_function, parameters.get(), binding);
}

}  // namespace cpython
