// The interned names and texts of the operations.
#pragma once

#include "cpython/names.hpp"

namespace health::names {

using cpython::Name;

// The module's namespace
inline Name annotations{"annotations"};
inline Name json{"json"};
inline Name logging{"logging"};
inline Name threading{"threading"};
inline Name time{"time"};
inline Name dataclass{"dataclass"};
inline Name datetime{"datetime"};
inline Name timezone{"timezone"};
inline Name type_checking{"TYPE_CHECKING"};
inline Name any{"Any"};
inline Name tools_config{"ToolsConfig"};
inline Name tools{"TOOLS"};
inline Name is_slow_call{"is_slow_call"};
inline Name thread_census_type{"ThreadCensus"};
inline Name thread_census{"thread_census"};
inline Name get_timing_collector{"get_timing_collector"};
inline Name logger{"logger"};
inline Name sqlite_timestamp{"_SQLITE_TIMESTAMP"};
inline Name tool_health_columns{"_TOOL_HEALTH_COLUMNS"};
inline Name tool_usage_key{"TOOL_USAGE_KEY"};
inline Name usage_key{"_UsageKey"};
inline Name sqlite_time{"_sqlite_time"};
inline Name epoch{"_epoch"};
inline Name tool_state{"_ToolState"};
inline Name usage_record{"_Usage"};
inline Name known{"_known"};
inline Name tracker{"ToolHealthTracker"};

// The tracker: fields, and the members that call one another
inline Name repo{"_repo"};
inline Name limits{"_limits"};
inline Name lock{"_lock"};
inline Name state{"_state"};
inline Name dirty{"_dirty"};
inline Name usage{"_usage"};
inline Name usage_dirty{"_usage_dirty"};
inline Name load{"_load"};
inline Name load_usage{"_load_usage"};
inline Name cooldown_s{"cooldown_s"};
inline Name usage_rows{"_usage_rows"};
inline Name flush_health{"_flush_health"};
inline Name flush_usage{"_flush_usage"};

// Records, stored entries and rows of answers
inline Name call_count{"call_count"};
inline Name error_count{"error_count"};
inline Name last_error{"last_error"};
inline Name disabled_at{"disabled_at"};
inline Name updated_at{"updated_at"};
inline Name consecutive_errors{"consecutive_errors"};
inline Name calls{"calls"};
inline Name timed_calls{"timed_calls"};
inline Name total_ms{"total_ms"};
inline Name tool{"tool"};
inline Name action{"action"};
inline Name outcome{"outcome"};
inline Name alias_hit{"alias_hit"};
inline Name tool_name{"tool_name"};
inline Name disabled{"disabled"};
inline Name usage_list{"usage"};
inline Name avg_ms{"avg_ms"};
inline Name slow{"slow"};

// Answers of the reports
inline Name name{"name"};
inline Name count{"count"};
inline Name p95_ms{"p95_ms"};
inline Name min_ms{"min_ms"};
inline Name max_ms{"max_ms"};
inline Name errors{"errors"};
inline Name tools_list{"tools"};
inline Name os{"os"};
inline Name python{"python"};
inline Name python_by_name{"python_by_name"};
inline Name budget{"budget"};
inline Name warning{"warning"};
inline Name os_threads{"os_threads"};
inline Name python_total{"python_total"};
inline Name python_threads{"python_threads"};

// Attributes of services and builtin objects
inline Name db{"db"};
inline Name fetchall{"fetchall"};
inline Name fetchone{"fetchone"};
inline Name execute{"execute"};
inline Name executemany{"executemany"};
inline Name disable_after_errors{"disable_after_errors"};
inline Name disable_cooldown_s{"disable_cooldown_s"};
inline Name get_all_stats{"get_all_stats"};
inline Name loads{"loads"};
inline Name dumps{"dumps"};
inline Name separators{"separators"};
inline Name lock_type{"Lock"};
inline Name get_logger{"getLogger"};
inline Name datetime_capi{"datetime_CAPI"};
inline Name utc{"utc"};
inline Name fromtimestamp{"fromtimestamp"};
inline Name strftime{"strftime"};
inline Name strptime{"strptime"};
inline Name replace{"replace"};
inline Name tzinfo{"tzinfo"};
inline Name timestamp{"timestamp"};
inline Name fromisoformat{"fromisoformat"};
inline Name toordinal{"toordinal"};
inline Name get{"get"};
inline Name add{"add"};
inline Name clear{"clear"};
inline Name update{"update"};
inline Name items{"items"};
inline Name fromkeys{"fromkeys"};
inline Name slots{"slots"};
inline Name path{"path"};
inline Name name_from{"name_from"};
inline Name future{"__future__"};
inline Name dataclasses{"dataclasses"};
inline Name typing{"typing"};
inline Name dunder_name{"__name__"};
inline Name dunder_file{"__file__"};
inline Name dunder_import{"__import__"};
inline Name dunder_module{"__module__"};
inline Name dunder_qualname{"__qualname__"};
inline Name dunder_doc{"__doc__"};
inline Name dunder_annotations{"__annotations__"};

// Constants, statements and messages
inline Name timestamp_pattern{"%Y-%m-%d %H:%M:%S"};
inline Name health_columns{"tool_name, call_count, error_count, last_error, disabled_at, updated_at"};
inline Name tool_usage{"tool_usage"};
inline Name delete_health{"DELETE FROM tool_health WHERE tool_name = ?"};
inline Name select_usage{"SELECT value FROM schema_info WHERE key = ?"};
inline Name replace_usage{"INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"};
inline Name health_unreadable{"Could not read the tool health history: %s"};
inline Name usage_unreadable{"Could not read the tool usage counts: %s"};
inline Name warning_start{"The process holds "};
inline Name warning_middle{" threads, more than the "};
inline Name warning_end{" its pools allow: threads are piling up. A thread that ran the local embedding "
                        "model keeps a team of torch"
                        " threads, as many as KAVRIN_EMBED_THREADS allows (0 leaves torch's own size)."};

}  // namespace health::names
