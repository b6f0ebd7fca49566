// What an import keeps for the short cuts of its operations: the classes, the clock and the constants as it made or
// met them. A short cut is taken only while what is met at run time is still that, and unchanged.
#pragma once

#include "cpython/containers.hpp"
#include "cpython/entry_hint.hpp"
#include "cpython/lock.hpp"
#include "records.hpp"

namespace health {

/// What the short cuts know of the class of a tracker.
class TrackerClass {
public:
    /// Whether the fields of such a tracker are just entries of its instance dictionary: attribute access is the usual
    /// one, and no class attribute stands before a field.
    [[nodiscard]] bool has_plain_fields(const Scope& scope, PyObject* self)
    {
        return plain_.is_class_of(self) || (!other_.is_class_of(self) && learn(scope, Py_TYPE(self)));
    }

    /// Whether, besides, `self.cooldown_s` is the module's own property.
    [[nodiscard]] bool has_own_cooldown(const Scope& scope, PyObject* self)
    {
        return has_plain_fields(scope, self) && own_cooldown_;
    }

private:
    /// Looks at a class that is new or has changed; raises nothing.
    bool learn(const Scope& scope, PyTypeObject* type);

    cpython::KnownType plain_;
    cpython::KnownType other_;  // the last class that was looked at in vain
    bool own_cooldown_ = false;
};

struct Originals {
    ToolStateClass tool_state;
    UsageClass usage;
    TrackerClass tracker;
    cpython::LockClass lock;
    Ref clock;  // the interpreter's own `time.time`; null if that was replaced before the import
    cpython::EntryHint time_module;    // in the module's namespace
    cpython::EntryHint time_function;  // in the namespace of `time`
    Ref enabled;                       // (False, None), the answer about a tool that is not disabled
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
