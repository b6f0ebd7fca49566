// The tracker's operations, and what they share.
//
// `ToolHealthTracker` is a plain Python class: its fields are attributes of the instance like those of any other
// object, and its members are functions and properties over the bodies declared here. Every body gets `self` first,
// then its arguments in the order of the signature.
#pragma once

#include "originals.hpp"

namespace health {

/// The fields of a tracker, in the order in which the constructor sets them.
namespace tracker_field {
inline constexpr Field repo{0, names::repo};
inline constexpr Field limits{1, names::limits};
inline constexpr Field lock{2, names::lock};
inline constexpr Field state{3, names::state};
inline constexpr Field dirty{4, names::dirty};
inline constexpr Field usage{5, names::usage};
inline constexpr Field usage_dirty{6, names::usage_dirty};
}  // namespace tracker_field

inline constexpr std::size_t key_parts = 4;
using UsageKey = std::array<Ref, key_parts>;  // tool, action or None, outcome, alias hit

/// A tracker as its operations see it.
class Tracker {
public:
    Tracker(const Scope& scope, PyObject* self) : self_{self}
    {
        if (originals(scope).tracker.has_plain_fields(scope, self)) {
            fields_ = Ref::steal(PyObject_GenericGetDict(self, nullptr));
            if (!fields_) {
                PyErr_Clear();  // no dictionary for want of memory: the general way needs none
            }
        }
    }

    [[nodiscard]] PyObject* self() const { return self_; }

    /// `self.field`
    [[nodiscard]] Ref get(const Field& field) const
    {
        if (fields_) {
            // The constructor's order is where a field usually is; a look-up by position needs no hashing.
            auto position = static_cast<Py_ssize_t>(field.index);
            PyObject* name = nullptr;
            PyObject* value = nullptr;
            if (PyDict_Next(fields_.get(), &position, &name, &value) != 0 && name == field.name) {
                return Ref::borrow(value);
            }
        }
        return cpython::attr(self_, field.name);
    }

    /// `self._usage_dirty = value`; storing what is there already would change nothing.
    [[nodiscard]] bool mark_usage(bool value) const
    {
        PyObject* const mark = value ? Py_True : Py_False;
        if (fields_) {
            const Ref marked = get(tracker_field::usage_dirty);
            if (marked.get() == mark) {
                return true;
            }
            if (!marked) {
                PyErr_Clear();  // deleted by somebody: it is set anew
            }
        }
        return cpython::set_attr(self_, names::usage_dirty, mark);
    }

private:
    PyObject* self_;
    Ref fields_;  // the instance's dictionary, where its fields can be read there
};

// Construction and settings
Ref construct(const Scope& scope, PyObject* const* arguments);
Ref limits(const Scope& scope, PyObject* const* arguments);
Ref known(const Scope& scope, PyObject* const* arguments);

// The tool-call path
Ref record_call(const Scope& scope, PyObject* const* arguments);
Ref record_success(const Scope& scope, PyObject* const* arguments);
Ref record_error(const Scope& scope, PyObject* const* arguments);
Ref cooldown_s(const Scope& scope, PyObject* const* arguments);
Ref is_disabled(const Scope& scope, PyObject* const* arguments);
Ref has_unsaved_changes(const Scope& scope, PyObject* const* arguments);

// The health summary
Ref get_health_summary(const Scope& scope, PyObject* const* arguments);
Ref usage_rows(const Scope& scope, PyObject* const* arguments);

// History persistence
Ref load(const Scope& scope, PyObject* const* arguments);
Ref load_usage(const Scope& scope, PyObject* const* arguments);
Ref flush(const Scope& scope, PyObject* const* arguments);
Ref flush_usage(const Scope& scope, PyObject* const* arguments);
Ref flush_health(const Scope& scope, PyObject* const* arguments);

/// `with self._lock: body(tracker)`; the body answers whether it got to its end.
template <class Body>
cpython::Left locked(const Scope& scope, PyObject* self, Body&& body)
{
    const Tracker tracker{scope, self};
    const Ref lock = tracker.get(tracker_field::lock);
    return lock ? cpython::with_lock(originals(scope).lock, lock.get(), [&] { return body(tracker); })
                : cpython::Left::failed;
}

/// What a function returns whose last statement is that `with` block: its result, or None after a swallowed error.
inline Ref result_of(cpython::Left left, Ref&& result)
{
    switch (left) {
    case cpython::Left::done:
        return std::move(result);
    case cpython::Left::swallowed:
        return cpython::none();
    case cpython::Left::failed:
        break;
    }
    return {};
}

}  // namespace health
