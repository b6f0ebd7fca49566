"""The sample host with another tracker.

``plain`` has the module's twin in plain Python; ``write_through`` is as it would be without memory:
each report is written to the database at once.
"""

import contextlib
import importlib.util
import sqlite3
import sys
from pathlib import Path

NAME = "sample_host.tool_handlers.health"


def load_plain():
    """Put the twin where the sample host looks for the module."""
    file = Path(__file__).with_name("plain.py")
    spec = importlib.util.spec_from_file_location(NAME, file)
    module = sys.modules[NAME] = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)


def write_through(tracker_class):
    """A tracker that flushes on the thread that reports; where the database is locked, in vain."""
    class WriteThrough(tracker_class):
        def _write(self):
            with contextlib.suppress(sqlite3.OperationalError):
                self.flush()

        def record_call(self, *args, **named):
            super().record_call(*args, **named)
            self._write()

        def record_success(self, tool_name):
            super().record_success(tool_name)
            self._write()

    return WriteThrough


if __name__ == "__main__":
    kind = sys.argv.pop(1)
    if kind == "plain":
        load_plain()
    from sample_host import __main__ as daemon
    if kind == "write_through":
        daemon.ToolHealthTracker = write_through(daemon.ToolHealthTracker)
    daemon.main()
