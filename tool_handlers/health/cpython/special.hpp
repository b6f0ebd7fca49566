// Special methods as statements find them: on the class, never on the instance.
#pragma once

#include "call.hpp"

namespace cpython {

/// `type(object).name` bound to the object, in `method`; no when the class has none.
inline Answer special(PyObject* object, const char* name, Ref& method)
{
    PyTypeObject* type = Py_TYPE(object);
    const Ref mro = Ref::borrow(type->tp_mro);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro.get()); ++i) {
        const Ref space =
            Ref::steal(PyType_GetDict(reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro.get(), i))));
        const int found = space ? PyDict_GetItemStringRef(space.get(), name, method.out()) : 0;
        if (found != 0) {
            descrgetfunc bind = found > 0 ? Py_TYPE(method.get())->tp_descr_get : nullptr;
            if (bind != nullptr) {
                method = Ref::steal(bind(method.get(), object, reinterpret_cast<PyObject*>(type)));
            }
            return method ? Answer::yes : Answer::failed;
        }
    }
    return Answer::no;
}

}  // namespace cpython
