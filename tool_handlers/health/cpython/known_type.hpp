// Recognising a class that has not been changed.
//
// Short cuts past attribute look-up are right only while the class is the one that was examined and nobody has
// patched it or a base of it since. The interpreter gives a class a version tag that is dropped at every such change
// and never given to another class; address and tag together are therefore proof, also when the class itself is gone
// and its address is in use again. No reference is held: a known class may be collected.
#pragma once

#include "interpreter.hpp"

namespace cpython {

class KnownType {
public:
    /// Remembers the class as it is now. A class that can get no version tag is never recognised.
    void remember(PyTypeObject* type)
    {
        const bool has_tag = PyUnstable_Type_AssignVersionTag(type) != 0;
        type_ = has_tag ? type : nullptr;
        version_ = has_tag ? type->tp_version_tag : 0;
    }

    [[nodiscard]] bool is(PyObject* object) const
    {
        return PyType_Check(object) && is_same(reinterpret_cast<PyTypeObject*>(object));
    }
    [[nodiscard]] bool is_class_of(PyObject* object) const { return is_same(Py_TYPE(object)); }

private:
    [[nodiscard]] bool is_same(PyTypeObject* type) const
    {
        return type == type_ && type->tp_version_tag == version_;
    }

    PyTypeObject* type_ = nullptr;  // not owned, and only ever compared
    unsigned int version_ = 0;
};

}  // namespace cpython
