"""The ``status`` tool."""

from typing import Any

from ..config import THREAD_BUDGET
from .health import ToolHealthTracker, thread_census_report


def status(tracker: ToolHealthTracker) -> dict[str, Any]:
    """Every tool's health, the worst first, and the threads. Reads /proc, so it may block."""
    return {
        "perf_stats": tracker.get_health_summary(),
        "has_unsaved_changes": tracker.has_unsaved_changes,
        "threads": thread_census_report(THREAD_BUDGET),
    }
