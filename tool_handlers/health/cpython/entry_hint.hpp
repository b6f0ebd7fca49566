// Finding a dictionary entry where it was found before.
//
// Namespaces hardly change, so an entry is nearly always at the place of the last time: one comparison there spares
// hashing and probing. A hint is no cache of the value: what it finds is read from the dictionary every time.
#pragma once

#include "call.hpp"

namespace cpython {

class EntryHint {
public:
    EntryHint() = default;
    explicit EntryHint(Py_ssize_t position) : position_{position} {}

    /// The value under an interned string, if it stands where the hint says; null without an error otherwise.
    [[nodiscard]] Ref look(PyObject* dict, PyObject* key) const
    {
        Py_ssize_t position = position_;
        PyObject* found = nullptr;
        PyObject* value = nullptr;
        return PyDict_Next(dict, &position, &found, &value) != 0 && found == key ? Ref::borrow(value) : Ref{};
    }

    /// The same for a dictionary of strings, wherever the entry is; null without an error if there is none.
    Ref find(PyObject* dict, PyObject* key)
    {
        Ref value = look(dict, key);
        for (Py_ssize_t next = 0; !value;) {
            position_ = next;
            PyObject* found = nullptr;
            PyObject* ignored = nullptr;
            if (PyDict_Next(dict, &next, &found, &ignored) == 0) {
                break;
            }
            if (found == key) {
                value = Ref::borrow(ignored);
            }
        }
        return value;
    }

private:
    Py_ssize_t position_ = 0;
};

}  // namespace cpython
