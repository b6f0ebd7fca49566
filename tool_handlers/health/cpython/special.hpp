// What a class says, past its instances: where statements look for special methods, and short cuts for surprises.
#pragma once

#include "call.hpp"

namespace cpython {

/// What the class, or a base of it, has under the name, as it lies there, unbound.
inline Answer find_in_class(PyTypeObject* type, PyObject* name, Ref& found)
{
    const Ref mro = Ref::borrow(type->tp_mro);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro.get()); ++i) {
        auto* const base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro.get(), i));
        const Ref space = Ref::steal(PyType_GetDict(base));
        const int status = space ? PyDict_GetItemRef(space.get(), name, found.out()) : -1;
        if (status != 0) {
            return answer(status);
        }
    }
    return Answer::no;
}

/// The special method bound to the object, as a statement gets it; no when its class has none.
inline Answer special(PyObject* object, PyObject* name, Ref& method)
{
    PyTypeObject* const type = Py_TYPE(object);
    const Answer found = find_in_class(type, name, method);
    descrgetfunc bind = found == Answer::yes ? Py_TYPE(method.get())->tp_descr_get : nullptr;
    if (bind == nullptr) {
        return found;
    }
    method = Ref::steal(bind(method.get(), object, reinterpret_cast<PyObject*>(type)));
    return method ? Answer::yes : Answer::failed;
}

}  // namespace cpython
