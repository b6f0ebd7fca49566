"""The host's settings."""

from dataclasses import dataclass

WORKERS = 4  # threads that run the tools' handlers, and searches that may run at once
MAX_QUEUED = 64  # calls that may wait for one of them; the next one is told that the server is busy
MAX_STUCK = 16  # threads that may be stuck in a handler before no further one is started
TIME_LIMIT_S = 5.0  # from a call's arrival to its answer
GRACE_S = 2.0  # what running calls are given to end after a signal
LAST_SAVE_S = 3.0  # and the last save, after that
# The event loop, standard input and output, the log, the workers, the status tools, the database.
THREAD_BUDGET = 1 + 2 + 1 + WORKERS + 1 + 1


# The ``tools`` section. The tracker reads both at every use: a change takes effect at the next
# call.
@dataclass
class ToolsConfig:
    disable_after_errors: int = 3  # so many failures in a row disable a tool
    disable_cooldown_s: float = 300.0  # from the latest failure until the tool is tried again
