// Arithmetic as Python does it, with the usual case of plain small numbers answered at once.
#pragma once

#include "function.hpp"

#include <cmath>

namespace cpython {

/// Whether the object is an int, no subclass, that takes 30 bits at most.
inline bool is_small_int(PyObject* object)
{
    return PyLong_CheckExact(object) &&
           PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(object)) != 0;
}

inline long value_of_small(PyObject* value)
{
    return static_cast<long>(PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(value)));
}

/// `left <operation> right` as a condition; the operation is Py_GT or Py_GE.
inline Answer compare_numbers(Arg left, Arg right, int operation)
{
    const auto holds = [operation](auto one, auto other) {
        return one > other || (operation == Py_GE && one == other) ? Answer::yes : Answer::no;
    };
    PyObject* const one = left;
    PyObject* const other = right;
    if (one != nullptr && other != nullptr) {
        if (is_small_int(one) && is_small_int(other)) {
            return holds(value_of_small(one), value_of_small(other));
        }
        if (PyFloat_CheckExact(one) && PyFloat_CheckExact(other)) {
            return holds(PyFloat_AS_DOUBLE(one), PyFloat_AS_DOUBLE(other));
        }
    }
    return compare(one, other, operation);
}

/// `value + 1`, as `value += 1` assigns it
inline Ref successor(PyObject* value)
{
    if (is_small_int(value)) {
        return Ref::steal(PyLong_FromLong(value_of_small(value) + 1));
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

/// The nearest multiple of 1 / scale, if arithmetic on doubles finds it for certain. A tie is a double below the bound,
/// so that the product lies on the side of it where the true one does, unless it is the tie itself; and the quotient of
/// two integers is the double nearest to the decimal, which is what `round` answers.
inline bool round_quickly(double value, double scale, double& result)
{
    constexpr double bound = 1099511627776.0;  // 2**40
    const double scaled = value * scale;
    if (!(std::fabs(scaled) < bound)) {
        return false;
    }
    const double nearest = std::nearbyint(scaled);
    result = nearest / scale;
    return std::fabs(scaled - nearest) < 0.5;
}

/// `round(value, digits)`; digits is 2 or 3. The builtin is asked only where arithmetic does not settle it.
inline Ref rounded(const Scope& scope, Arg value, int digits)
{
    double result = 0.0;
    if (value != nullptr && PyFloat_CheckExact(value) &&
        round_quickly(PyFloat_AS_DOUBLE(static_cast<PyObject*>(value)), digits == 2 ? 100.0 : 1000.0,
                      result)) {
        return Ref::steal(PyFloat_FromDouble(result));
    }
    const Ref places = value != nullptr ? Ref::steal(PyLong_FromLong(digits)) : Ref{};
    return call(places ? scope.global(names::round) : Ref{}, value, places);
}

/// `-value`
inline Ref negative(Arg value) { return value != nullptr ? Ref::steal(PyNumber_Negative(value)) : Ref{}; }

/// `int(value)`
inline Ref whole(Arg value) { return value != nullptr ? Ref::steal(PyNumber_Long(value)) : Ref{}; }

}  // namespace cpython
