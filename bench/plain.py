"""The same operations in plain Python: what the benchmark measures against and what the tests
compare with.

Loaded under the name ``<host package>.tool_handlers.health``, in the place of the extension module.
"""

from __future__ import annotations

import json
import logging
import threading
import time
from dataclasses import dataclass
from datetime import datetime, timezone
from typing import TYPE_CHECKING, Any  # noqa: F401  (a name of the module)

from ..config import ToolsConfig
from ..tool_registry import TOOLS
from ..tool_schemas import is_slow_call
from ..utils.process import ThreadCensus, thread_census
from ..utils.timing import get_timing_collector

logger = logging.getLogger(__name__)

_SQLITE_TIMESTAMP = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
TOOL_USAGE_KEY = "tool_usage"
_UsageKey = tuple[str, str | None, str, bool]


def _sqlite_time(epoch: float | None) -> str | None:
    if epoch is None:
        return None
    return datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)


def _epoch(text: str | None) -> float | None:
    if not text:
        return None
    try:
        return datetime.strptime(text, _SQLITE_TIMESTAMP).replace(tzinfo=timezone.utc).timestamp()
    except ValueError:
        return None


@dataclass(slots=True)
class _ToolState:
    call_count: int = 0
    error_count: int = 0
    last_error: str | None = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0


@dataclass(slots=True)
class _Usage:
    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0


def _known(tool: str, action: str | None) -> bool:
    spec = TOOLS.get(tool)
    if spec is None:
        return False
    if action is None:
        return True
    return spec.action(action) is not None


class ToolHealthTracker:
    def __init__(
        self, repository: Repository, limits: ToolsConfig | None = None  # noqa: F821
    ) -> None:
        self._repo = repository
        self._limits = limits if limits is not None else ToolsConfig()
        self._lock = threading.Lock()
        self._state: dict[str, _ToolState] = {}
        self._dirty: set[str] = set()
        self._usage: dict[_UsageKey, _Usage] = {}
        self._usage_dirty = False
        self._load()
        self._load_usage()

    @property
    def limits(self) -> ToolsConfig:
        return self._limits

    def _load(self) -> None:
        try:
            rows = list(self._repo.db.fetchall(f"SELECT {_TOOL_HEALTH_COLUMNS} FROM tool_health"))
            removed = []
            for row in rows:
                name = row[0]
                if TOOLS.get(name) is None:
                    removed.append((name,))
            if removed:
                self._repo.db.executemany("DELETE FROM tool_health WHERE tool_name = ?", removed)
        except Exception as error:
            logger.warning("Could not read the tool health history: %s", error)
            return
        with self._lock:
            for name, calls, errors, last_error, disabled_at, updated_at in rows:
                if TOOLS.get(name) is None:
                    continue
                self._state[name] = _ToolState(
                    call_count=int(calls or 0),
                    error_count=int(errors or 0),
                    last_error=last_error,
                    disabled_at=_epoch(disabled_at),
                    updated_at=_epoch(updated_at) or 0.0,
                )

    def _load_usage(self) -> None:
        try:
            row = self._repo.db.fetchone(
                "SELECT value FROM schema_info WHERE key = ?", (TOOL_USAGE_KEY,))
            saved = []
            if row is not None:
                value = row[0]
                if isinstance(value, str):
                    saved = json.loads(value)
            loaded = {}
            for item in saved:
                key = (str(item["tool"]), item["action"], str(item["outcome"]),
                       bool(item["alias_hit"]))
                loaded[key] = _Usage(
                    int(item["calls"]), int(item["timed_calls"]), float(item["total_ms"]))
        except Exception as error:
            logger.warning("Could not read the tool usage counts: %s", error)
            return
        kept = {key: usage for key, usage in loaded.items() if _known(key[0], key[1])}
        with self._lock:
            self._usage.update(kept)
            self._usage_dirty = len(kept) != len(loaded)

    def record_call(
        self, tool_name: str, action: str | None, outcome: str,
        *, alias_hit: bool, duration_ms: float | None
    ) -> None:
        with self._lock:
            key = (tool_name, action, outcome, alias_hit)
            usage = self._usage.get(key)
            if usage is None:
                usage = self._usage[key] = _Usage()
            usage.calls += 1
            if duration_ms is not None:
                usage.timed_calls += 1
                usage.total_ms += duration_ms
            self._usage_dirty = True

    def record_success(self, tool_name: str) -> None:
        with self._lock:
            state = self._state.get(tool_name)
            if state is None:
                state = self._state[tool_name] = _ToolState()
            state.call_count += 1
            state.consecutive_errors = 0
            state.disabled_at = None
            state.updated_at = time.time()
            self._dirty.add(tool_name)

    def record_error(self, tool_name: str, error: str) -> None:
        with self._lock:
            state = self._state.get(tool_name)
            if state is None:
                state = self._state[tool_name] = _ToolState()
            state.call_count += 1
            state.error_count += 1
            state.consecutive_errors += 1
            state.last_error = error[:500] if error else ""
            state.updated_at = time.time()
            if state.consecutive_errors >= self._limits.disable_after_errors:
                state.disabled_at = state.updated_at
            self._dirty.add(tool_name)

    @property
    def cooldown_s(self) -> float:
        return self._limits.disable_cooldown_s

    def is_disabled(self, tool_name: str) -> tuple[bool, str | None]:
        with self._lock:
            state = self._state.get(tool_name)
            if state is None or state.disabled_at is None:
                return False, None
            now = time.time()
            if now - state.disabled_at >= self.cooldown_s:
                state.consecutive_errors = 0
                state.disabled_at = None
                state.updated_at = now
                self._dirty.add(tool_name)
                return False, None
            return True, state.last_error

    def get_health_summary(self) -> list[dict[str, Any]]:
        with self._lock:
            names = list(self._state)
            names.extend(key[0] for key in self._usage)
            ranked = []
            for name in dict.fromkeys(names):
                state = self._state.get(name)
                ranked.append((name, _ToolState() if state is None else state))
            ranked.sort(key=lambda pair: (-pair[1].error_count, -pair[1].call_count))
            return [
                {
                    "tool_name": name,
                    "call_count": state.call_count,
                    "error_count": state.error_count,
                    "last_error": state.last_error,
                    "disabled": state.disabled_at is not None,
                    "disabled_at": _sqlite_time(state.disabled_at),
                    "updated_at": _sqlite_time(state.updated_at),
                    "usage": self._usage_rows(name),
                }
                for name, state in ranked
            ]

    def _usage_rows(self, tool_name: str) -> list[dict[str, Any]]:
        rows = [
            {
                "action": action,
                "outcome": outcome,
                "alias_hit": alias_hit,
                "calls": usage.calls,
                "avg_ms":
                    round(usage.total_ms / usage.timed_calls, 2) if usage.timed_calls else None,
                "slow": is_slow_call(tool_name, action),
            }
            for (tool, action, outcome, alias_hit), usage in self._usage.items()
            if tool == tool_name
        ]
        rows.sort(key=lambda row: (
            -row["calls"], str(row["action"]), row["outcome"], row["alias_hit"]))
        return rows

    @property
    def has_unsaved_changes(self) -> bool:
        with self._lock:
            return bool(self._dirty) or self._usage_dirty

    def flush(self) -> int:
        written = self._flush_health()
        return written + self._flush_usage()

    def _flush_usage(self) -> int:
        with self._lock:
            if not self._usage_dirty:
                return 0
            self._usage_dirty = False
            saved = [
                {
                    "tool": tool,
                    "action": action,
                    "outcome": outcome,
                    "alias_hit": alias_hit,
                    "calls": usage.calls,
                    "timed_calls": usage.timed_calls,
                    "total_ms": round(usage.total_ms, 3),
                }
                for (tool, action, outcome, alias_hit), usage in self._usage.items()
            ]
        try:
            document = json.dumps(saved, separators=(",", ":"))
            self._repo.db.execute(
                "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)",
                (TOOL_USAGE_KEY, document))
        except Exception:
            with self._lock:
                self._usage_dirty = True
            raise
        return len(saved)

    def _flush_health(self) -> int:
        with self._lock:
            names = sorted(self._dirty)
            self._dirty.clear()
            rows = [
                (
                    name,
                    state.call_count,
                    state.error_count,
                    state.last_error,
                    _sqlite_time(state.disabled_at),
                    _sqlite_time(state.updated_at),
                )
                for name in names
                if (state := self._state.get(name)) is not None
            ]
        if not rows:
            return 0
        try:
            self._repo.db.executemany(
                f"""INSERT INTO tool_health ({_TOOL_HEALTH_COLUMNS})
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at""",
                rows,
            )
        except Exception:
            with self._lock:
                self._dirty.update(names)
            raise
        return len(rows)


def handle_get_tool_performance_stats() -> dict[str, Any]:
    fields = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors")
    return {"tools": [
        {field: stats[field] for field in fields}
        for stats in get_timing_collector().get_all_stats()]}


def thread_census_report(budget: int, census: ThreadCensus | None = None) -> dict[str, Any]:
    if census is None:
        census = thread_census()
    report: dict[str, Any] = {}
    counted = census.os_threads
    if counted is not None:
        report["os"] = counted
    report["python"] = census.python_total
    report["python_by_name"] = dict(census.python_threads)
    report["budget"] = budget
    if counted is None:
        counted = report["python"]
    if counted > budget:
        report["warning"] = (
            f"The process holds {counted} threads, more than the {budget} its pools allow:"
            " threads are piling up. A thread that ran the local embedding model keeps a team of"
            " torch threads, as many as KAVRIN_EMBED_THREADS allows (0 leaves torch's own size)."
        )
    return report
