// The usage rows of one tool in the summary: what they hold, and their order, most calls first.
#pragma once

#include "tracker.hpp"

namespace health {

/// Makes the rows of one tool: new lists, in their order.
class UsageRows {
public:
    UsageRows(const Scope& scope, PyObject* tool_name)
        : scope_{scope}, tool_name_{tool_name}, rows_{Ref::steal(PyList_New(0))}
    {
    }

    /// Those among the usage counts, a map of any kind.
    Ref from_map(const Ref& usage_map);

    /// Those of the tool's own keys and records, which stand in a list in turn; null for none.
    Ref from_group(const Ref& group);

private:
    bool add(const UsageKey& key, PyObject* usage);
    Ref sorted();

    const Scope& scope_;
    PyObject* tool_name_;  // borrowed for the time of the call
    Ref rows_;
    Ref last_;  // of the rows
};

}  // namespace health
