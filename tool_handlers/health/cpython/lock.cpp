#include "lock.hpp"

namespace cpython {

namespace {

/// The C function behind a method of a builtin class, if it takes its arguments as `flags` say.
PyCFunction method_of(PyTypeObject* type, PyObject* name, int flags)
{
    PyObject* const method = _PyType_Lookup(type, name);
    if (method == nullptr || !Py_IS_TYPE(method, &PyMethodDescr_Type)) {
        return nullptr;
    }
    const PyMethodDef* const definition = reinterpret_cast<PyMethodDescrObject*>(method)->d_method;
    return definition->ml_flags == flags ? definition->ml_meth : nullptr;
}

/// The special method bound to the object, as a statement gets it: from the class.
Ref special(PyObject* object, PyObject* name, const char* hint)
{
    PyTypeObject* const type = Py_TYPE(object);
    Ref method = Ref::borrow_optional(_PyType_Lookup(type, name));
    if (!method) {
        PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s",
                     type->tp_name, hint);
        return {};
    }
    const descrgetfunc bind = Py_TYPE(method.get())->tp_descr_get;
    return bind == nullptr ? std::move(method)
                           : Ref::steal(bind(method.get(), object, reinterpret_cast<PyObject*>(type)));
}

}  // namespace

bool LockClass::find()
{
    const Ref module = Ref::steal(PyImport_GetModule(names::thread));
    Ref found;
    if (!module || PyObject_GetOptionalAttr(module.get(), names::lock, found.out()) <= 0) {
        return PyErr_Occurred() == nullptr;
    }
    auto* const type = reinterpret_cast<PyTypeObject*>(found.get());
    if (!PyType_Check(found.get()) || !PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE)) {
        return true;
    }
    const PyCFunction acquire = method_of(type, names::enter, METH_VARARGS | METH_KEYWORDS);
    leave_ = method_of(type, names::release, METH_NOARGS);
    // One function serves as `__exit__` and as `release`, so it does not look at its arguments.
    if (acquire != nullptr && leave_ != nullptr && method_of(type, names::exit, METH_VARARGS) == leave_) {
        enter_ = reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(acquire));
        type_ = std::move(found);
    }
    return true;
}

Ref enter_any(PyObject* lock, Ref& exit)
{
    const Ref enter = special(lock, names::enter, "");
    exit = enter ? special(lock, names::exit, " (missed __exit__ method)") : Ref{};
    return exit ? call(enter) : Ref{};
}

BlockEnd leave_after_error(const LockClass& lock_class, PyObject* lock, const Ref& exit)
{
    const Handling handling;
    Ref verdict;
    if (!exit) {
        verdict = lock_class.leave(lock);
    } else {
        const Ref traceback = Ref::steal(PyException_GetTraceback(handling.error()));
        verdict = call(exit, reinterpret_cast<PyObject*>(Py_TYPE(handling.error())), handling.error(),
                       traceback ? traceback.get() : Py_None);
    }
    const Answer swallow = truth(verdict);
    if (swallow == Answer::no) {
        handling.raise_again();
    }
    return swallow == Answer::yes ? BlockEnd::swallowed : BlockEnd::failed;
}

}  // namespace cpython
