#include "operations.hpp"

#include "reports.hpp"
#include "stored_formats.hpp"
#include "tracker.hpp"

namespace health {

using cpython::operation;
using cpython::Parameter;

namespace {

constexpr Parameter self{"self"};

constexpr std::array just_self{self};
constexpr std::array construct_parameters{
    self, Parameter{"repository", "Repository"},
    Parameter{.name = "limits", .annotation = "ToolsConfig | None", .none_by_default = true}};
constexpr std::array record_call_parameters{
    self,
    Parameter{"tool_name", "str"},
    Parameter{"action", "str | None"},
    Parameter{"outcome", "str"},
    Parameter{.name = "alias_hit", .annotation = "bool", .keyword_only = true},
    Parameter{.name = "duration_ms", .annotation = "float | None", .keyword_only = true}};
constexpr std::array tool_parameters{self, Parameter{"tool_name", "str"}};
constexpr std::array record_error_parameters{self, Parameter{"tool_name", "str"}, Parameter{"error", "str"}};
constexpr std::array sqlite_time_parameters{Parameter{"epoch", "float | None"}};
constexpr std::array epoch_parameters{Parameter{"text", "str | None"}};
constexpr std::array known_parameters{Parameter{"tool", "str"}, Parameter{"action", "str | None"}};
constexpr std::array census_report_parameters{
    Parameter{"budget", "int"},
    Parameter{.name = "census", .annotation = "ThreadCensus | None", .none_by_default = true}};

constexpr std::array members{
    Member{operation<construct, construct_parameters>(
        "__init__", "None",
        R"(Create the tracker and read the saved history (blocking: call from a thread).

repository is the host's Repository; only its db connection is used. limits says when a
failing tool is disabled and for how long; None takes the defaults.

A history that cannot be read, or whose removed tools cannot be deleted, is logged as a
warning and left out. What is raised: an error of ToolsConfig(), one of the registry (but
while the rows are first looked through it is logged like one of the database), and the
error of a stored row that holds no counts or times (ValueError, TypeError, OverflowError).)")},
    Member{operation<limits, just_self>("limits", "ToolsConfig",
                                        R"(The tools settings the tracker was made with.)"),
           true},
    Member{operation<load, just_self>(
        "_load", "None",
        R"(Seed the tools' health from the table, and delete the rows of tools that are gone (blocking).

History is best-effort: losing it is harmless. An Exception of the database, or of the
registry while the rows are first looked through, is logged as a warning and nothing is
loaded; the error of a row that holds no counts or times is raised, as is one of the registry
after that.)")},
    Member{operation<load_usage, just_self>("_load_usage", "None",
                                            R"(Seed the usage counts from the stored document (blocking).

Counts of a tool or an action that is gone are dropped, and the next flush writes the
document without them. A document that cannot be read or understood is logged as a warning
and nothing of it is loaded; an error of the registry is raised.)")},
    Member{operation<record_call, record_call_parameters>("record_call", "None",
                                                          R"(Count one call of a tool in the usage counts.

action is what the call ran, None for a tool without actions; outcome says how it ended;
alias_hit, whether it named a parameter or an action by a synonym; duration_ms is how long
the handler ran, in milliseconds, None for a call whose handler did not answer. Every new
combination of the first four is kept for ever, so they must be the host's own names.

Touches memory only and never waits for the database; callable from any thread. Raises
nothing for arguments of these types.)")},
    Member{operation<record_success, tool_parameters>("record_success", "None",
                                                      R"(Record a successful call of a tool.

It ends the tool's run of errors, and a disablement at once. Touches memory only and never
waits for the database; callable from any thread. Raises nothing for a text.)")},
    Member{operation<record_error, record_error_parameters>(
        "record_error", "None",
        R"(Record a failed call of a tool; it may disable the tool.

error is the message, a text, of which the first 500 characters are kept. The tool is
disabled, from now on, when its run of errors reaches the setting disable_after_errors.
Touches memory only and never waits for the database; callable from any thread.

For a hashable name and a text it raises only what reading and comparing the setting raise.
An exception object in the place of its text is a TypeError: the counts are up by then, but
the tool is neither disabled nor marked for the next flush.)")},
    Member{
        operation<cooldown_s, just_self>("cooldown_s", "float", R"(Seconds a disabled tool stays disabled.)"),
        true},
    Member{operation<is_disabled, tool_parameters>("is_disabled", "tuple[bool, str | None]",
                                                   R"(Whether a tool is disabled, with its last error if so.

(True, last error) means that the call is to be refused, else (False, None). The first
question after the cooldown re-enables the tool and answers (False, None). An unknown tool
is not disabled. Touches memory only and never waits for the database; callable from any
thread. For a hashable name it raises only what reading and comparing the setting
disable_cooldown_s raise.)")},
    Member{operation<get_health_summary, just_self>("get_health_summary", "list[dict[str, Any]]",
                                                    R"(Get health summary for all tracked tools.

One new dict per tool, the most errors first, then the most calls: tool_name (str),
call_count and error_count (int), last_error (str, None before the first error), disabled
(bool), disabled_at (str, None while the tool is enabled), updated_at (str) and usage (list
of dicts, see _usage_rows). Times are UTC text, "2023-11-14 22:13:20"; updated_at is that of
1970 for a tool known from its usage counts alone. All of it describes one instant:
recording waits while it is built. Callable from any thread; touches no database.

Raises what is_slow_call raises, and the error of a time outside the years 1 to 9999.)")},
    Member{operation<usage_rows, tool_parameters>(
        "_usage_rows", "list[dict[str, Any]]",
        R"(A tool's usage counts as ``perf_stats`` shows them, most calls first (under the lock).

One new dict per action, outcome and synonym use: action (str, None for a tool without
actions), outcome (str), alias_hit (bool), calls (int), avg_ms (float: the mean handler time
in milliseconds; None without a timed call) and slow (bool: what is_slow_call answers). The
caller holds the lock; this does not take it. Raises what is_slow_call raises.)")},
    Member{operation<has_unsaved_changes, just_self>("has_unsaved_changes", "bool",
                                                     R"(Whether flush has anything to write.

Touches memory only and never waits for the database; callable from any thread.)"),
           true},
    Member{operation<flush, just_self>(
        "flush", "int",
        R"(Write what changed to the database, and return the number of rows written (blocking).

That is the changed tools, plus all usage entries when any usage count changed. An Exception
of a write is raised as it is, and what was to be written stays pending; after anything else,
such as KeyboardInterrupt, it is written only once it changes again. Call it from a thread
that may wait, one flush at a time; recording goes on meanwhile.)")},
    Member{operation<flush_usage, just_self>("_flush_usage", "int",
                                             R"(Write the usage document when it changed (blocking).

Returns how many entries the document holds, 0 when nothing was written. An Exception of the
write marks the document as changed again and is raised.)")},
    Member{operation<flush_health, just_self>("_flush_health", "int",
                                              R"(Write the changed health rows in one batch (blocking).

Returns how many were written. An Exception of the write marks them as changed again and is
raised.)")},
};

}  // namespace

constinit const cpython::Operation sqlite_time_operation = operation<sqlite_time, sqlite_time_parameters>(
    "_sqlite_time", "str | None",
    R"(Epoch seconds as the stored timestamp text, in UTC without the fraction; None for None.

Raises what datetime raises for a time outside the years 1 to 9999 (ValueError,
OverflowError, OSError). Callable from any thread.)");

constinit const cpython::Operation epoch_operation = operation<epoch, epoch_parameters>(
    "_epoch", "float | None",
    R"(The epoch seconds of a stored timestamp; None if absent or unreadable.

Raises TypeError for a true value that is not text. Callable from any thread.)");

constinit const cpython::Operation known_operation = operation<known, known_parameters>(
    "_known", "bool",
    R"(Whether a usage row names a tool, and an action of it, that the registry still has.)");

constinit const cpython::Operation performance_stats_operation =
    operation<handle_get_tool_performance_stats>("handle_get_tool_performance_stats", "dict[str, Any]",
                                                 R"(Get performance metrics for all tools.

{"tools": [...]}: for each tool its name, count, avg_ms, p95_ms, min_ms, max_ms and errors
(times in milliseconds), as the timing collector gives them and in its order. Callable from
any thread. Raises KeyError for a record that lacks one of them.)");

constinit const cpython::Operation census_report_operation =
    operation<thread_census_report, census_report_parameters>(
        "thread_census_report", "dict[str, Any]",
        R"(The process's threads for a status answer, measured against what its pools allow.

budget is the most threads that the pools allow; census is a census taken already, None takes
one now (blocking: it asks the operating system). A new dict: os (left out where the operating
system's count is missing), python, python_by_name, budget, and a warning only when the first
of the two counts that is there is above the budget. Callable from any thread; raises what
thread_census raises.)");

constinit const std::span<const Member> tracker_members{members};

const char* const module_doc =
    R"(Tool health tracking, the performance stats of the tools, and the process's thread census.

ToolHealthTracker disables a tool that keeps failing and tries it again after a cooldown, and
counts what each call ran and how it ended, for the ``status`` tool's ``perf_stats`` answer.
Its state lives in memory, so that no tool call waits for the database; flush mirrors what
changed to the repository's database, and a new tracker starts from there.

handle_get_tool_performance_stats answers the ``get_tool_performance_stats`` tool.

thread_census_report measures the threads of the process against the budget that its pools
allow, for the ``status`` answers.)";

const char* const tracker_doc =
    R"(The health of the tools that a host serves, and how often each was called.

A tool whose run of errors reaches the setting disable_after_errors is disabled for
disable_cooldown_s seconds (a circuit breaker per tool). Ask is_disabled before a call;
report record_success or record_error, and record_call, after it. Those touch memory only.
flush, from a thread that may wait, writes what changed when has_unsaved_changes says so.

Every method may be called from any thread, and the properties limits and cooldown_s take no
lock and answer with what the settings say now. One lock guards a tracker; what the host lets it
call meanwhile (the settings, the registry, is_slow_call) must not call back into it.)";

}  // namespace health
