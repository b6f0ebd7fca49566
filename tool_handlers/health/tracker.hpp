// The tracker's operations, and what they share.
//
// `ToolHealthTracker` is a plain Python class: its fields are attributes of the instance like those of any other
// object, and its members are functions and properties over the bodies declared here. Every body gets `self` first,
// then its arguments in the order of the signature.
#pragma once

#include "originals.hpp"

namespace health {

inline constexpr std::size_t key_parts = 4;
using UsageKey = std::array<Ref, key_parts>;  // tool, action or None, outcome, alias hit

/// A tracker as its operations see it. No field of it is kept here: every access reads the object as it is now.
class Tracker {
public:
    Tracker(const Scope& scope, PyObject* self) : class_{originals(scope).tracker}, self_{self}
    {
        if (class_.has_plain_fields(self)) {
            fields_ = _PyObject_GetDictPtr(self);  // null for want of memory, without an error
        }
    }

    [[nodiscard]] PyObject* self() const { return self_; }

    /// Whether reading a field runs no foreign code.
    [[nodiscard]] bool has_plain_fields() const { return plain_fields() != nullptr; }

    /// `self.field`
    [[nodiscard]] Ref get(const Field& field) const
    {
        if (PyObject* const fields = plain_fields()) {
            // The constructor's order is where a field usually is.
            const cpython::EntryHint hint{static_cast<Py_ssize_t>(field.index)};
            if (PyObject* const value = hint.look(fields, field.name)) {
                return Ref::borrow(value);
            }
        }
        return cpython::attr(self_, field.name);
    }

    /// `self._usage_dirty = value`; storing what is there already would change nothing.
    [[nodiscard]] bool mark_usage(bool value) const
    {
        PyObject* const mark = value ? Py_True : Py_False;
        if (PyObject* const fields = plain_fields()) {
            const cpython::EntryHint hint{static_cast<Py_ssize_t>(tracker_field::usage_dirty.index)};
            if (hint.look(fields, names::usage_dirty) == mark) {
                return true;
            }
        }
        return cpython::set_attr(self_, names::usage_dirty, mark);
    }

private:
    /// The instance dictionary as long as the fields are just its entries; borrowed until foreign code runs.
    [[nodiscard]] PyObject* plain_fields() const
    {
        return fields_ != nullptr && class_.has_plain_fields(self_) ? *fields_ : nullptr;
    }

    TrackerClass& class_;
    PyObject* self_;
    PyObject** fields_ = nullptr;  // where the object has its dictionary, which can be exchanged
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

/// `self._repo.db.name`, a method of the repository's database
inline Ref database_method(PyObject* self, PyObject* name)
{
    const Ref repository = cpython::attr(self, names::repo);
    const Ref database = repository ? cpython::attr(repository.get(), names::db) : Ref{};
    return database ? cpython::attr(database.get(), name) : Ref{};
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
