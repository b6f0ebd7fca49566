"""Lines over standard input and output, for an event loop that must never wait for either."""
# Each has a thread of its own, so that a pipe, a socket and a file will all do. The threads are
# daemons: the process may end while one of them waits for a client that neither writes nor reads.

import asyncio
import contextlib
import os
import queue
import select
import threading
from collections.abc import AsyncIterator, Callable
from functools import partial
from typing import Any

MAX_LINE_BYTES = 1 << 20
_MAX_UNREAD_BYTES = 4 << 20  # with more that the client has not read, no further line is taken in


class Lines:
    """The lines that a client sends, and those that it is answered."""

    def __init__(self, source: int, target: int, cannot_write: Callable[[OSError], None]) -> None:
        self._loop = asyncio.get_running_loop()
        self._cannot_write = cannot_write
        self._arrived: asyncio.Queue[list[bytes] | None] = asyncio.Queue()
        self._room = threading.Semaphore(4)  # for so many reads that the loop has not taken
        self._answers: queue.SimpleQueue[bytes | None] = queue.SimpleQueue()
        self._unread = 0  # bytes of answers
        new_thread = partial(threading.Thread, daemon=True)
        new_thread(target=self._read, args=(source,), name="stdin").start()
        self._writer = new_thread(target=self._write, args=(target,), name="stdout")
        self._writer.start()

    async def __aiter__(self) -> AsyncIterator[bytes]:
        """The lines up to the end of input; too long a one is cut to one byte more than allowed."""
        while (lines := await self._arrived.get()) is not None:
            self._room.release()
            for line in lines:
                yield line
                while self._unread > _MAX_UNREAD_BYTES:
                    await asyncio.sleep(0.01)

    def answer(self, line: bytes) -> None:
        """Write a line, whole and in its turn. Never waits."""
        self._unread += len(line)
        self._answers.put(line + b"\n")

    def close(self, wait_s: float) -> None:
        """Let out what was answered, as far as the client reads it in that time. Blocks."""
        self._answers.put(None)
        self._writer.join(wait_s)

    def _read(self, source: int) -> None:
        pending = b""
        with contextlib.suppress(OSError):  # whatever it is: that is the end of input
            while chunk := _when_ready(partial(os.read, source, 1 << 16), [source], []):
                *lines, pending = (pending + chunk).split(b"\n")
                pending = pending[: MAX_LINE_BYTES + 1]  # an endless line's rest is passed over
                self._room.acquire()
                self._tell(self._arrived.put_nowait, lines)
        self._tell(self._arrived.put_nowait, [pending])
        self._tell(self._arrived.put_nowait, None)

    def _write(self, target: int) -> None:
        try:
            while (line := self._answers.get()) is not None:
                size = len(line) - 1
                while line:
                    done = _when_ready(partial(os.write, target, line), [], [target])
                    line = line[done:]
                self._tell(self._was_read, size)
        except OSError as error:
            self._tell(self._cannot_write, error)

    def _was_read(self, size: int) -> None:
        self._unread -= size

    def _tell(self, function: Callable[..., None], argument: Any) -> None:
        with contextlib.suppress(RuntimeError):  # the loop is closed
            self._loop.call_soon_threadsafe(function, argument)


def _when_ready(work: Callable[[], Any], reading: list[int], writing: list[int]) -> Any:
    """What it answers, also where whoever opened the file made it one that does not wait."""
    while True:
        try:
            return work()
        except BlockingIOError:
            select.select(reading, writing, [])
