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
    Tracker(const Scope& scope, PyObject* self)
        : class_{originals(scope).tracker}, self_{self}, fields_{_PyObject_GetDictPtr(self)}
    {
    }

    [[nodiscard]] PyObject* self() const { return self_; }

    /// Whether the field is just an entry of the instance's dictionary: attribute access is the usual one and the class
    /// has nothing under the name, as is known of our own as it was made. The interpreter's cache tells of any other.
    [[nodiscard]] bool is_plain(const Field& field) const
    {
        PyTypeObject* const type = Py_TYPE(self_);
        return class_.is_class_of(self_) ||
               (type->tp_getattro == PyObject_GenericGetAttr &&
                type->tp_setattro == PyObject_GenericSetAttr && _PyType_Lookup(type, field.name) == nullptr);
    }

    /// `self.field`
    [[nodiscard]] Ref get(const Field& field) const
    {
        PyObject* const value = look(field);
        return value != nullptr ? Ref::borrow(value) : cpython::attr(self_, field.name);
    }

    /// `self.field = value`; storing what is there already would change nothing.
    [[nodiscard]] bool set(const Field& field, PyObject* value) const
    {
        return look(field) == value || cpython::set_attr(self_, field.name, value);
    }

private:
    /// The field where the constructor's order has put it, borrowed; null without an error where that can not tell.
    [[nodiscard]] PyObject* look(const Field& field) const
    {
        return fields_ != nullptr && is_plain(field) && *fields_ != nullptr
                   ? cpython::value_at(*fields_, static_cast<Py_ssize_t>(field.index), field.name)
                   : nullptr;
    }

    const cpython::KnownType& class_;
    PyObject* self_;
    PyObject** fields_;  // the place of the object's dictionary, which may change; null for want of memory
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
[[nodiscard]] bool keep_tool_order(Originals& originals);
[[nodiscard]] bool keep_row_order(Originals& originals);

// History persistence
Ref load(const Scope& scope, PyObject* const* arguments);
Ref load_usage(const Scope& scope, PyObject* const* arguments);
Ref flush(const Scope& scope, PyObject* const* arguments);
Ref flush_usage(const Scope& scope, PyObject* const* arguments);
Ref flush_health(const Scope& scope, PyObject* const* arguments);

/// `with self._lock: body(tracker)`; the body answers whether it got to its end.
template <class Body>
cpython::BlockEnd locked(const Scope& scope, PyObject* self, Body&& body)
{
    const Tracker tracker{scope, self};
    const Ref lock = tracker.get(tracker_field::lock);
    return lock ? cpython::with_lock(originals(scope).lock, lock.get(), [&] { return body(tracker); })
                : cpython::BlockEnd::failed;
}

/// `self._repo.db.name`, a method of the repository's database
inline Ref database_method(PyObject* self, PyObject* name)
{
    const Ref repository = cpython::attr(self, names::repo);
    const Ref database = repository ? cpython::attr(repository.get(), names::db) : Ref{};
    return database ? cpython::attr(database.get(), name) : Ref{};
}

/// What a function returns whose last statement is that `with` block: its result, or None after a swallowed error.
inline Ref result_of(cpython::BlockEnd end, Ref&& result)
{
    switch (end) {
    case cpython::BlockEnd::reached:
        return std::move(result);
    case cpython::BlockEnd::swallowed:
        return cpython::none();
    case cpython::BlockEnd::failed:
        break;
    }
    return {};
}

}  // namespace health
