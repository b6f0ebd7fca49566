// The stored forms: timestamp text, rounding, and the conversions of what a row or an entry holds.
#pragma once

#include "records.hpp"

namespace health {

// The module functions `_sqlite_time(epoch)` and `_epoch(text)`
Ref sqlite_time(const Scope& scope, PyObject* const* arguments);
Ref epoch(const Scope& scope, PyObject* const* arguments);

// The same as the other operations call them: looked up in the module at every use, before the argument is read.

/// `_sqlite_time(state.field)`
Ref time_of(const Scope& scope, PyObject* state, const Field& field);

/// `_epoch(text)`
Ref call_epoch(const Scope& scope, PyObject* text);

/// `round(value, digits)`; digits is 2 or 3.
Ref rounded(const Scope& scope, PyObject* value, int digits);

/// `int(value or 0)`
Ref whole_or_zero(PyObject* value);

/// Finds the interpreter's datetime classes for the short cuts, where they are what the module has imported; false for
/// an error.
[[nodiscard]] bool find_datetime();

}  // namespace health
