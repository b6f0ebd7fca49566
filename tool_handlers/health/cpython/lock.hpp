// The `with` statement over a lock, exactly.
//
// `__enter__` and `__exit__` come from the type, both before the lock is taken; the body never runs when entering
// fails; a failing body's exception is handed to `__exit__`, which may replace or swallow it. There is no RAII guard:
// leaving can fail, and a destructor could not say so.
#pragma once

#include "call.hpp"

namespace cpython {

/// How a `with` block ended: with its last line, with an error that `__exit__` swallowed, or with an error set.
enum class BlockEnd { reached, swallowed, failed };

/// The interpreter's own lock class, with the C functions behind `__enter__` and `__exit__`. The class is immutable, so
/// calling them directly is the same as the look-up, minus the bound methods and the argument tuple. That matters
/// beyond speed: releasing needs no memory, so that it cannot fail for want of it and leave the lock held.
class LockClass {
public:
    /// Finds the class in the `_thread` module; false for an error. Where it is not what this expects, every lock
    /// takes the general way.
    [[nodiscard]] bool find();

    [[nodiscard]] bool is_class_of(PyObject* lock) const
    {
        return reinterpret_cast<PyObject*>(Py_TYPE(lock)) == type_.get();
    }
    [[nodiscard]] bool enter(PyObject* lock) const
    {
        return static_cast<bool>(
            Ref::steal(enter_(lock, Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_TUPLE), nullptr)));
    }
    [[nodiscard]] Ref leave(PyObject* lock) const { return Ref::steal(leave_(lock, nullptr)); }

private:
    Ref type_;
    PyCFunctionWithKeywords enter_ = nullptr;
    PyCFunction leave_ = nullptr;
};

/// A lock that has been taken, with what is needed to let go of it.
class HeldLock {
public:
    explicit HeldLock(const LockClass& lock_class) : lock_class_{lock_class} {}

    /// False: the lock is not held and an exception is set. The caller keeps the lock alive.
    [[nodiscard]] bool enter(PyObject* lock)
    {
        if (lock_class_.is_class_of(lock)) {
            lock_ = lock;
            return lock_class_.enter(lock);
        }
        return enter_any(lock);
    }

    /// Lets go, on every way out. `body_done` false means that the body left an exception set.
    BlockEnd leave(bool body_done)
    {
        if (body_done && lock_ != nullptr) {
            return lock_class_.leave(lock_) ? BlockEnd::reached : BlockEnd::failed;
        }
        return leave_any(body_done);
    }

private:
    bool enter_any(PyObject* lock);
    BlockEnd leave_any(bool body_done);

    const LockClass& lock_class_;
    PyObject* lock_ = nullptr;  // of the interpreter's class; null for any other, which has `exit_`
    Ref exit_;                  // the bound `__exit__`
};

/// `with lock: body()`; the body is a callable that answers whether it got to its end.
template <class Body>
BlockEnd with_lock(const LockClass& lock_class, PyObject* lock, Body&& body)
{
    HeldLock held{lock_class};
    return held.enter(lock) ? held.leave(body()) : BlockEnd::failed;
}

}  // namespace cpython
