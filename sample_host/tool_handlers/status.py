"""The ``status`` tool."""

from typing import Any

from ..config import THREAD_BUDGET
from .health import ToolHealthTracker, thread_census_report


def status(tracker: ToolHealthTracker, server: dict[str, Any]) -> dict[str, Any]:
    """The server, every tool's health, the worst first, and the threads. Reads /proc: may block."""
    return {
        "server": {**server, "cooldown_s": tracker.cooldown_s},
        "perf_stats": tracker.get_health_summary(),
        "has_unsaved_changes": tracker.has_unsaved_changes,
        "threads": thread_census_report(THREAD_BUDGET),
    }
