# The types of the extension module, for beside it in a host's tool_handlers; tests/test_adoption.py holds them to it.
"""Tool health tracking, the performance stats of the tools, and the process's thread census.

ToolHealthTracker disables a tool that keeps failing and tries it again after a cooldown, and
counts what each call ran and how it ended, for the ``status`` tool's ``perf_stats`` answer.
Its state lives in memory, so that no tool call waits for the database; flush mirrors what
changed to the repository's database, and a new tracker starts from there.

handle_get_tool_performance_stats answers the ``get_tool_performance_stats`` tool.

thread_census_report measures the threads of the process against the budget that its pools
allow, for the ``status`` answers.
"""

from __future__ import annotations as annotations

import json as json
import logging as logging
import threading as threading
import time as time
from collections.abc import Iterable, Sequence
from dataclasses import dataclass as dataclass
from datetime import datetime as datetime, timezone as timezone
from typing import TYPE_CHECKING as TYPE_CHECKING, Any as Any, Protocol, TypedDict, type_check_only

from ..config import ToolsConfig as ToolsConfig
from ..tool_registry import TOOLS as TOOLS
from ..tool_schemas import is_slow_call as is_slow_call
from ..utils.process import ThreadCensus as ThreadCensus, thread_census as thread_census
from ..utils.timing import get_timing_collector as get_timing_collector

@type_check_only
class _Database(Protocol):
    """What the tracker calls of the repository's connection; a call that raises counts as not done.

    A host may open, commit and close as it likes inside them. They may block, and are called
    from the thread that constructs the tracker or calls flush, never under its lock.
    """

    def fetchall(self, sql: str, /) -> Iterable[Sequence[Any]]: ...
    def fetchone(self, sql: str, params: tuple[Any, ...], /) -> Sequence[Any] | None: ...
    def execute(self, sql: str, params: tuple[Any, ...], /) -> object: ...
    def executemany(self, sql: str, params: list[tuple[Any, ...]], /) -> object: ...

@type_check_only
class Repository(Protocol):
    """Any object with such a connection. Not there at run time: import it under ``if TYPE_CHECKING:``."""

    @property
    def db(self) -> _Database: ...

@type_check_only
class UsageRow(TypedDict):
    """A dict of _usage_rows. Not there at run time, as Repository is not."""

    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    avg_ms: float | None
    slow: bool

@type_check_only
class SummaryRecord(TypedDict):
    """A dict of get_health_summary. Not there at run time, as Repository is not."""

    tool_name: str
    call_count: int
    error_count: int
    last_error: str | None
    disabled: bool
    disabled_at: str | None
    updated_at: str
    usage: list[UsageRow]

logger: logging.Logger
_SQLITE_TIMESTAMP: str
_TOOL_HEALTH_COLUMNS: str
TOOL_USAGE_KEY: str
_UsageKey = tuple[str, str | None, str, bool]

def _sqlite_time(epoch: float | None) -> str | None:
    """Epoch seconds as the stored timestamp text, in UTC without the fraction; None for None.

    Raises what datetime raises for a time outside the years 1 to 9999 (ValueError,
    OverflowError, OSError). Callable from any thread.
    """

def _epoch(text: str | None) -> float | None:
    """The epoch seconds of a stored timestamp; None if absent or unreadable.

    Raises TypeError for a true value that is not text. Callable from any thread.
    """

@dataclass(slots=True)
class _ToolState:
    """What is known about one tool's health.

    Every recorded call counts in call_count, every failed one in error_count, and
    consecutive_errors is the run of errors since the last success (in memory only:
    a restart starts a new run). disabled_at and updated_at are epoch seconds; None
    for an enabled tool and 0.0 for a record that never changed.
    """

    call_count: int = 0
    error_count: int = 0
    last_error: str | None = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0

@dataclass(slots=True)
class _Usage:
    """How many calls one usage key counts, and the time their handlers took.

    timed_calls of the calls came with a duration; total_ms is the sum of those, in
    milliseconds.
    """

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0

def _known(tool: str, action: str | None) -> bool:
    """Whether a usage row names a tool, and an action of it, that the registry still has."""

class ToolHealthTracker:
    """The health of the tools that a host serves, and how often each was called.

    A tool whose run of errors reaches the setting disable_after_errors is disabled for
    disable_cooldown_s seconds (a circuit breaker per tool). Ask is_disabled before a call;
    report record_success or record_error, and record_call, after it. Those touch memory only.
    flush, from a thread that may wait, writes what changed when has_unsaved_changes says so.

    Every method may be called from any thread, and the properties limits and cooldown_s take no
    lock and answer with what the settings say now. One lock guards a tracker; what the host lets it
    call meanwhile (the settings, the registry, is_slow_call) must not call back into it.
    """

    _repo: Repository
    _limits: ToolsConfig
    _lock: threading.Lock
    _state: dict[str, _ToolState]
    _dirty: set[str]
    _usage: dict[_UsageKey, _Usage]
    _usage_dirty: bool

    def __init__(self, repository: Repository, limits: ToolsConfig | None = None) -> None:
        """Create the tracker and read the saved history (blocking: call from a thread).

        repository is the host's Repository; only its db connection is used. limits says when a
        failing tool is disabled and for how long; None takes the defaults.

        A history that cannot be read, or whose removed tools cannot be deleted, is logged as a
        warning and left out. What is raised: an error of ToolsConfig(), one of the registry (but
        while the rows are first looked through it is logged like one of the database), and the
        error of a stored row that holds no counts or times (ValueError, TypeError, OverflowError).
        """

    @property
    def limits(self) -> ToolsConfig:
        """The tools settings the tracker was made with."""

    def _load(self) -> None:
        """Seed the tools' health from the table, and delete the rows of tools that are gone (blocking).

        History is best-effort: losing it is harmless. An Exception of the database, or of the
        registry while the rows are first looked through, is logged as a warning and nothing is
        loaded; the error of a row that holds no counts or times is raised, as is one of the registry
        after that.
        """

    def _load_usage(self) -> None:
        """Seed the usage counts from the stored document (blocking).

        Counts of a tool or an action that is gone are dropped, and the next flush writes the
        document without them. A document that cannot be read or understood is logged as a warning
        and nothing of it is loaded; an error of the registry is raised.
        """

    def record_call(
        self, tool_name: str, action: str | None, outcome: str, *, alias_hit: bool, duration_ms: float | None
    ) -> None:
        """Count one call of a tool in the usage counts.

        action is what the call ran, None for a tool without actions; outcome says how it ended;
        alias_hit, whether it named a parameter or an action by a synonym; duration_ms is how long
        the handler ran, in milliseconds, None for a call whose handler did not answer. Every new
        combination of the first four is kept for ever, so they must be the host's own names.

        Touches memory only and never waits for the database; callable from any thread. Raises
        nothing for arguments of these types.
        """

    def record_success(self, tool_name: str) -> None:
        """Record a successful call of a tool.

        It ends the tool's run of errors, and a disablement at once. Touches memory only and never
        waits for the database; callable from any thread. Raises nothing for a text.
        """

    def record_error(self, tool_name: str, error: str) -> None:
        """Record a failed call of a tool; it may disable the tool.

        error is the message, a text, of which the first 500 characters are kept. The tool is
        disabled, from now on, when its run of errors reaches the setting disable_after_errors.
        Touches memory only and never waits for the database; callable from any thread.

        For a hashable name and a text it raises only what reading and comparing the setting raise.
        An exception object in the place of its text is a TypeError: the counts are up by then, but
        the tool is neither disabled nor marked for the next flush.
        """

    @property
    def cooldown_s(self) -> float:
        """Seconds a disabled tool stays disabled."""

    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]:
        """Whether a tool is disabled, with its last error if so.

        (True, last error) means that the call is to be refused, else (False, None). The first
        question after the cooldown re-enables the tool and answers (False, None). An unknown tool
        is not disabled. Touches memory only and never waits for the database; callable from any
        thread. For a hashable name it raises only what reading and comparing the setting
        disable_cooldown_s raise.
        """

    def get_health_summary(self) -> list[SummaryRecord]:
        """Get health summary for all tracked tools.

        One new dict per tool, the most errors first, then the most calls: tool_name (str),
        call_count and error_count (int), last_error (str, None before the first error), disabled
        (bool), disabled_at (str, None while the tool is enabled), updated_at (str) and usage (list
        of dicts, see _usage_rows). Times are UTC text, "2023-11-14 22:13:20"; updated_at is that of
        1970 for a tool known from its usage counts alone. All of it describes one instant:
        recording waits while it is built. Callable from any thread; touches no database.

        Raises what is_slow_call raises, and the error of a time outside the years 1 to 9999.
        """

    def _usage_rows(self, tool_name: str) -> list[UsageRow]:
        """A tool's usage counts as ``perf_stats`` shows them, most calls first (under the lock).

        One new dict per action, outcome and synonym use: action (str, None for a tool without
        actions), outcome (str), alias_hit (bool), calls (int), avg_ms (float: the mean handler time
        in milliseconds; None without a timed call) and slow (bool: what is_slow_call answers). The
        caller holds the lock; this does not take it. Raises what is_slow_call raises.
        """

    @property
    def has_unsaved_changes(self) -> bool:
        """Whether flush has anything to write.

        Touches memory only and never waits for the database; callable from any thread.
        """

    def flush(self) -> int:
        """Write what changed to the database, and return the number of rows written (blocking).

        That is the changed tools, plus all usage entries when any usage count changed. An Exception
        of a write is raised as it is, and what was to be written stays pending; after anything else,
        such as KeyboardInterrupt, it is written only once it changes again. Call it from a thread
        that may wait, one flush at a time; recording goes on meanwhile.
        """

    def _flush_usage(self) -> int:
        """Write the usage document when it changed (blocking).

        Returns how many entries the document holds, 0 when nothing was written. An Exception of the
        write marks the document as changed again and is raised.
        """

    def _flush_health(self) -> int:
        """Write the changed health rows in one batch (blocking).

        Returns how many were written. An Exception of the write marks them as changed again and is
        raised.
        """

def handle_get_tool_performance_stats() -> dict[str, Any]:
    """Get performance metrics for all tools.

    {"tools": [...]}: for each tool its name, count, avg_ms, p95_ms, min_ms, max_ms and errors
    (times in milliseconds), as the timing collector gives them and in its order. Callable from
    any thread. Raises KeyError for a record that lacks one of them.
    """

def thread_census_report(budget: int, census: ThreadCensus | None = None) -> dict[str, Any]:
    """The process's threads for a status answer, measured against what its pools allow.

    budget is the most threads that the pools allow; census is a census taken already, None takes
    one now (blocking: it asks the operating system). A new dict: os (left out where the operating
    system's count is missing), python, python_by_name, budget, and a warning only when the first
    of the two counts that is there is above the budget. Callable from any thread; raises what
    thread_census raises.
    """
