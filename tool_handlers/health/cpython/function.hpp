// Operations: C++ bodies behind real Python function objects.
//
// An operation is a plain `function` whose call goes to a C++ body instead of to bytecode (PyFunction_SetVectorcall).
// So everything that Python knows of a function is there because it is one: signature, annotations, defaults, binding
// as a method, patching, pickling by reference, garbage collection, the specialised method calls of the interpreter.
// Its code object carries the parameters and one constant, the link: to the state of the import, and to the code that
// the link was made for, as `__code__` may be assigned.
//
// Arguments in the order of the parameters go to the body as they lie on the caller's stack; names and defaults are
// sorted by `bind`; and a call that does not fit is handed to the interpreter's own binder, which finds the words for
// the TypeError. The bytecode behind that binder only raises, so the interpreter must not inline a call and get past our
// entry. Two things keep it from that: setting the vectorcall leaves the function without a version, which the inlined
// forms of a plain call ask for, and the code is marked as not optimised (CO_OPTIMIZED is off), which those of `__init__`
// and of property getters refuse.
#pragma once

#include "call.hpp"

#include <algorithm>
#include <array>
#include <new>
#include <span>

namespace cpython {

struct Parameter {
    const char* name = nullptr;
    const char* annotation = nullptr;  // as source text; null for `self`
    bool keyword_only = false;
    bool none_by_default = false;
};

struct Operation {
    const char* name;
    const char* doc;
    std::span<const Parameter> parameters;
    const char* result;  // annotation of the result
    vectorcallfunc entry;
};

/// Makes the operations of one import.
class OperationMaker {
public:
    /// Makes the state that they share, which is freed with the last of them; null for an error. The garbage collector
    /// does not look inside: nothing in there may lead back to a function or a class of the module.
    template <class State>
    State* start(PyObject* globals)
    {
        void* const memory = PyMem_Malloc(sizeof(State));
        if (memory == nullptr) {
            PyErr_NoMemory();
            return nullptr;
        }
        auto* const state = new (memory) State{};
        const auto destroy = [](PyObject* capsule) {
            auto* const dying = static_cast<State*>(PyCapsule_GetPointer(capsule, nullptr));
            dying->~State();
            PyMem_Free(dying);
        };
        globals_ = globals;
        owner_ = Ref::steal(PyCapsule_New(state, nullptr, destroy));
        if (!owner_) {
            state->~State();
            PyMem_Free(state);
        }
        return owner_ && make_link_type() ? state : nullptr;
    }

    /// The function object. `owner` is the class that it is a method of, or null.
    [[nodiscard]] Ref make(const Operation& operation, const char* owner) const;

private:
    bool make_link_type();
    [[nodiscard]] Ref make_link(const Operation& operation) const;
    [[nodiscard]] Ref make_code(const Operation& operation, PyObject* names, PyObject* qualified_name) const;

    PyObject* globals_ = nullptr;
    Ref owner_;  // a capsule around the state
    Ref link_type_;
};

/// What a running operation sees of its module. Made on entry, and good for the time of the call whatever foreign code
/// does meanwhile: it holds the function, which holds the namespaces, and the link, which holds the state.
class Scope {
public:
    explicit Scope(PyObject* function);

    /// False when the function's code is not its own: somebody has assigned `__code__`.
    explicit operator bool() const { return static_cast<bool>(link_); }

    /// A global name: the namespace first, then the builtins, else NameError.
    [[nodiscard]] Ref global(PyObject* name) const;

    /// The same, but no error for a name that is in neither.
    Answer find_global(PyObject* name, Ref& value) const;

    /// Whether `value` is a function of this import whose calls end in `entry`, so that its body can be called at once.
    [[nodiscard]] bool owns(PyObject* value, vectorcallfunc entry) const;

    /// What the operations of this import share.
    template <class State>
    [[nodiscard]] State& state() const
    {
        return *static_cast<State*>(state_);
    }

private:
    Ref function_;
    Ref link_;
    void* state_ = nullptr;
};

/// The body gets its arguments in the order of the parameters, borrowed from the caller for the time of the call.
using Body = Ref (*)(const Scope& scope, PyObject* const* arguments);

/// Room for the arguments of a call that does not lie in order.
struct Binding {
    std::span<PyObject*> values;  // borrowed; null where nothing was given
    std::span<Ref> defaults;      // keeps the defaults that were used
    std::size_t keyword_only;     // how many of the last values go by name only
};

/// Sorts the arguments into the binding; no when they do not fit.
Answer bind(PyObject* function, PyObject* const* arguments, std::size_t given, PyObject* keywords,
            const Binding& binding);

/// Hands the call to the interpreter, as if the function had never been ours.
PyObject* call_interpreted(PyObject* function, PyObject* const* arguments, std::size_t flags,
                           PyObject* keywords);

/// Whether the keywords are just the last parameters, in order.
bool are_last_parameters(PyObject* function, PyObject* keywords, std::size_t first);

/// Counts an operation as a nested Python function, under the limit of `sys.setrecursionlimit`; and as several nested C
/// calls, so that the C stack does not end where that limit was raised. The interpreter allows a thread 10,000 of those
/// (500 in its debug build) and means small ones; an operation takes up to 5 KiB of stack, in a build without
/// optimisation, with all that it calls on the way to the next one.
class RecursionGuard {
public:
    RecursionGuard() : thread_{PyThreadState_GetUnchecked()}
    {
        thread_->py_recursion_remaining -= 1;
        thread_->c_recursion_remaining -= c_calls;
    }
    ~RecursionGuard()
    {
        thread_->py_recursion_remaining += 1;
        thread_->c_recursion_remaining += c_calls;
    }
    RecursionGuard(const RecursionGuard&) = delete;
    RecursionGuard& operator=(const RecursionGuard&) = delete;
    RecursionGuard(RecursionGuard&&) = delete;
    RecursionGuard& operator=(RecursionGuard&&) = delete;

    /// False: RecursionError is set.
    explicit operator bool() const
    {
        if (thread_->py_recursion_remaining >= 0 && thread_->c_recursion_remaining >= 0) {
            return true;
        }
        PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
        return false;
    }

private:
    static constexpr int c_calls = 10;

    PyThreadState* thread_;
};

/// The call of an operation whose arguments do not lie in order. Kept apart, so that those that do need no room here.
template <Body body, std::size_t Parameters, std::size_t KeywordOnly>
[[gnu::noinline]] Ref call_bound(const Scope& scope, PyObject* function, PyObject* const* arguments,
                                 std::size_t flags, PyObject* keywords)
{
    std::array<PyObject*, Parameters> values{};
    std::array<Ref, Parameters> defaults{};
    const auto given = static_cast<std::size_t>(PyVectorcall_NARGS(flags));
    switch (bind(function, arguments, given, keywords, {values, defaults, KeywordOnly})) {
    case Answer::yes:
        return body(scope, values.data());
    case Answer::no:
        return Ref::steal(call_interpreted(function, arguments, flags, keywords));
    case Answer::failed:
        break;
    }
    return {};
}

/// The entry of an operation with so many parameters, of which the last `KeywordOnly` go by name only.
template <Body body, std::size_t Parameters, std::size_t KeywordOnly>
PyObject* enter(PyObject* function, PyObject* const* arguments, std::size_t flags, PyObject* keywords)
{
    constexpr std::size_t positional = Parameters - KeywordOnly;
    const Scope scope{function};
    if (!scope) {
        return call_interpreted(function, arguments, flags, keywords);
    }
    const RecursionGuard guard;
    if (!guard) {
        return nullptr;
    }
    const bool in_order =
        static_cast<std::size_t>(PyVectorcall_NARGS(flags)) == positional &&
        (keywords == nullptr ? KeywordOnly == 0 : are_last_parameters(function, keywords, positional));
    Ref result = in_order
                     ? body(scope, arguments)
                     : call_bound<body, Parameters, KeywordOnly>(scope, function, arguments, flags, keywords);
    return result.release();
}

/// `function(*arguments)` for a global of the module that is an operation, unless somebody has replaced it: its body is
/// called at once then. Null for a null argument.
template <Body body, class... Arguments>
Ref call_operation(const Scope& scope, const Ref& function, const Arguments&... arguments)
{
    if (!are_there(function, arguments...)) {
        return {};
    }
    const std::array<PyObject*, sizeof...(Arguments)> stack{Arg{arguments}...};
    return scope.owns(function.get(), enter<body, sizeof...(Arguments), 0>) ? body(scope, stack.data())
                                                                            : call(function, arguments...);
}

/// A row of a module's table of operations; the parameters are an array with static lifetime.
template <Body body, auto& parameters>
constexpr Operation operation(const char* name, const char* result, const char* doc)
{
    constexpr std::size_t count = std::size(parameters);
    constexpr auto keyword_only =
        static_cast<std::size_t>(std::ranges::count(parameters, true, &Parameter::keyword_only));
    return {name, doc, parameters, result, enter<body, count, keyword_only>};
}

/// The same without parameters.
template <Body body>
constexpr Operation operation(const char* name, const char* result, const char* doc)
{
    return {name, doc, {}, result, enter<body, 0, 0>};
}

}  // namespace cpython
