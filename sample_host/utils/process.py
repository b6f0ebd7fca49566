"""The threads of this process."""

import os
import re
import threading
from collections import Counter
from dataclasses import dataclass


@dataclass(frozen=True)
class ThreadCensus:
    os_threads: int | None  # with those unknown to Python; None where the system does not count
    python_total: int
    python_threads: dict[str, int]  # by name without the number at its end: a pool is one entry


def thread_census() -> ThreadCensus:
    """Count the threads as they are now. Reads /proc, so it may block."""
    prefixes = Counter(re.sub(r"[-_]?\d+$", "", thread.name) for thread in threading.enumerate())
    return ThreadCensus(_os_threads(), prefixes.total(), dict(prefixes))


def _os_threads() -> int | None:
    try:
        return len(os.listdir("/proc/self/task"))
    except OSError:
        return None
