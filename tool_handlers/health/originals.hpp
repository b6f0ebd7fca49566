// What an import keeps for the short cuts of its operations: the classes, the clock and the constants as it made or
// met them. A short cut is taken only while what is met at run time is still that, and unchanged.
#pragma once

#include "cpython/containers.hpp"
#include "cpython/entry_hint.hpp"
#include "cpython/lock.hpp"
#include "records.hpp"

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

/// What the short cuts know of the class of a tracker.
class TrackerClass {
public:
    /// Whether the fields of such a tracker are just entries of its instance dictionary: attribute access is the usual
    /// one, and no class attribute stands before a field.
    [[nodiscard]] bool has_plain_fields(PyObject* self)
    {
        return plain_.is_class_of(self) || (!other_.is_class_of(self) && learn(Py_TYPE(self)));
    }

    /// What the property `cooldown_s` of such a tracker calls by now; null when the class has no such property.
    [[nodiscard]] Ref cooldown_getter(PyObject* self)
    {
        return has_plain_fields(self) && cooldown_ != nullptr
                   ? Ref::steal(
                         PyMember_GetOne(reinterpret_cast<const char*>(cooldown_), getter_of_property_))
                   : Ref{};
    }

private:
    /// Looks at a class that is new or has changed; raises nothing.
    bool learn(PyTypeObject* type);
    void learn_cooldown(PyTypeObject* type);

    cpython::KnownType plain_;
    cpython::KnownType other_;                   // the last class that was looked at in vain
    PyObject* cooldown_ = nullptr;               // not owned: the class keeps it for as long as it is known
    PyMemberDef* getter_of_property_ = nullptr;  // `property.fget`
};

struct Originals {
    ToolStateClass tool_state;
    UsageClass usage;
    TrackerClass tracker;
    cpython::LockClass lock;
    Ref round;                         // the builtin
    Ref enabled;                       // (False, None), the answer about a tool that is not disabled
    cpython::EntryHint time_module;    // in the module's namespace
    cpython::EntryHint time_function;  // in the namespace of `time`
    cpython::DictShape<8> summary_record;
    cpython::DictShape<6> usage_row;
    cpython::DictShape<7> saved_entry;
    cpython::DictShape<7> tool_stats;
};

inline Originals& originals(const Scope& scope) { return scope.kept<Originals>(); }

/// Fills in what does not depend on the module's own classes.
[[nodiscard]] bool keep_constants(Originals& originals);

/// `time.time()`
Ref now(const Scope& scope);

}  // namespace health
