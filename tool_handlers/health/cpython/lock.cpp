#include "lock.hpp"

#include "names.hpp"
#include "special.hpp"

namespace cpython {

namespace {

namespace names {
Name enter{"__enter__"};
Name exit{"__exit__"};
}  // namespace names

/// The C function behind a method of a builtin class, if it takes its arguments as `flags` say.
PyCFunction method_of(PyTypeObject* type, const char* name, int flags)
{
    const Ref method = Ref::steal(PyObject_GetAttrString(reinterpret_cast<PyObject*>(type), name));
    if (!method) {
        PyErr_Clear();
        return nullptr;
    }
    if (!Py_IS_TYPE(method.get(), &PyMethodDescr_Type)) {
        return nullptr;
    }
    const PyMethodDef* definition = reinterpret_cast<PyMethodDescrObject*>(method.get())->d_method;
    return definition->ml_flags == flags ? definition->ml_meth : nullptr;
}

}  // namespace

bool LockClass::learn(PyObject* lock)
{
    PyTypeObject* type = Py_TYPE(lock);
    known.forget();
    if (!PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE)) {
        return false;
    }
    const PyCFunction enter = method_of(type, "__enter__", METH_VARARGS | METH_KEYWORDS);
    const PyCFunction exit = method_of(type, "__exit__", METH_VARARGS);
    release = method_of(type, "release", METH_NOARGS);
    // One function serves as `__exit__` and as `release`, so it does not look at its arguments.
    if (enter == nullptr || release == nullptr || exit != release) {
        return false;
    }
    acquire = reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(enter));
    no_arguments = Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE);
    known.remember(type);
    return known.is_class_of(lock);
}

bool HeldLock::enter_any(PyObject* lock)
{
    static constexpr const char* unsupported =
        "'%.200s' object does not support the context manager protocol%s";
    Ref enter;
    switch (special(lock, names::enter, enter)) {
    case Answer::failed:
        return false;
    case Answer::no:
        PyErr_Format(PyExc_TypeError, unsupported, Py_TYPE(lock)->tp_name, "");
        return false;
    case Answer::yes:
        break;
    }
    switch (special(lock, names::exit, exit_)) {
    case Answer::failed:
        return false;
    case Answer::no:
        PyErr_Format(PyExc_TypeError, unsupported, Py_TYPE(lock)->tp_name, " (missed __exit__ method)");
        return false;
    case Answer::yes:
        break;
    }
    return static_cast<bool>(call(enter.get()));
}

Left HeldLock::leave_any(bool body_done)
{
    if (body_done) {
        return call(exit_.get(), Py_None, Py_None, Py_None) ? Left::done : Left::failed;
    }
    const Handling handling;
    Ref verdict;
    if (release_ != nullptr) {
        verdict = Ref::steal(release_(lock_, nullptr));
    } else {
        const Ref traceback = Ref::steal(PyException_GetTraceback(handling.error()));
        verdict = call(exit_.get(), reinterpret_cast<PyObject*>(Py_TYPE(handling.error())), handling.error(),
                       traceback ? traceback.get() : Py_None);
    }
    const Answer swallow = verdict ? truth(verdict.get()) : Answer::failed;
    if (swallow == Answer::no) {
        handling.raise_again();
    }
    return swallow == Answer::yes ? Left::swallowed : Left::failed;
}

}  // namespace cpython
