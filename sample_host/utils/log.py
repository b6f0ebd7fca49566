"""The log, written to standard error by a thread of its own."""

import logging
import logging.handlers
import queue
import threading
import time

# Those that wait for whoever reads them; further ones are dropped.
_lines: queue.Queue[logging.LogRecord] = queue.Queue(1000)


class _Handler(logging.handlers.QueueHandler):
    def handleError(self, record: logging.LogRecord) -> None:
        """Drop the line: a reader that does not read must not stop the event loop."""


def start_log() -> None:
    """Let nothing that logs wait for standard error."""
    target = logging.StreamHandler()
    target.setFormatter(logging.Formatter("%(asctime)s %(levelname)s %(name)s: %(message)s"))
    root = logging.getLogger()
    root.addHandler(_Handler(_lines))  # basicConfig would give it a format too: names told twice
    root.setLevel(logging.INFO)

    def write() -> None:
        while True:
            target.handle(_lines.get())
            _lines.task_done()

    threading.Thread(target=write, daemon=True, name="log").start()


def finish_log(wait_s: float) -> None:
    """Give the log so long to be written. Blocks."""
    ends_at = time.monotonic() + wait_s
    while _lines.unfinished_tasks and time.monotonic() < ends_at:
        time.sleep(0.01)
