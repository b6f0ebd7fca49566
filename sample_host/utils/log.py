"""The log, written to standard error by a thread of its own."""

import logging
import logging.handlers
import queue
import threading
import time

_MOST_LINES = 1000  # that may wait for whoever reads them; further ones are dropped


class _Handler(logging.handlers.QueueHandler):
    def handleError(self, record: logging.LogRecord) -> None:
        """Drop the line: a reader that does not read must not stop the event loop."""


def start_log() -> None:
    """Let nothing that logs wait for standard error."""
    lines: queue.Queue[logging.LogRecord] = queue.Queue(_MOST_LINES)
    target = logging.StreamHandler()
    target.setFormatter(logging.Formatter("%(asctime)s %(levelname)s %(name)s: %(message)s"))
    logging.basicConfig(handlers=[_Handler(lines)], level=logging.INFO)

    def write() -> None:
        while True:
            target.handle(lines.get())
            lines.task_done()

    threading.Thread(target=write, daemon=True, name="log").start()


def finish_log(wait_s: float) -> None:
    """Give the log so long to be written. Blocks."""
    handler = logging.getLogger().handlers[0]
    assert isinstance(handler, _Handler)
    ends_at = time.monotonic() + wait_s
    while handler.queue.unfinished_tasks and time.monotonic() < ends_at:
        time.sleep(0.01)
