// The one owner of a reference.
//
// A Ref owns one strong reference or nothing. Nothing converts to or from it silently: the verb says what happens to
// the count. Parameters are borrowed `PyObject*`, results are Ref; a null result means that an exception is set.
#pragma once

#include "interpreter.hpp"

#include <utility>

namespace cpython {

class [[nodiscard]] Ref {
public:
    Ref() = default;

    /// Adopts a new reference, as most C API calls return it (null: the call failed).
    static Ref steal(PyObject* object) { return Ref{object}; }

    /// Takes one more reference to an object that somebody else keeps.
    static Ref borrow(PyObject* object) { return Ref{Py_NewRef(object)}; }

    /// The same for a field that may be null, which stays null.
    static Ref borrow_optional(PyObject* object) { return Ref{Py_XNewRef(object)}; }

    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;

    Ref(Ref&& other) noexcept : object_{std::exchange(other.object_, nullptr)} {}

    /// The old value goes last: its destructor may run foreign code that looks at this very variable.
    Ref& operator=(Ref&& other) noexcept
    {
        const Ref old{std::exchange(object_, std::exchange(other.object_, nullptr))};
        return *this;
    }

    ~Ref() { Py_XDECREF(object_); }

    [[nodiscard]] PyObject* get() const { return object_; }
    [[nodiscard]] Ref copy() const { return borrow_optional(object_); }

    /// Hands the reference to the caller, or to a C API call that steals it.
    [[nodiscard]] PyObject* release() { return std::exchange(object_, nullptr); }

    /// Where a C API call writes a new reference; what was held before is dropped first.
    [[nodiscard]] PyObject** out()
    {
        *this = Ref{};
        return &object_;
    }

    explicit operator bool() const { return object_ != nullptr; }

private:
    explicit Ref(PyObject* object) : object_{object} {}

    PyObject* object_ = nullptr;
};

/// Puts a new value, unless it is null, into a place that owns its reference; the old value is dropped last.
[[nodiscard]] inline bool replace(PyObject*& place, Ref value)
{
    if (!value) {
        return false;
    }
    const Ref old = Ref::steal(std::exchange(place, value.release()));
    return true;
}

inline Ref none() { return Ref::borrow(Py_None); }
inline Ref none_if(bool done) { return done ? none() : Ref{}; }
inline Ref zero() { return Ref::steal(Py_GetConstant(Py_CONSTANT_ZERO)); }
inline Ref boolean(bool value) { return Ref::borrow(value ? Py_True : Py_False); }

}  // namespace cpython
