"""The host's settings."""

from dataclasses import dataclass

WORKERS = 4  # threads that run the tools' handlers
MAX_QUEUED = 64  # calls that may wait for one of them; the next one is told that the server is busy
TIME_LIMIT_S = 5.0  # the longest that a handler may run
GRACE_S = 2.0  # what running calls are given to end when the server is to end
# The event loop, standard input and output, the workers, the status tools, the database.
THREAD_BUDGET = 1 + 2 + WORKERS + 1 + 1


# The ``tools`` section. The tracker reads both at every use: a change takes effect at the next
# call.
@dataclass
class ToolsConfig:
    disable_after_errors: int = 3  # so many failures in a row disable a tool
    disable_cooldown_s: float = 300.0  # from the latest failure until the tool is tried again
