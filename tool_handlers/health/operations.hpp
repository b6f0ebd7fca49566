// The table of operations: what Python sees of every function, method and property of the module.
#pragma once

#include "cpython/function.hpp"

#include <span>

namespace health {

/// A member of the tracker class: a method, or a read-only property over one.
struct Member {
    cpython::Operation operation;
    bool is_property = false;
};

extern const cpython::Operation sqlite_time_operation;
extern const cpython::Operation epoch_operation;
extern const cpython::Operation known_operation;
extern const cpython::Operation performance_stats_operation;
extern const cpython::Operation census_report_operation;

/// The members of `ToolHealthTracker`, in definition order.
extern const std::span<const Member> tracker_members;

extern const char* const module_doc;
extern const char* const tracker_doc;

}  // namespace health
