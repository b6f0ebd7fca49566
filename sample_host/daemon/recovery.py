"""After a cooldown one call goes first."""

from collections.abc import Generator
from contextlib import contextmanager

from ..tool_handlers.health import ToolHealthTracker


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
        records = tracker.get_health_summary()  # the history may hold disabled tools
        self._failing = {record["tool_name"] for record in records if record["disabled"]}
        self._probed: set[str] = set()  # of those, the ones that a call is trying now

    @contextmanager
    def admit(self, tool: str) -> Generator[Admission]:
        """A block that is the call. Raises Refused for one that is not let in."""
        disabled, last_error = self._tracker.is_disabled(tool)
        if disabled:
            raise Refused(
                f"{tool} is disabled because it kept failing; its last error was:"
                f" {last_error or 'unknown'}. Calling it again now is useless: every call is"
                f" refused until it is tried again, in {self._tracker.cooldown_s:g} s at most.")
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
            if self._tracker.is_disabled(tool)[0]:
                self._failing.add(tool)
