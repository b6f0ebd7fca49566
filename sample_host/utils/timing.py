"""How long the tools take: statistics since the process started, kept in memory."""

import math
import threading
from collections import deque
from dataclasses import dataclass, field
from typing import Any

_RECENT_CALLS = 1000  # of a tool, whose 95th percentile is taken; this bounds the memory


@dataclass
class _ToolTimes:
    count: int = 0
    errors: int = 0
    total_ms: float = 0.0
    min_ms: float = math.inf
    max_ms: float = 0.0
    recent_ms: deque[float] = field(default_factory=lambda: deque(maxlen=_RECENT_CALLS))

    def stats(self) -> dict[str, Any]:
        p95_ms = sorted(self.recent_ms)[math.ceil(0.95 * len(self.recent_ms)) - 1]
        return {
            "count": self.count,
            "avg_ms": round(self.total_ms / self.count, 3),
            "p95_ms": round(p95_ms, 3),
            "min_ms": round(self.min_ms, 3),
            "max_ms": round(self.max_ms, 3),
            "errors": self.errors,
        }


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
            return [{"name": name, **times.stats()} for name, times in self._tools.items()]


_collector = TimingCollector()


def get_timing_collector() -> TimingCollector:
    """The collector of this process."""
    return _collector
