// The usage rows of one tool in the summary: what they hold, and their order, most calls first.
#pragma once

#include "tracker.hpp"

namespace health {

/// The rows of the tool among the usage counts, a map of any kind.
Ref rows_of(const Scope& scope, PyObject* usage, PyObject* tool_name);

/// Adds the row of one usage count.
[[nodiscard]] bool add_row(const Scope& scope, PyObject* tool_name, PyObject* key, PyObject* usage,
                           const Ref& rows);

/// The rows in their order: the same list, sorted.
Ref sorted_rows(const Scope& scope, const Ref& rows);

}  // namespace health
