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

/// `value + 1` of such an int.
inline Ref successor_of_small(PyObject* value)
{
    return Ref::steal(
        PyLong_FromSsize_t(PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(value)) + 1));
}

/// What `value += other` assigns.
inline Ref in_place_sum(PyObject* value, PyObject* other)
{
    if (PyFloat_CheckExact(value) && PyFloat_CheckExact(other)) {
        return Ref::steal(PyFloat_FromDouble(PyFloat_AS_DOUBLE(value) + PyFloat_AS_DOUBLE(other)));
    }
    return Ref::steal(PyNumber_InPlaceAdd(value, other));
}

}  // namespace cpython
