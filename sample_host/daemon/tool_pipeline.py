"""The guarded call: what every tool call goes through."""

import asyncio
import logging
from collections import Counter
from collections.abc import Awaitable, Callable, Mapping
from enum import Enum
from typing import Any

from ..config import MAX_QUEUED, TIME_LIMIT_S, WORKERS
from ..tool_handlers.health import ToolHealthTracker
from ..tool_handlers.source_files import Unreadable
from ..tool_schemas import BadArguments, ResolvedCall, resolve_call
from ..utils.text import valid_unicode
from ..utils.timing import get_timing_collector
from .recovery import Admission, Recovery, Refused

logger = logging.getLogger(__name__)

# Given the loop's time at which the call has to have ended, and the tool's parameters, a handler
# answers with what the agent gets, its own seconds, and whether it was cut short.
Handler = Callable[..., Awaitable[tuple[Any, float, bool]]]


class Outcome(Enum):
    """How a call ended. The values are what it is counted under, in memory and in the database."""

    OK = "ok"
    CUT_SHORT = "cut_short"  # an answer, as far as time and memory went
    FAILED = "failed"  # the tool's fault: so many in a row disable it
    CALL_FAILED = "call_failed"  # this call's own: a file that cannot be read, or no time left
    BAD_ARGUMENTS = "bad_arguments"  # the agent's fault
    REFUSED = "refused"  # the tool is disabled, or another call is trying it
    OVERLOADED = "overloaded"  # too many calls wait already
    CANCELLED = "cancelled"  # its client no longer wants it
    SERVER_FAILED = "server_failed"  # a fault of this server


# For the event loop: all that the tracker is asked and told touches memory only.
class ToolPipeline:
    """Runs tools by name. Asks the tracker before each call, and tells it how that ended."""

    def __init__(self, tracker: ToolHealthTracker, handlers: Mapping[str, Handler],
                 lanes: Mapping[str, str], is_stuck: Callable[[], bool]) -> None:
        self._tracker, self._recovery = tracker, Recovery(tracker)
        self._handlers, self._is_stuck = handlers, is_stuck
        self._lanes = lanes  # by tool, the calls that it waits with
        self._running: Counter[str] = Counter()  # by lane
        self.counted = 0  # all calls so far: each is counted once, when it ends

    # `tool` must be a name of the registry, never an agent's own text: it becomes a key of counts
    # that are kept for ever. Cancelling the task cancels the call, which is then counted at once.
    async def call(self, tool: str, arguments: dict[str, Any]) -> tuple[Outcome, Any]:
        """Run one call: how it ended, and the answer or what to tell the agent instead."""
        until = asyncio.get_running_loop().time() + TIME_LIMIT_S
        call: ResolvedCall | None = None
        outcome, seconds = Outcome.SERVER_FAILED, None
        try:
            with self._recovery.admit(tool) as admission:
                call = resolve_call(tool, arguments)
                outcome, content, seconds = await self._run(tool, call, until, admission)
        except Refused as error:
            outcome, content = Outcome.REFUSED, str(error)
        except BadArguments as error:
            # No error of the tool: one confused agent must not disable it for everybody.
            outcome, content = Outcome.BAD_ARGUMENTS, f"Bad arguments: {error}"
        except asyncio.CancelledError:
            outcome = Outcome.CANCELLED
            raise
        finally:
            action, alias_hit = (call.action, call.alias_hit) if call else (None, False)
            duration_ms = None if seconds is None else seconds * 1000
            failed = outcome in (Outcome.FAILED, Outcome.CALL_FAILED)
            if failed or duration_ms is not None:
                get_timing_collector().record(tool, duration_ms, failed=failed)
            self._tracker.record_call(
                tool, action, outcome.value, alias_hit=alias_hit, duration_ms=duration_ms)
            self.counted += 1
        return outcome, content

    async def _run(self, tool: str, call: ResolvedCall, until: float,
                   admission: Admission) -> tuple[Outcome, Any, float | None]:
        lane = self._lanes.get(tool, "")
        if self._running[lane] >= WORKERS + MAX_QUEUED or self._is_stuck():
            return Outcome.OVERLOADED, "Too many calls wait already. Ask again later.", None
        self._running[lane] += 1
        try:
            content, seconds, is_cut = await self._handlers[tool](until, **call.parameters)
        except BadArguments:
            raise
        except (TimeoutError, Unreadable) as error:
            why = valid_unicode(str(error)) or f"no answer in {TIME_LIMIT_S:g} s."
            return Outcome.CALL_FAILED, f"{tool} cannot answer this call: {why}", None
        except Exception as error:
            content = valid_unicode(f"{type(error).__name__}: {error}")
            self._tracker.record_error(tool, content)
            logger.warning("%s failed: %s", tool, content)
            return Outcome.FAILED, content, None
        finally:
            self._running[lane] -= 1
        self._tracker.record_success(tool)
        admission.succeeded = True
        return Outcome.CUT_SHORT if is_cut else Outcome.OK, content, seconds
