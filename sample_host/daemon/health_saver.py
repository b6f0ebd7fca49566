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
        self._tracker = tracker
        self._thread = thread
        self._count = count
        self._file = file
        self._saved = 0  # of the calls that were counted

    async def run(self, every_s: float) -> None:
        """Save every so many seconds, until the task is cancelled."""
        told = ""  # the error that was logged last, so that it is not logged every few seconds
        while True:
            await asyncio.sleep(every_s)
            if not self._tracker.has_unsaved_changes:
                continue
            if (error := await self._save()) and error != told:
                logger.warning("Could not save to %s what stays to be saved: %s", self._file, error)
            told = error

    async def save_at_the_end(self) -> bool:
        """Save once more, after a save that is still running; false when what is left is lost."""
        if error := await self._save():
            lost = self._count() - self._saved
            logger.error("The counts of the last %d calls are lost, not saved to %s: %s",
                         lost, self._file, error)
        return not error

    async def _save(self) -> str:
        """Save what changed: the error's text, or an empty one."""
        counted = self._count()
        try:
            await asyncio.get_running_loop().run_in_executor(self._thread, self._tracker.flush)
        except Exception as error:
            return str(error)
        self._saved = counted
        return ""
