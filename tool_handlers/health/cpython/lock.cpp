#include "lock.hpp"

#include "names.hpp"

namespace cpython {

namespace {

namespace names {
Name thread{"_thread"};
Name lock{"lock"};
Name enter{"__enter__"};
Name exit{"__exit__"};
Name release{"release"};
}  // namespace names

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

/// The special method bound to the object, as a statement gets it: from the class. No when it has none.
Answer special(PyObject* object, PyObject* name, Ref& method)
{
    PyTypeObject* const type = Py_TYPE(object);
    method = Ref::borrow_optional(_PyType_Lookup(type, name));
    if (!method) {
        return Answer::no;
    }
    if (descrgetfunc bind = Py_TYPE(method.get())->tp_descr_get; bind != nullptr) {
        method = Ref::steal(bind(method.get(), object, reinterpret_cast<PyObject*>(type)));
    }
    return method ? Answer::yes : Answer::failed;
}

/// The same for a method without which the object is no context manager.
Ref required(PyObject* object, PyObject* name, const char* hint)
{
    Ref method;
    if (special(object, name, method) == Answer::no) {
        PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s",
                     Py_TYPE(object)->tp_name, hint);
    }
    return method;
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

bool HeldLock::enter_any(PyObject* lock)
{
    const Ref enter = required(lock, names::enter, "");
    exit_ = enter ? required(lock, names::exit, " (missed __exit__ method)") : Ref{};
    return exit_ && call(enter.get());
}

BlockEnd HeldLock::leave_any(bool body_done)
{
    if (body_done) {
        return call(exit_.get(), Py_None, Py_None, Py_None) ? BlockEnd::reached : BlockEnd::failed;
    }
    const Handling handling;
    Ref verdict;
    if (lock_ != nullptr) {
        verdict = lock_class_.leave(lock_);
    } else {
        const Ref traceback = Ref::steal(PyException_GetTraceback(handling.error()));
        verdict = call(exit_.get(), reinterpret_cast<PyObject*>(Py_TYPE(handling.error())), handling.error(),
                       traceback ? traceback.get() : Py_None);
    }
    const Answer swallow = verdict ? truth(verdict.get()) : Answer::failed;
    if (swallow == Answer::no) {
        handling.raise_again();
    }
    return swallow == Answer::yes ? BlockEnd::swallowed : BlockEnd::failed;
}

}  // namespace cpython
