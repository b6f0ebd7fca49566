// The `with` statement over a lock, exactly. Its ways out:
//
//   `__enter__` fails                                  the body never runs          failed
//   the body completes, and `__exit__`                 whatever it answers          completed
//                                                      or raises an error           failed, with that error
//   the body fails, and `__exit__`, given the error,   answers false                failed, with the body's error
//                                                      answers true                 swallowed
//                                                      or raises one of its own     failed, with that one
//
// `__enter__` and `__exit__` come from the type, both before the lock is taken, so that leaving needs no look-up that
// could fail. There is no RAII guard: leaving can fail, and a destructor could not say so.
#pragma once

#include "call.hpp"

namespace cpython {

enum class BlockEnd { completed, swallowed, failed };

/// The interpreter's own lock class, with the C functions behind `__enter__` and `__exit__`. The class is immutable, so
/// calling them directly is the same as the look-up, minus the bound methods and the argument tuple. Nor can releasing
/// fail for want of memory then.
class LockClass {
public:
    /// Finds the class in the `_thread` module; false for an error. Where it is not what this expects, every lock
    /// takes the general way.
    [[nodiscard]] bool find();

    [[nodiscard]] bool is_class_of(PyObject* lock) const
    {
        return reinterpret_cast<PyObject*>(Py_TYPE(lock)) == type_.get();
    }
    [[nodiscard]] Ref enter(PyObject* lock) const
    {
        return Ref::steal(enter_(lock, Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE), nullptr));
    }
    [[nodiscard]] Ref leave(PyObject* lock) const { return Ref::steal(leave_(lock, nullptr)); }

private:
    Ref type_;
    PyCFunctionWithKeywords enter_ = nullptr;
    PyCFunction leave_ = nullptr;
};

/// Takes a lock of any class, and puts its bound `__exit__` into `exit`.
Ref enter_any(PyObject* lock, Ref& exit);

/// Lets go of the lock when the body has left an exception set.
BlockEnd leave_after_error(const LockClass& lock_class, PyObject* lock, const Ref& exit);

/// `with lock: body()`; the body is a callable that answers whether it got to its end. The caller keeps the lock alive.
template <class Body>
BlockEnd with_lock(const LockClass& lock_class, Arg lock, Body&& body)
{
    Ref exit;  // of a lock of another class
    const bool is_builtin = lock != nullptr && lock_class.is_class_of(lock);
    if (lock == nullptr || !(is_builtin ? lock_class.enter(lock) : enter_any(lock, exit))) {
        return BlockEnd::failed;
    }
    if (!body()) {
        return leave_after_error(lock_class, lock, exit);
    }
    const Ref left = is_builtin ? lock_class.leave(lock) : call(exit, Py_None, Py_None, Py_None);
    return left ? BlockEnd::completed : BlockEnd::failed;
}

}  // namespace cpython
