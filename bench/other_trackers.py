"""The sample host with another tracker.

``plain`` has the module's twin in plain Python; ``write_through`` is as it would be without memory:
each report is written to the database at once.
"""

import contextlib
import importlib
import importlib.util
import sqlite3
import sys
from pathlib import Path

NAME = "sample_host.tool_handlers.health"


def plain():
    """The twin, where the sample host looks for the module."""
    spec = importlib.util.spec_from_file_location(NAME, Path(__file__).with_name("plain.py"))
    module = sys.modules[NAME] = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    importlib.import_module("sample_host.tool_handlers").health = module


def write_through():
    """A tracker that flushes on the thread that reports; where the database is locked, in vain."""
    health = importlib.import_module(NAME)

    class WriteThrough(health.ToolHealthTracker):
        def _write(self):
            with contextlib.suppress(sqlite3.OperationalError):
                self.flush()

        def record_call(self, *args, **named):
            super().record_call(*args, **named)
            self._write()

        def record_success(self, tool_name):
            super().record_success(tool_name)
            self._write()

    health.ToolHealthTracker = WriteThrough


if __name__ == "__main__":
    globals()[sys.argv.pop(1)]()
    from sample_host.__main__ import main
    main()
