// The tracker's operations, and what they share.
//
// `ToolHealthTracker` is a plain Python class: its fields are attributes of the instance like those of any other
// object, and its members are functions and properties over the bodies declared here. Every body gets `self` first,
// then its arguments in the order of the signature.
#pragma once

#include "cpython/containers.hpp"
#include "import_state.hpp"

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

/// A tracker as its operations see it. No field of it is kept here: every access reads the object as it is now.
///
/// Only for a tracker that has been constructed: looking for its dictionary may make one, and the interpreter cannot
/// take that apart when an object dies half-made for want of memory.
class Tracker {
public:
    Tracker(const Scope& scope, PyObject* self)
        : class_{import_state(scope).tracker}, self_{self}, fields_{_PyObject_GetDictPtr(self)}
    {
    }

    [[nodiscard]] PyObject* self() const { return self_; }

    /// Whether the field is just an entry of the instance's dictionary: attribute access is the usual one, and the class
    /// has nothing under the name, as is known of our own class as it was made.
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
        PyObject* const value = in_place(field);
        return value != nullptr ? Ref::borrow(value) : cpython::attr(self_, field.name);
    }

    /// `self.field = value`; storing what is there already would change nothing.
    [[nodiscard]] bool set(const Field& field, PyObject* value) const
    {
        return in_place(field) == value || cpython::set_attr(self_, field.name, value);
    }

private:
    /// The field where the constructor's order has put it, borrowed; null, without an error, where it has to be looked
    /// up.
    [[nodiscard]] PyObject* in_place(const Field& field) const
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
extern PyMethodDef rank_of_pair;  // the sort keys, as C functions
extern PyMethodDef rank_of_row;

// History persistence
Ref load(const Scope& scope, PyObject* const* arguments);
Ref load_usage(const Scope& scope, PyObject* const* arguments);
Ref flush(const Scope& scope, PyObject* const* arguments);
Ref flush_usage(const Scope& scope, PyObject* const* arguments);
Ref flush_health(const Scope& scope, PyObject* const* arguments);

/// A function's last statement `with lock: return body()`: what the body returns, or None after a swallowed error.
template <class Body>
Ref locked(const Scope& scope, const Ref& lock, Body&& body)
{
    Ref result;
    switch (cpython::with_lock(import_state(scope).lock, lock, [&] {
        result = body();
        return static_cast<bool>(result);
    })) {
    case cpython::BlockEnd::completed:
        return result;
    case cpython::BlockEnd::swallowed:
        return cpython::none();
    case cpython::BlockEnd::failed:
        break;
    }
    return {};
}

/// `self._repo.db.name`, a method of the repository's database
inline Ref database_method(PyObject* self, PyObject* name)
{
    return cpython::attr(cpython::attr(cpython::attr(self, names::repo), names::db), name);
}

}  // namespace health
