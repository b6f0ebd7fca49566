"""The threads of this process."""

import os
import re
import threading
from collections import Counter
from dataclasses import dataclass


@dataclass(frozen=True)
class ThreadCensus:
    os_threads: int | None
    """The operating system's count, which sees threads unknown to Python too; None where it cannot be had."""
    python_total: int
    python_threads: dict[str, int]
    """Python's threads by name prefix: the name without the number at its end, so a pool is one entry."""


def thread_census() -> ThreadCensus:
    """Count the threads as they are now. Reads /proc, so it may block."""
    prefixes = Counter(re.sub(r"[-_]?\d+$", "", thread.name) for thread in threading.enumerate())
    return ThreadCensus(_os_threads(), prefixes.total(), dict(prefixes))


def _os_threads() -> int | None:
    try:
        return len(os.listdir("/proc/self/task"))
    except OSError:
        return None
