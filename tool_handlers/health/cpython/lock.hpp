// The `with` statement over a lock, exactly.
//
// `__enter__` and `__exit__` come from the type, both before the lock is taken; the body never runs when entering
// fails; a failing body's exception is handed to `__exit__`, which may replace or swallow it. There is no RAII guard:
// leaving can fail, and a destructor could not say so.
#pragma once

#include "call.hpp"
#include "known_type.hpp"

namespace cpython {

/// How a `with` block ended: by its last line, by an error that `__exit__` swallowed, or with an error set.
enum class Left { done, swallowed, failed };

/// What the lock class of the interpreter is, learnt when such a lock is first seen: the C functions behind
/// `__enter__` and `__exit__`. Its class is immutable, so calling them directly is the same as the look-up, minus the
/// bound methods and the argument tuple. That matters beyond speed: releasing needs no memory, so that it cannot fail
/// for want of it and leave the lock held.
struct LockClass {
    KnownType known;
    PyCFunctionWithKeywords acquire = nullptr;
    PyCFunction release = nullptr;
    PyObject* no_arguments = nullptr;  // the empty tuple, which is never freed

    /// Whether the class of `lock` can be short-cut; if so, it is known from now on. Raises nothing.
    bool learn(PyObject* lock);
};

/// A lock that has been taken, with what is needed to let go of it.
class HeldLock {
public:
    /// False: the lock is not held and an exception is set.
    [[nodiscard]] bool enter(LockClass& lock_class, PyObject* lock)
    {
        if (!lock_class.known.is_class_of(lock) && !lock_class.learn(lock)) {
            return enter_any(lock);
        }
        lock_ = lock;
        release_ = lock_class.release;
        return static_cast<bool>(Ref::steal(lock_class.acquire(lock, lock_class.no_arguments, nullptr)));
    }

    /// Lets go, on every way out. `body_done` false means that the body left an exception set.
    Left leave(bool body_done)
    {
        if (body_done && release_ != nullptr) {
            return Ref::steal(release_(lock_, nullptr)) ? Left::done : Left::failed;
        }
        return leave_any(body_done);
    }

private:
    bool enter_any(PyObject* lock);
    Left leave_any(bool body_done);

    PyObject* lock_ = nullptr;  // kept by whoever entered
    Ref exit_;                  // the bound `__exit__`, where there is no direct release
    PyCFunction release_ = nullptr;
};

/// `with lock: body()`; the body is a callable that answers whether it got to its end.
template <class Body>
Left with_lock(LockClass& lock_class, PyObject* lock, Body&& body)
{
    HeldLock held;
    if (!held.enter(lock_class, lock)) {
        return Left::failed;
    }
    return held.leave(body());
}

}  // namespace cpython
