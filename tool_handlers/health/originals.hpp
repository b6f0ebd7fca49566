// What an import keeps for its operations: the classes as it made or met them, which the short cuts recognise, and what
// would otherwise be made anew at every call. Nothing in here leads back into the module.
#pragma once

#include "cpython/containers.hpp"
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

struct Originals {
    ToolStateClass tool_state;
    UsageClass usage;
    cpython::KnownType tracker;  // without a class attribute under a field's name
    cpython::LockClass lock;
    Ref enabled;  // (False, None), the answer about a tool that is not disabled
    cpython::DictShape<8> summary_record;
    cpython::DictShape<6> usage_row;
    cpython::DictShape<7> saved_entry;
    cpython::DictShape<7> tool_stats;
    cpython::SortKey worst_first;  // of the summary's pairs of name and record
    cpython::SortKey most_first;   // of a tool's usage rows
};

inline const Originals& originals(const Scope& scope) { return scope.kept<Originals>(); }

/// Fills in what does not depend on the module's own classes.
[[nodiscard]] bool keep_constants(Originals& originals);

/// `time.time()`
Ref now(const Scope& scope);

}  // namespace health
