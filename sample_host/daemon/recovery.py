"""After a cooldown one call goes first."""

import logging
import time
from collections.abc import Generator
from contextlib import contextmanager
from datetime import datetime

from ..tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class Refused(Exception):
    """The call is not let in, for the reason that it says to the agent."""


class Admission:
    """A call that was let in, and says how it ended."""

    succeeded = False


# The tracker enables a tool for everybody at the first question after its cooldown, and all that
# wait would come at once. For one thread: the event loop's.
class Recovery:
    """Lets the calls of a tool that was disabled in one at a time, until one of those succeeds."""

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        # The tools that are disabled, and since when; the history may hold some.
        self._since = {
            it["tool_name"]: datetime.fromisoformat(f"{it['disabled_at']}Z").timestamp()
            for it in tracker.get_health_summary() if it["disabled_at"] is not None}
        self._failing = set(self._since)  # those that no call has succeeded with since
        self._probed: set[str] = set()  # of those, the ones that a call is trying now

    @contextmanager
    def admit(self, tool: str) -> Generator[Admission]:
        """A block that is the call. Raises Refused for one that is not let in."""
        disabled, last_error = self._tracker.is_disabled(tool)
        if disabled:
            left_s = self._since.get(tool, time.time()) + self._tracker.cooldown_s - time.time()
            raise Refused(
                f"{tool} is disabled because it kept failing; its last error was:"
                f" {last_error or 'unknown'}. Calling it again now is useless: every call is"
                f" refused until it is tried again, in {max(left_s, 0):.0f} s.")
        self._since.pop(tool, None)
        if tool in self._probed:
            raise Refused(f"{tool} kept failing, and another call is trying it now. Ask later.")
        admission = Admission()
        is_probe = tool in self._failing
        if is_probe:
            self._probed.add(tool)
        try:
            yield admission
        finally:  # whether it ended or was cancelled: it is the next one's turn
            if is_probe:  # the late end of a call from before says nothing of the tool now
                self._probed.discard(tool)
                if admission.succeeded:
                    self._failing.discard(tool)
                    logger.warning("%s is enabled: a call of it has succeeded", tool)
            self._look(tool)

    def _look(self, tool: str) -> None:
        disabled, error = self._tracker.is_disabled(tool)
        if disabled:
            if tool not in self._since:
                ends_at = time.localtime(time.time() + self._tracker.cooldown_s)
                logger.warning("%s is disabled after %d failures in a row, until %s: %s", tool,
                               self._tracker.limits.disable_after_errors,
                               time.strftime("%H:%M:%S", ends_at), error)
            self._since[tool] = time.time()
            self._failing.add(tool)
