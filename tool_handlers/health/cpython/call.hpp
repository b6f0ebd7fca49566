// Small verbs over the C API, for code that reads like the Python statements it carries out.
//
// Every one of them may run foreign code (`__getattr__`, `__hash__`, a patched function): hold strong references to
// whatever is used afterwards.
#pragma once

#include "ref.hpp"

#include <array>
#include <cstddef>

namespace cpython {

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
inline Answer truth(PyObject* object) { return answer(PyObject_IsTrue(object)); }

/// `left <operation> right` as a condition; `operation` is Py_EQ, Py_GT, ...
inline Answer compare(PyObject* left, PyObject* right, int operation)
{
    const Ref result = Ref::steal(PyObject_RichCompare(left, right, operation));
    return result ? truth(result.get()) : Answer::failed;
}

/// `object.name`
inline Ref attr(PyObject* object, PyObject* name) { return Ref::steal(PyObject_GetAttr(object, name)); }

/// `object.name = value`
[[nodiscard]] inline bool set_attr(PyObject* object, PyObject* name, PyObject* value)
{
    return PyObject_SetAttr(object, name, value) == 0;
}

/// `object[key]`
inline Ref item(PyObject* object, PyObject* key) { return Ref::steal(PyObject_GetItem(object, key)); }

/// `str(object)`
inline Ref text_of(PyObject* object)
{
    return PyUnicode_CheckExact(object) ? Ref::borrow(object) : Ref::steal(PyObject_Str(object));
}

/// `callable(*arguments)`
template <class... Arguments>
Ref call(PyObject* callable, Arguments... arguments)
{
    // The slot before the first argument is lent to the callee, which spares a bound method a copy of the array.
    std::array<PyObject*, sizeof...(Arguments) + 1> stack{nullptr, arguments...};
    return Ref::steal(PyObject_Vectorcall(callable, stack.data() + 1,
                                          sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// An argument that is passed by its name, both borrowed.
struct Named {
    PyObject* name;
    PyObject* value;
};

/// `callable(*arguments, **named)`
template <std::size_t Count, class... Arguments>
Ref call_named(PyObject* callable, const std::array<Named, Count>& named, Arguments... arguments)
{
    std::array<PyObject*, sizeof...(Arguments) + Count + 1> stack{nullptr, arguments...};
    const Ref keywords = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(Count)));
    if (!keywords) {
        return {};
    }
    for (std::size_t i = 0; i < Count; ++i) {
        PyTuple_SET_ITEM(keywords.get(), static_cast<Py_ssize_t>(i), Py_NewRef(named[i].name));
        stack[1 + sizeof...(Arguments) + i] = named[i].value;
    }
    return Ref::steal(PyObject_Vectorcall(
        callable, stack.data() + 1, sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, keywords.get()));
}

/// `object.name(*arguments)`
template <class... Arguments>
Ref call_method(PyObject* object, PyObject* name, Arguments... arguments)
{
    std::array<PyObject*, sizeof...(Arguments) + 1> stack{object, arguments...};
    return Ref::steal(PyObject_VectorcallMethod(name, stack.data(),
                                                stack.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

/// `map.get(key)`: yes with the value in `value`, no when that gives None.
inline Answer get_from(PyObject* map, PyObject* key, PyObject* get, Ref& value)
{
    if (PyDict_CheckExact(map)) {
        if (PyDict_GetItemRef(map, key, value.out()) < 0) {
            return Answer::failed;
        }
    } else {
        value = call_method(map, get, key);
        if (!value) {
            return Answer::failed;
        }
    }
    return value && value.get() != Py_None ? Answer::yes : Answer::no;
}

/// Appends to a list that nobody else can see.
[[nodiscard]] inline bool append(const Ref& list, const Ref& value)
{
    return value && PyList_Append(list.get(), value.get()) == 0;
}

/// Whether the exception that is set belongs to the `Exception` family, which `except Exception` catches.
inline bool is_caught() { return PyErr_ExceptionMatches(PyExc_Exception) != 0; }

/// The body of an `except` clause: for as long as this lives, the caught error is what `sys.exc_info()` shows and
/// what a new error gets as its `__context__`. It stands in the place of the running function or generator alone, as
/// an `except` clause does: what an outer handler is busy with is not copied in here.
class Handling {
public:
    /// Takes the exception that is set; afterwards none is.
    Handling()
        : error_{Ref::steal(PyErr_GetRaisedException())},
          outer_{Ref::steal(std::exchange(PyThreadState_Get()->exc_info->exc_value, error_.copy().release()))}
    {
    }
    ~Handling()
    {
        const Ref handled =
            Ref::steal(std::exchange(PyThreadState_Get()->exc_info->exc_value, outer_.release()));
    }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    Handling(Handling&&) = delete;
    Handling& operator=(Handling&&) = delete;

    [[nodiscard]] PyObject* error() const { return error_.get(); }

    /// A bare `raise`: the same error object again, with nothing added to it.
    void raise_again() const { PyErr_SetRaisedException(error_.copy().release()); }

private:
    Ref error_;
    Ref outer_;
};

/// `format(value, "")`, what an f-string makes of a value
inline Ref formatted(PyObject* value) { return Ref::steal(PyObject_Format(value, nullptr)); }

}  // namespace cpython
