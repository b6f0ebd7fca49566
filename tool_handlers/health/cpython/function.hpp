// Operations: C++ bodies behind real Python function objects.
//
// An operation is a plain `function` whose call goes to a C++ body instead of to bytecode (PyFunction_SetVectorcall).
// So everything that Python knows of a function is there because it is one: signature, annotations, defaults, binding
// as a method, patching, pickling by reference, garbage collection, the specialised method calls of the interpreter.
// Its code object carries the parameters, and one constant: the keepsake, an object around what the import has kept
// for the short cuts of its operations.
//
// Arguments in the order of the parameters go to the body as they lie on the caller's stack; names and defaults are
// sorted by `bind`; and a call that does not fit is handed to the interpreter's own binder, which finds the words for
// the TypeError. The bytecode behind that binder is never meant to run, so the interpreter must not inline a call and
// get past our entry. Two things keep it from that: setting the vectorcall leaves the function without a version, which
// the inlined forms of a plain call ask for, and the code is marked as not optimised (CO_OPTIMIZED is off), which those
// of `__init__` and of property getters refuse.
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

/// What a running operation sees of its module. Made on entry, and good for the time of the call whatever foreign code
/// does meanwhile: it holds the function, which holds the namespaces, and the keepsake.
class Scope {
public:
    explicit Scope(PyObject* function);

    /// False when the function's code is not its own: somebody has assigned `__code__`.
    explicit operator bool() const { return static_cast<bool>(keepsake_); }

    /// The module's namespace, borrowed.
    [[nodiscard]] PyObject* globals() const { return globals_; }

    /// A global name: the namespace first, then the builtins, else NameError.
    [[nodiscard]] Ref global(PyObject* name) const;

    /// The same, but no error for a name that is in neither.
    Answer find_global(PyObject* name, Ref& value) const;

    /// Whether `value` is a function of this module whose calls end in `entry`, so that its body can be called at once.
    [[nodiscard]] bool owns(PyObject* value, vectorcallfunc entry) const;

    /// What the import has kept (see `make_keepsake`).
    template <class Kept>
    [[nodiscard]] Kept& kept() const
    {
        return *static_cast<Kept*>(kept_);
    }

private:
    Ref function_;
    PyObject* globals_;
    PyObject* builtins_;
    Ref keepsake_;
    void* kept_ = nullptr;
};

/// The body gets its arguments in the order of the parameters, borrowed from the caller for the time of the call.
using Body = Ref (*)(const Scope& scope, PyObject* const* arguments);

struct Operation {
    const char* name;
    const char* doc;
    std::span<const Parameter> parameters;
    const char* result;  // annotation of the result
    vectorcallfunc entry;
};

/// Wraps what an import keeps for its operations; `destroy` frees it when the last of them is gone. The garbage
/// collector does not look inside: nothing in there may lead back to a function or a class of the module.
Ref make_keepsake(void* kept, void (*destroy)(void*));

/// The same for a new, empty `Kept`.
template <class Kept>
Ref make_keepsake(Kept*& kept)
{
    void* const memory = PyMem_Malloc(sizeof(Kept));
    if (memory == nullptr) {
        PyErr_NoMemory();
        return {};
    }
    kept = new (memory) Kept{};
    return make_keepsake(memory, [](void* dying) {
        static_cast<Kept*>(dying)->~Kept();
        PyMem_Free(dying);
    });
}

/// A function object for the operation. `owner` is the class that it is a method of, or null.
Ref make_function(const Operation& operation, const char* owner, PyObject* globals, PyObject* keepsake);

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

/// Ends a recursion that never passes through bytecode, say a setting that is a property of ours, with RecursionError,
/// well before the C stack ends. The interpreter allows a thread 10,000 nested C calls (500 in its debug build) and
/// means small ones by that; an operation takes up to 5 KiB of stack with all that it calls on the way to the next one,
/// in a build without optimisation, and so counts as ten of them.
class RecursionGuard {
public:
    RecursionGuard()
        : thread_{PyThreadState_GetUnchecked()}, entered_{thread_->c_recursion_remaining >= weight}
    {
        if (entered_) {
            thread_->c_recursion_remaining -= weight;
        } else {
            PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded");
        }
    }
    ~RecursionGuard()
    {
        if (entered_) {
            thread_->c_recursion_remaining += weight;
        }
    }
    RecursionGuard(const RecursionGuard&) = delete;
    RecursionGuard& operator=(const RecursionGuard&) = delete;
    RecursionGuard(RecursionGuard&&) = delete;
    RecursionGuard& operator=(RecursionGuard&&) = delete;

    /// False: RecursionError is set.
    explicit operator bool() const { return entered_; }

private:
    static constexpr int weight = 10;

    PyThreadState* thread_;
    bool entered_;
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

/// A row of a module's table of operations; the parameters are an array with static lifetime.
template <Body body, auto& parameters>
constexpr Operation operation(const char* name, const char* result, const char* doc)
{
    constexpr std::size_t count = std::size(parameters);
    constexpr auto keyword_only = static_cast<std::size_t>(std::count_if(
        std::begin(parameters), std::end(parameters), [](const Parameter& p) { return p.keyword_only; }));
    return {name, doc, parameters, result, enter<body, count, keyword_only>};
}

/// The same without parameters.
template <Body body>
constexpr Operation operation(const char* name, const char* result, const char* doc)
{
    return {name, doc, {}, result, enter<body, 0, 0>};
}

}  // namespace cpython
