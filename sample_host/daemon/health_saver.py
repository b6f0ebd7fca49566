"""The thread that writes the health history to the database."""

import logging
import threading

from ..tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class HealthSaver:
    """A context in which what the tracker counts is saved every `every_s` seconds, and once more at its end.

    All flushes run in this one thread, so that no two of them overlap. One that fails, at a locked database
    say, loses nothing: the tracker keeps its changes marked, and the next flush writes them.
    """

    def __init__(self, tracker: ToolHealthTracker, every_s: float) -> None:
        self._tracker = tracker
        self._every_s = every_s
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="health-saver")

    def __enter__(self) -> None:
        self._thread.start()

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join()

    def _run(self) -> None:
        while not self._stop.wait(self._every_s):
            self._save()
        self._save()

    def _save(self) -> None:
        try:
            if self._tracker.has_unsaved_changes:
                self._tracker.flush()
        except Exception as error:
            logger.warning("Could not save the tool health, which stays to be saved: %s", error)
