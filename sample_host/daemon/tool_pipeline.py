"""The guarded call: what every tool call goes through."""

import logging
import time
from collections.abc import Callable, Mapping
from enum import Enum
from typing import Any

from ..tool_handlers.health import ToolHealthTracker
from ..tool_schemas import BadArguments, resolve_call
from ..utils.text import valid_unicode
from ..utils.time_limit import time_limit
from ..utils.timing import get_timing_collector

TIME_LIMIT_S = 5.0
"""The longest that a handler may run."""

logger = logging.getLogger(__name__)


class Outcome(Enum):
    """How a call ended. The values are what the calls are counted under, in memory and in the database."""

    OK = "ok"
    FAILED = "failed"  # the tool's fault: so many in a row disable it
    BAD_ARGUMENTS = "bad_arguments"  # the agent's fault: counted, but never held against the tool
    REFUSED = "refused"  # the tool is disabled, so it did not run


class ToolPipeline:
    """Runs tools by name. Asks the tracker before each call and tells it afterwards how the call ended."""

    def __init__(self, tracker: ToolHealthTracker, handlers: Mapping[str, Callable[..., Any]]) -> None:
        self._tracker = tracker
        self._handlers = handlers

    def call(self, tool: str, arguments: dict[str, Any]) -> tuple[Outcome, Any]:
        """Run one call of a tool: how it ended, and the handler's answer or what to tell the agent instead.

        `tool` must be a name of the registry, never an agent's own text: it becomes a key of counts that are
        kept for ever. Blocks while the handler runs, up to TIME_LIMIT_S; all else touches memory only. For
        the main thread, because of the time limit.
        """
        # The first question after a cooldown enables the tool again for every caller. Here calls come one at
        # a time; a host that runs many at once may want to let one through first.
        disabled, last_error = self._tracker.is_disabled(tool)
        if disabled:
            self._tracker.record_call(tool, None, Outcome.REFUSED.value, alias_hit=False, duration_ms=None)
            return Outcome.REFUSED, self._refusal(tool, last_error)

        action, alias_hit = None, False
        started = time.perf_counter()
        try:
            call = resolve_call(tool, arguments)
            action, alias_hit = call.action, call.alias_hit
            with time_limit(TIME_LIMIT_S):
                content = self._handlers[tool](**call.parameters)
        except BadArguments as error:
            # No error of the tool: one confused agent must not disable it for everybody.
            outcome, content = Outcome.BAD_ARGUMENTS, f"Bad arguments: {error}"
        except Exception as error:
            outcome, content = Outcome.FAILED, valid_unicode(f"{type(error).__name__}: {error}")
            self._tracker.record_error(tool, content)
            logger.warning("%s failed: %s", tool, content)
        else:
            outcome = Outcome.OK
            self._tracker.record_success(tool)
        duration_ms = (time.perf_counter() - started) * 1000

        answered = outcome is Outcome.OK
        self._tracker.record_call(
            tool, action, outcome.value, alias_hit=alias_hit, duration_ms=duration_ms if answered else None
        )
        if outcome is not Outcome.BAD_ARGUMENTS:
            get_timing_collector().record(tool, duration_ms, failed=not answered)
        return outcome, content

    def _refusal(self, tool: str, last_error: str | None) -> str:
        return (
            f"{tool} is disabled because it kept failing; its last error was: {last_error or 'unknown'}."
            " Calling it again now is useless: every call is refused until it is tried again, in"
            f" {self._tracker.cooldown_s:g} s at the latest."
        )
