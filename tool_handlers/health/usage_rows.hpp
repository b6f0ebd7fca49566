// The usage rows of one tool in the summary: what they hold, and their order, most calls first.
#pragma once

#include "tracker.hpp"

namespace health {

/// Adds the row of a usage count, if it is one of the tool's.
bool add_if_of_tool(const Scope& scope, PyObject* tool_name, PyObject* key, PyObject* usage, const Ref& rows);

/// The rows in their order: the same list, sorted, or a new one.
Ref sorted_rows(const Ref& rows);

}  // namespace health
