// Arithmetic as Python does it, with the usual case of plain small numbers answered at once.
#pragma once

#include "call.hpp"

namespace cpython {

/// Whether the object is an int, no subclass, of machine size.
inline bool is_small_int(PyObject* object)
{
    return PyLong_CheckExact(object) &&
           PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(object)) != 0;
}

/// What `value += 1` assigns.
inline Ref in_place_successor(PyObject* value)
{
    if (is_small_int(value)) {
        return Ref::steal(
            PyLong_FromSsize_t(PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(value)) + 1));
    }
    return Ref::steal(PyNumber_InPlaceAdd(value, Py_GetConstantBorrowed(Py_CONSTANT_ONE)));
}

/// What `value += other` assigns.
inline Ref in_place_sum(PyObject* value, PyObject* other)
{
    if (PyFloat_CheckExact(value) && PyFloat_CheckExact(other)) {
        return Ref::steal(PyFloat_FromDouble(PyFloat_AS_DOUBLE(value) + PyFloat_AS_DOUBLE(other)));
    }
    return Ref::steal(PyNumber_InPlaceAdd(value, other));
}

/// Whether `now - then >= span`.
inline Answer has_passed(PyObject* now, PyObject* then, PyObject* span)
{
    if (PyFloat_CheckExact(now) && PyFloat_CheckExact(then) && PyFloat_CheckExact(span)) {
        return answer(PyFloat_AS_DOUBLE(now) - PyFloat_AS_DOUBLE(then) >= PyFloat_AS_DOUBLE(span) ? 1 : 0);
    }
    const Ref elapsed = Ref::steal(PyNumber_Subtract(now, then));
    return elapsed ? compare(elapsed.get(), span, Py_GE) : Answer::failed;
}

}  // namespace cpython
