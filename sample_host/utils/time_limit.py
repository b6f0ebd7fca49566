"""A time limit for work that an agent asked for."""

import signal
from collections.abc import Iterator
from contextlib import contextmanager


class TimeLimitExceeded(Exception):
    """The time is up. No OSError, so that nobody takes it for a file that cannot be read."""


@contextmanager
def time_limit(seconds: float) -> Iterator[None]:
    """Raise TimeLimitExceeded inside the block when it has run for `seconds`.

    For the main thread only, because it works by a signal: nothing else in the process stops a regular
    expression that backtracks without end, since matching lets no other thread run. A host whose tools run in
    other threads has to search in a child process instead.
    """

    def stop(*_: object) -> None:
        raise TimeLimitExceeded(f"stopped after {seconds:g} s")

    signal.signal(signal.SIGALRM, stop)
    signal.setitimer(signal.ITIMER_REAL, seconds)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
