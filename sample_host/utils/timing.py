"""How long the tools take: statistics since the process started, kept in memory."""

import math
import threading
from collections import deque
from typing import Any

_RECENT_CALLS = 1000
"""The 95th percentile is that of so many latest calls of a tool, which bounds the memory."""


class _ToolTimes:
    def __init__(self) -> None:
        self.count = 0
        self.errors = 0
        self.total_ms = 0.0
        self.min_ms = math.inf
        self.max_ms = 0.0
        self.recent_ms: deque[float] = deque(maxlen=_RECENT_CALLS)


class TimingCollector:
    """Times of calls by tool. Any thread may call; memory only."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._tools: dict[str, _ToolTimes] = {}

    def record(self, tool: str, duration_ms: float, *, failed: bool) -> None:
        with self._lock:
            times = self._tools.setdefault(tool, _ToolTimes())
            times.count += 1
            times.errors += failed
            times.total_ms += duration_ms
            times.min_ms = min(times.min_ms, duration_ms)
            times.max_ms = max(times.max_ms, duration_ms)
            times.recent_ms.append(duration_ms)

    def get_all_stats(self) -> list[dict[str, Any]]:
        """One record per tool, in the order of their first calls; times in milliseconds."""
        with self._lock:
            return [
                {
                    "name": name,
                    "count": times.count,
                    "avg_ms": times.total_ms / times.count,
                    "p95_ms": sorted(times.recent_ms)[math.ceil(0.95 * len(times.recent_ms)) - 1],
                    "min_ms": times.min_ms,
                    "max_ms": times.max_ms,
                    "errors": times.errors,
                }
                for name, times in self._tools.items()
            ]


_collector = TimingCollector()


def get_timing_collector() -> TimingCollector:
    """The collector of this process."""
    return _collector
