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
    timed: int = 0
    total_ms: float = 0.0
    min_ms: float = 0.0
    max_ms: float = 0.0
    recent_ms: deque[float] = field(default_factory=lambda: deque(maxlen=_RECENT_CALLS))

    def stats(self) -> dict[str, Any]:
        avg_ms, recent_ms = self.total_ms / max(self.timed, 1), sorted(self.recent_ms) or [0.0]
        p95_ms = recent_ms[math.ceil(0.95 * len(recent_ms)) - 1]
        times = dict(avg_ms=avg_ms, p95_ms=p95_ms, min_ms=self.min_ms, max_ms=self.max_ms)
        times = {name: round(ms, 3) for name, ms in times.items()}
        return {"count": self.count, **times, "errors": self.errors}


class TimingCollector:
    """Times of calls by tool. Any thread may call; memory only."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._tools: dict[str, _ToolTimes] = {}

    def record(self, tool: str, duration_ms: float | None, *, failed: bool) -> None:
        """Count a call; with None, one whose handler did not come to its end."""
        with self._lock:
            times = self._tools.setdefault(tool, _ToolTimes())
            times.count += 1
            times.errors += failed
            if duration_ms is not None:
                times.min_ms = min(times.min_ms, duration_ms) if times.timed else duration_ms
                times.max_ms = max(times.max_ms, duration_ms)
                times.timed += 1
                times.total_ms += duration_ms
                times.recent_ms.append(duration_ms)

    def get_all_stats(self) -> list[dict[str, Any]]:
        """One record per tool, in the order of their first calls; times in milliseconds."""
        with self._lock:
            return [{"name": name, **times.stats()} for name, times in self._tools.items()]


_collector = TimingCollector()


def get_timing_collector() -> TimingCollector:
    """The collector of this process."""
    return _collector
