"""When the work for a call has to end."""

import math
import time
from typing import Self


class Stopped(Exception):
    """The call's time is up, or nobody waits for it any more."""


# Looked at by the handler itself, between files and between blocks of lines: nothing else ends a
# thread in the middle of its work. So a handler must not start what it cannot leave, such as a
# regular expression of an agent's, which may backtrack without end. Any thread may cancel.
class Deadline:
    """So many seconds from the start of the work on; time spent in a queue does not count."""

    def __init__(self, limit_s: float) -> None:
        self._limit_s = limit_s
        self._ends_at = math.inf
        self._cancelled = False

    def start(self) -> Self:
        self._ends_at = time.monotonic() + self._limit_s
        return self

    def cancel(self) -> None:
        self._cancelled = True

    def check(self) -> None:
        """Raise Stopped when the work has to end."""
        if self._cancelled:
            raise Stopped("cancelled")
        if time.monotonic() > self._ends_at:
            raise Stopped(f"stopped after {self._limit_s:g} s")
