// What the operations of one import share: the classes as it made or met them, which the short cuts recognise, and what
// would otherwise be made anew at every call. Nothing in here leads back into the module.
#pragma once

#include "cpython/lock.hpp"
#include "records.hpp"

namespace health {

struct ImportState {
    RecordClass tool_state;
    RecordClass usage;
    cpython::KnownType tracker;  // without a class attribute under a field's name
    cpython::LockClass lock;
    Ref enabled;      // (False, None), the answer about a tool that is not disabled
    Ref worst_first;  // the sort keys of the summary's pairs of name and record,
    Ref most_first;   // and of a tool's usage rows
};

inline const ImportState& import_state(const Scope& scope) { return scope.state<ImportState>(); }

}  // namespace health
