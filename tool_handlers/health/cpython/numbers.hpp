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

inline Py_ssize_t value_of_small(PyObject* value)
{
    return PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(value));
}

/// An int, no subclass, as a machine integer; false when it is none or too large. Runs no foreign code, sets no error.
inline bool as_number(PyObject* object, long long& number)
{
    if (!PyLong_CheckExact(object)) {
        return false;
    }
    int overflow = 0;
    number = PyLong_AsLongLongAndOverflow(object, &overflow);
    return overflow == 0;
}

/// `value + 1` of such an int. It is far from the end of a `long`, from which ints are made the quickest.
inline Ref successor_of_small(PyObject* value)
{
    return Ref::steal(PyLong_FromLong(static_cast<long>(value_of_small(value)) + 1));
}

/// What `value += other` assigns.
inline Ref in_place_sum(PyObject* value, PyObject* other)
{
    if (PyFloat_CheckExact(value) && PyFloat_CheckExact(other)) {
        return Ref::steal(PyFloat_FromDouble(PyFloat_AS_DOUBLE(value) + PyFloat_AS_DOUBLE(other)));
    }
    return Ref::steal(PyNumber_InPlaceAdd(value, other));
}

/// `left >= right` as a condition.
inline Answer is_at_least(PyObject* left, PyObject* right)
{
    if (is_small_int(left) && is_small_int(right)) {
        return value_of_small(left) >= value_of_small(right) ? Answer::yes : Answer::no;
    }
    if (PyFloat_CheckExact(left) && PyFloat_CheckExact(right)) {
        return PyFloat_AS_DOUBLE(left) >= PyFloat_AS_DOUBLE(right) ? Answer::yes : Answer::no;
    }
    return compare(left, right, Py_GE);
}

/// `left > right` as a condition.
inline Answer is_greater(PyObject* left, PyObject* right)
{
    if (is_small_int(left) && is_small_int(right)) {
        return value_of_small(left) > value_of_small(right) ? Answer::yes : Answer::no;
    }
    return compare(left, right, Py_GT);
}

}  // namespace cpython
