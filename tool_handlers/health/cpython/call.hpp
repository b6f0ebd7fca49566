// Small verbs over the C API, for code that reads like the Python expressions it carries out.
//
// Each of them may run foreign code (`__getattr__`, `__hash__`, a patched function): hold strong references to whatever
// is used afterwards. A verb that is given a null object does nothing and answers null or failure: the step that should
// have made the object has failed, and its error is set. So verbs nest: `attr(attr(self, names::repo), names::db)`.
#pragma once

#include "names.hpp"
#include "ref.hpp"

#include <array>
#include <cstddef>

namespace cpython {

/// An object as a verb takes it: borrowed from the caller, or null for a failed step.
class Arg {
public:
    // NOLINTBEGIN(google-explicit-constructor): it stands for what it is made from
    Arg(PyObject* object) : object_{object} {}
    Arg(const Ref& object) : object_{object.get()} {}
    Arg(const Name& name) : object_{name} {}
    operator PyObject*() const { return object_; }
    // NOLINTEND(google-explicit-constructor)

private:
    PyObject* object_;
};

/// Whether no step that made one of these has failed.
template <class... Arguments>
bool are_there(const Arguments&... arguments)
{
    return (... && (Arg{arguments} != nullptr));
}

/// A yes-or-no question put to Python code, which may also fail (with the exception set).
enum class Answer { no, yes, failed };

inline Answer answer(int status)
{
    if (status < 0) {
        return Answer::failed;
    }
    return status == 0 ? Answer::no : Answer::yes;
}

/// `bool(object)`
inline Answer truth(Arg object)
{
    return object != nullptr ? answer(PyObject_IsTrue(object)) : Answer::failed;
}

/// `left <operation> right` as a condition; `operation` is Py_EQ, Py_GT, ...
inline Answer compare(Arg left, Arg right, int operation)
{
    return are_there(left, right) ? truth(Ref::steal(PyObject_RichCompare(left, right, operation)))
                                  : Answer::failed;
}

/// `object.name`
inline Ref attr(Arg object, Arg name)
{
    return object != nullptr ? Ref::steal(PyObject_GetAttr(object, name)) : Ref{};
}

/// `object.name = value`
[[nodiscard]] inline bool set_attr(Arg object, Arg name, Arg value)
{
    return are_there(object, value) && PyObject_SetAttr(object, name, value) == 0;
}

/// `object[key]`
inline Ref item(Arg object, Arg key)
{
    return are_there(object, key) ? Ref::steal(PyObject_GetItem(object, key)) : Ref{};
}

/// `object[0]`
inline Ref first_item(Arg object) { return item(object, Py_GetConstantBorrowed(Py_CONSTANT_ZERO)); }

/// `object[key] = value`
[[nodiscard]] inline bool set_item(Arg object, Arg key, Arg value)
{
    return are_there(object, key, value) && PyObject_SetItem(object, key, value) == 0;
}

/// `str(object)`
inline Ref text_of(Arg object)
{
    PyObject* const value = object;
    if (value != nullptr && PyUnicode_CheckExact(value)) {
        return Ref::borrow(value);
    }
    return value != nullptr ? Ref::steal(PyObject_Str(value)) : Ref{};
}

/// `format(object, "")`, what an f-string makes of a value
inline Ref formatted(Arg object)
{
    return object != nullptr ? Ref::steal(PyObject_Format(object, nullptr)) : Ref{};
}

/// `callable(*arguments)`
template <class... Arguments>
Ref call(Arg callable, const Arguments&... arguments)
{
    if (!are_there(callable, arguments...)) {
        return {};
    }
    // The slot before the first argument is lent to the callee, which spares a bound method a copy of the array.
    std::array<PyObject*, sizeof...(Arguments) + 1> stack{nullptr, Arg{arguments}...};
    return Ref::steal(PyObject_Vectorcall(callable, stack.data() + 1,
                                          sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// A value with a name: a keyword argument, or an entry of a dictionary.
struct Named {
    Arg name;
    Arg value;
};

/// `callable(*arguments, **named)`
template <std::size_t Count, class... Arguments>
Ref call_named(Arg callable, const std::array<Named, Count>& named, const Arguments&... arguments)
{
    if (!are_there(callable, arguments...)) {
        return {};
    }
    std::array<PyObject*, sizeof...(Arguments) + Count + 1> stack{nullptr, Arg{arguments}...};
    const Ref keywords = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(Count)));
    for (std::size_t i = 0; keywords && i < Count; ++i) {
        PyTuple_SET_ITEM(keywords.get(), static_cast<Py_ssize_t>(i), Py_NewRef(named[i].name));
        stack[1 + sizeof...(Arguments) + i] = named[i].value;
        if (named[i].value == nullptr) {
            return {};
        }
    }
    return keywords ? Ref::steal(PyObject_Vectorcall(callable, stack.data() + 1,
                                                     sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                                     keywords.get()))
                    : Ref{};
}

/// `object.name(*arguments)`
template <class... Arguments>
Ref call_method(Arg object, Arg name, const Arguments&... arguments)
{
    if (!are_there(object, arguments...)) {
        return {};
    }
    std::array<PyObject*, sizeof...(Arguments) + 1> stack{object, Arg{arguments}...};
    return Ref::steal(PyObject_VectorcallMethod(name, stack.data(),
                                                stack.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// `for item in iterable: body(item)`; false for an error, and when a body is false, which ends the loop.
template <class Body>
[[nodiscard]] bool for_each(Arg iterable, Body body)
{
    const Ref iterator = iterable != nullptr ? Ref::steal(PyObject_GetIter(iterable)) : Ref{};
    if (!iterator) {
        return false;
    }
    while (const Ref item = Ref::steal(PyIter_Next(iterator.get()))) {
        if (!body(item.get())) {
            return false;
        }
    }
    return PyErr_Occurred() == nullptr;
}

/// Whether the exception that is set belongs to the `Exception` family, which `except Exception` catches.
inline bool is_caught() { return PyErr_ExceptionMatches(PyExc_Exception) != 0; }

/// The body of an `except` clause: for as long as this lives, the caught error is what `sys.exc_info()` shows, and what
/// a new error gets as its `__context__`. What was being handled before is put back at the end.
class Handling {
public:
    /// Takes the exception that is set; afterwards none is.
    Handling() : error_{Ref::steal(PyErr_GetRaisedException())}, outer_{exchange(error_.copy())} {}
    ~Handling() { const Ref handled = exchange(std::move(outer_)); }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    Handling(Handling&&) = delete;
    Handling& operator=(Handling&&) = delete;

    [[nodiscard]] PyObject* error() const { return error_.get(); }

    /// A bare `raise`: the same error object again, with nothing added to it.
    void raise_again() const { PyErr_SetRaisedException(error_.copy().release()); }

private:
    static Ref exchange(Ref handled)
    {
        return Ref::steal(std::exchange(PyThreadState_Get()->exc_info->exc_value, handled.release()));
    }

    Ref error_;
    Ref outer_;
};

}  // namespace cpython
