"""The guarded call: what every tool call goes through."""

import asyncio
import logging
import time
from collections.abc import Callable, Mapping
from concurrent.futures import Future, ThreadPoolExecutor
from enum import Enum
from typing import Any

from ..config import MAX_QUEUED, TIME_LIMIT_S, WORKERS
from ..tool_handlers.health import ToolHealthTracker
from ..tool_handlers.source_files import Unreadable
from ..tool_schemas import BadArguments, ResolvedCall, resolve_call
from ..utils.deadline import Deadline, Stopped
from ..utils.text import valid_unicode
from ..utils.timing import get_timing_collector
from .recovery import Admission, Recovery, Refused

logger = logging.getLogger(__name__)

Handler = Callable[..., Any]


class Outcome(Enum):
    """How a call ended. The values are what it is counted under, in memory and in the database."""

    OK = "ok"
    FAILED = "failed"  # the tool's fault: so many in a row disable it
    CALL_FAILED = "call_failed"  # this call's own: a file that cannot be read, or no time left
    BAD_ARGUMENTS = "bad_arguments"  # the agent's fault
    REFUSED = "refused"  # the tool is disabled, or another call is trying it
    OVERLOADED = "overloaded"  # too many calls wait already
    CANCELLED = "cancelled"  # its client no longer wants it


# For the event loop: all that the tracker is asked and told touches memory only. Handlers run in
# the threads of a pool, and those of `quick` tools, which must not wait for a worker, in one of
# their own.
class ToolPipeline:
    """Runs tools by name. Asks the tracker before each call, and tells it how that ended."""

    def __init__(self, tracker: ToolHealthTracker, handlers: Mapping[str, Handler],
                 quick: Mapping[str, Handler]) -> None:
        self._tracker = tracker
        self._recovery = Recovery(tracker)
        self._handlers = handlers
        self._quick = quick
        self._workers = ThreadPoolExecutor(WORKERS, "worker")
        self._status = ThreadPoolExecutor(1, "status")
        # Calls that a worker runs, or that wait for one.
        self._busy: set[Future[Any]] = set()
        self.counted = 0  # all calls so far: each is counted once, when it ends

    # `tool` must be a name of the registry, never an agent's own text: it becomes a key of counts
    # that are kept for ever. Cancelling the task cancels the call, which is then counted at once.
    async def call(self, tool: str, arguments: dict[str, Any]) -> tuple[Outcome, Any]:
        """Run one call: how it ended, and the answer or what to tell the agent instead."""
        call: ResolvedCall | None = None
        outcome, duration_ms = Outcome.CANCELLED, None
        try:
            with self._recovery.admit(tool) as admission:
                call = resolve_call(tool, arguments)
                started = time.perf_counter()
                outcome, content = await self._run(tool, call, admission)
                elapsed_ms = (time.perf_counter() - started) * 1000
            if outcome is Outcome.OK:
                duration_ms = elapsed_ms
            if outcome is not Outcome.OVERLOADED:
                get_timing_collector().record(tool, elapsed_ms, failed=outcome is not Outcome.OK)
        except Refused as error:
            outcome, content = Outcome.REFUSED, str(error)
        except BadArguments as error:
            # No error of the tool: one confused agent must not disable it for everybody.
            outcome, content = Outcome.BAD_ARGUMENTS, f"Bad arguments: {error}"
        finally:
            action, alias_hit = (call.action, call.alias_hit) if call else (None, False)
            self._tracker.record_call(
                tool, action, outcome.value, alias_hit=alias_hit, duration_ms=duration_ms)
            self.counted += 1
        return outcome, content

    async def _run(self, tool: str, call: ResolvedCall,
                   admission: Admission) -> tuple[Outcome, Any]:
        loop = asyncio.get_running_loop()
        try:
            if tool in self._quick:
                content = await loop.run_in_executor(self._status, self._quick[tool])
            elif len(self._busy) >= WORKERS + MAX_QUEUED:
                return Outcome.OVERLOADED, f"{MAX_QUEUED} calls wait already. Ask again later."
            else:
                content = await self._in_worker(loop, self._handlers[tool], call.parameters)
        except BadArguments:
            raise
        except (Unreadable, Stopped) as error:
            return Outcome.CALL_FAILED, valid_unicode(f"{tool} cannot answer this call: {error}")
        except Exception as error:
            content = valid_unicode(f"{type(error).__name__}: {error}")
            self._tracker.record_error(tool, content)
            logger.warning("%s failed: %s", tool, content)
            return Outcome.FAILED, content
        self._tracker.record_success(tool)
        admission.succeeded = True
        return Outcome.OK, content

    async def _in_worker(self, loop: asyncio.AbstractEventLoop, handler: Handler,
                         parameters: dict[str, Any]) -> Any:
        """The handler's answer. Cancelled, it leaves the queue, or sees it at its next look."""
        deadline = Deadline(TIME_LIMIT_S)
        running = self._workers.submit(lambda: handler(deadline.start(), **parameters))
        self._busy.add(running)
        running.add_done_callback(
            lambda ended: loop.call_soon_threadsafe(self._busy.discard, ended))
        try:
            return await asyncio.wrap_future(running)
        finally:
            deadline.cancel()
