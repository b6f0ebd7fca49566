#include "function.hpp"

#include "containers.hpp"

namespace cpython {

namespace {

// What a call of any function runs before we redirect it: the interpreter's binder and its bytecode.
vectorcallfunc interpreted = nullptr;

/// The constant of an operation's code.
struct Link {
    PyObject ob_base;
    PyObject* owner;  // the capsule around the state, owned
    void* state;      // what is in there
    PyObject* code;   // a weak reference to the code that this was made for, owned; null while that is made
    vectorcallfunc entry;  // of the operation
};

void dealloc_link(PyObject* self)
{
    const Ref type = Ref::steal(reinterpret_cast<PyObject*>(Py_TYPE(self)));
    const auto* const link = reinterpret_cast<Link*>(self);
    const Ref owner = Ref::steal(link->owner);
    const Ref code = Ref::steal(link->code);
    reinterpret_cast<PyTypeObject*>(type.get())->tp_free(self);
}

PyCodeObject* code_of(const PyFunctionObject* function)
{
    return reinterpret_cast<PyCodeObject*>(function->func_code);
}

/// The link in the function's code, if that is the very code which this operation was made with: somebody may have
/// assigned a copy, changed or not, or the code of another operation. No other class deallocates with our function.
Link* link_of(const PyFunctionObject* function)
{
    PyCodeObject* const code = code_of(function);
    if (PyTuple_GET_SIZE(code->co_consts) != 1) {
        return nullptr;
    }
    PyObject* const constant = PyTuple_GET_ITEM(code->co_consts, 0);
    if (Py_TYPE(constant)->tp_dealloc != dealloc_link) {
        return nullptr;
    }
    auto* const link = reinterpret_cast<Link*>(constant);
    const auto* const own_code = reinterpret_cast<PyWeakReference*>(link->code);
    const bool is_own = own_code->wr_object == function->func_code && link->entry == function->vectorcall;
    return is_own ? link : nullptr;
}

void raise_name_error(PyObject* name)
{
    const Ref text = Ref::steal(PyUnicode_FromFormat("name '%.200U' is not defined", name));
    if (const Ref error = call_named(PyExc_NameError, std::array{Named{names::name, name}}, text)) {
        PyErr_SetObject(PyExc_NameError, error.get());
    }
}

Ref make_annotations(const Operation& operation)
{
    Ref annotations = Ref::steal(PyDict_New());
    const auto annotate = [&](const char* name, const char* text) {
        const Ref value = annotations ? Ref::steal(PyUnicode_FromString(text)) : Ref{};
        return value && PyDict_SetItemString(annotations.get(), name, value.get()) == 0;
    };
    const bool done = std::ranges::all_of(operation.parameters, [&](const Parameter& parameter) {
        return parameter.annotation == nullptr || annotate(parameter.name, parameter.annotation);
    });
    return done && annotate("return", operation.result) ? std::move(annotations) : Ref{};
}

/// The names of the parameters, which are all the local variables there are.
Ref make_variables(const Operation& operation)
{
    const Ref names = Ref::steal(PyList_New(0));
    for (const Parameter& parameter : operation.parameters) {
        if (!append(names, Ref::steal(PyUnicode_InternFromString(parameter.name)))) {
            return {};
        }
    }
    return names ? Ref::steal(PyList_AsTuple(names.get())) : Ref{};
}

/// The tuple of defaults, all of them None.
Ref make_defaults(const Operation& operation)
{
    const auto count = std::ranges::count(operation.parameters, true, &Parameter::none_by_default);
    const Ref one = tuple_of(Py_None);
    return one ? Ref::steal(PySequence_Repeat(one.get(), count)) : Ref{};
}

/// Finds the parameter that a keyword names.
Answer find_parameter(PyObject* parameters, PyObject* keyword, std::size_t count, std::size_t& index)
{
    for (index = 0; index < count; ++index) {
        PyObject* const parameter = PyTuple_GET_ITEM(parameters, static_cast<Py_ssize_t>(index));
        const Answer same = answer(PyObject_RichCompareBool(keyword, parameter, Py_EQ));
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

Scope::Scope(PyObject* function) : function_{Ref::borrow(function)}
{
    if (Link* const link = link_of(reinterpret_cast<PyFunctionObject*>(function))) {
        link_ = Ref::borrow(reinterpret_cast<PyObject*>(link));
        state_ = link->state;
    }
}

Answer Scope::find_global(PyObject* name, Ref& value) const
{
    const auto* const function = reinterpret_cast<PyFunctionObject*>(function_.get());
    const int found = PyDict_GetItemRef(function->func_globals, name, value.out());
    if (found != 0) {
        return answer(found);
    }
    PyObject* const builtins = function->func_builtins;  // what `__builtins__` in the namespace is or was
    return answer(PyDict_CheckExact(builtins) ? PyDict_GetItemRef(builtins, name, value.out())
                                              : PyMapping_GetOptionalItem(builtins, name, value.out()));
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
    const Link* const link = function->vectorcall == entry ? link_of(function) : nullptr;
    return link != nullptr && link->state == state_;
}

bool OperationMaker::make_link_type()
{
    std::array<PyType_Slot, 2> slots{{{Py_tp_dealloc, reinterpret_cast<void*>(dealloc_link)}, {0, nullptr}}};
    PyType_Spec spec{"operations.link", sizeof(Link), 0,
                     Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
                     slots.data()};
    link_type_ = Ref::steal(PyType_FromSpec(&spec));
    if (!link_type_ && PyErr_Occurred() == nullptr) {
        PyErr_NoMemory();  // CPython 3.13.0 does not say so of the copy that it makes of the name
    }
    return static_cast<bool>(link_type_);
}

Ref OperationMaker::make_link(const Operation& operation) const
{
    Ref link = Ref::steal(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(link_type_.get()), 0));
    if (link) {
        auto* const fields = reinterpret_cast<Link*>(link.get());
        fields->owner = owner_.copy().release();
        fields->state = PyCapsule_GetPointer(owner_.get(), nullptr);
        fields->entry = operation.entry;
    }
    return link;
}

/// The code object: names and link, and bytecode that only raises.
Ref OperationMaker::make_code(const Operation& operation, PyObject* names, PyObject* qualified_name) const
{
    const auto total = static_cast<int>(operation.parameters.size());
    const auto by_name =
        static_cast<int>(std::ranges::count(operation.parameters, true, &Parameter::keyword_only));
    const Ref link = make_link(operation);
    const Ref constants = tuple_of(link);
    const Ref raising =
        Ref::steal(reinterpret_cast<PyObject*>(PyCode_NewEmpty("<extension module>", operation.name, 1)));
    auto* const pattern = reinterpret_cast<PyCodeObject*>(raising.get());
    const Ref bytecode = constants && raising ? Ref::steal(PyCode_GetCode(pattern)) : Ref{};
    Ref file;
    if (!bytecode || PyDict_GetItemRef(globals_, names::file, file.out()) < 0) {
        return {};
    }
    PyObject* const no_names = Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE);
    PyObject* const shown_file = file && PyUnicode_Check(file.get()) ? file.get() : pattern->co_filename;
    Ref code = Ref::steal(reinterpret_cast<PyObject*>(PyUnstable_Code_New(
        total - by_name, by_name, total, pattern->co_stacksize, CO_NEWLOCALS | CO_FUTURE_ANNOTATIONS,
        bytecode.get(), constants.get(), no_names, names, no_names, no_names, shown_file, pattern->co_name,
        qualified_name, 1, pattern->co_linetable, pattern->co_exceptiontable)));
    PyObject*& own_code = reinterpret_cast<Link*>(link.get())->code;
    return code && replace(own_code, Ref::steal(PyWeakref_NewRef(code.get(), nullptr))) ? std::move(code)
                                                                                        : Ref{};
}

Ref OperationMaker::make(const Operation& operation, const char* owner) const
{
    const Ref qualified_name =
        Ref::steal(owner == nullptr ? PyUnicode_FromString(operation.name)
                                    : PyUnicode_FromFormat("%s.%s", owner, operation.name));
    const Ref variables = qualified_name ? make_variables(operation) : Ref{};
    const Ref code = variables ? make_code(operation, variables.get(), qualified_name.get()) : Ref{};
    Ref function =
        code ? Ref::steal(PyFunction_NewWithQualName(code.get(), globals_, qualified_name.get())) : Ref{};
    const Ref annotations = function ? make_annotations(operation) : Ref{};
    const Ref defaults = annotations ? make_defaults(operation) : Ref{};
    const Ref doc = defaults ? Ref::steal(PyUnicode_FromString(operation.doc)) : Ref{};
    if (!doc || PyFunction_SetAnnotations(function.get(), annotations.get()) != 0 ||
        (PyTuple_GET_SIZE(defaults.get()) != 0 &&
         PyFunction_SetDefaults(function.get(), defaults.get()) != 0) ||
        !set_attr(function, names::doc, doc)) {
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
