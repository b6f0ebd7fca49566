"""Threads for work that blocks, and may block for ever."""

import asyncio
import contextlib
import threading
import time
from collections.abc import Callable
from typing import Any


class Workers:
    """So many threads that work at once for an event loop.

    One that is stuck is given up: it counts as `stuck` until it comes back, and another may start.
    """

    def __init__(self, name: str, count: int) -> None:
        self._name = name
        self._free = asyncio.Semaphore(count)
        self.stuck = 0

    async def run(self, function: Callable[[], Any], until: float) -> tuple[Any, float]:
        """The function's result and its own seconds. TimeoutError at the loop's time `until`,
        whether or not the thread has come back.
        """
        async with asyncio.timeout_at(until), self._free:
            ended: asyncio.Future[tuple[Any, float]] = asyncio.get_running_loop().create_future()
            threading.Thread(target=_work, args=(function, ended), daemon=True,
                             name=self._name).start()
            try:
                return await asyncio.shield(ended)
            finally:
                if not ended.done():
                    self.stuck += 1
                    ended.add_done_callback(self._came_back)

    def _came_back(self, ended: asyncio.Future[tuple[Any, float]]) -> None:
        ended.exception()  # nobody else looks at it any more
        self.stuck -= 1


def _work(function: Callable[[], Any], ended: asyncio.Future[tuple[Any, float]]) -> None:
    started = time.perf_counter()
    with contextlib.suppress(RuntimeError):  # the loop is closed
        try:
            result = function(), time.perf_counter() - started
        except Exception as error:
            ended.get_loop().call_soon_threadsafe(ended.set_exception, error)
        else:
            ended.get_loop().call_soon_threadsafe(ended.set_result, result)
