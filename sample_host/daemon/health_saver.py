"""Writing the health history to the database, beside the event loop."""

import asyncio
import logging
from collections.abc import Callable
from concurrent.futures import Executor
from pathlib import Path

from ..tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class HealthSaver:
    """Saves what the tracker counts, again and again, and once more at the end.

    `thread` is an executor with a single thread, so that no two flushes overlap. One that fails, at
    a locked database say, loses nothing: the tracker keeps its changes marked, and the next flush
    writes them. `count` tells how many calls were counted so far, and `file` is named where saving
    fails.
    """

    def __init__(self, tracker: ToolHealthTracker, thread: Executor, count: Callable[[], int],
                 file: Path) -> None:
        self._tracker, self._thread, self._count, self._file = tracker, thread, count, file
        self._saved = 0  # of the calls that were counted
        self.last_error: Exception | None = None

    async def run(self, every_s: float) -> None:
        """Save every so many seconds, until the task is cancelled."""
        while True:
            await asyncio.sleep(every_s)
            if self._tracker.has_unsaved_changes:
                told, error = self.last_error, await self.save()
                if error is not None and repr(error) != repr(told):  # not again every few seconds
                    logger.warning("Could not save to %s what stays to be saved: %s",
                                   self._file, error)

    async def save_at_the_end(self, limit_s: float | None = None) -> bool:
        """Save once more, after a save that is still running; false when what is left is lost."""
        try:
            error = await asyncio.wait_for(self.save(), limit_s)
        except TimeoutError:
            error = TimeoutError(f"no answer in {limit_s} s")
        if error is not None:
            lost = self._count() - self._saved
            logger.error("The counts of the last %d calls are lost, not saved to %s: %s",
                         lost, self._file, str(error) or repr(error))
        return error is None

    async def save(self) -> Exception | None:
        """Save what changed: the error, if there is one."""
        counted = self._count()
        try:
            await asyncio.get_running_loop().run_in_executor(self._thread, self._tracker.flush)
        except Exception as error:
            self.last_error = error
        else:
            self._saved, self.last_error = counted, None
        return self.last_error
