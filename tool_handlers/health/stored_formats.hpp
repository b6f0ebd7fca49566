// The stored form of times, and their conversions as other operations call them.
#pragma once

#include "import_state.hpp"

namespace health {

// The module functions `_sqlite_time(epoch)` and `_epoch(text)`
Ref sqlite_time(const Scope& scope, PyObject* const* arguments);
Ref epoch(const Scope& scope, PyObject* const* arguments);

/// `_sqlite_time(state.field)`, the function looked up in the module before the field is read
Ref time_of(const Scope& scope, PyObject* state, const Field& field);

/// Finds the interpreter's datetime classes for the short cuts, where they are what the module has imported; false for
/// an error.
[[nodiscard]] bool find_datetime();

}  // namespace health
