"""The sample host as it would be without memory: each report is written to the database at once."""

import contextlib
import sqlite3

from sample_host import __main__ as daemon


class WriteThrough(daemon.ToolHealthTracker):
    """Flushes after every report, on the thread that makes it; where the database is locked, in
    vain.
    """

    def _write(self):
        with contextlib.suppress(sqlite3.OperationalError):
            self.flush()

    def record_call(self, *args, **named):
        super().record_call(*args, **named)
        self._write()

    def record_success(self, tool_name):
        super().record_success(tool_name)
        self._write()


if __name__ == "__main__":
    daemon.ToolHealthTracker = WriteThrough
    daemon.main()
