// The two report functions: stateless, without a lock, passing values through as they are.
#pragma once

#include "records.hpp"

namespace health {

Ref handle_get_tool_performance_stats(const Scope& scope, PyObject* const* arguments);
Ref thread_census_report(const Scope& scope, PyObject* const* arguments);

}  // namespace health
