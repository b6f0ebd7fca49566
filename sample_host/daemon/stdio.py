"""Lines over standard input and output, for an event loop that must never wait for either."""
# Each has a thread of its own, so that a pipe, a socket and a file will all do. The threads are
# daemons: the process may end while one of them waits for a client that neither writes nor reads.

import asyncio
import contextlib
import os
import queue
import threading
from collections.abc import AsyncIterator, Callable

MAX_LINE_BYTES = 1 << 20
_MAX_UNREAD_ANSWERS = 1000  # with more that the client has not read, no further line is taken in


class Lines:
    """The lines that a client sends, and those that it is answered."""

    def __init__(self, source: int, target: int, client_is_gone: Callable[[], None]) -> None:
        self._loop = asyncio.get_running_loop()
        self._client_is_gone = client_is_gone
        self._arrived: asyncio.Queue[list[bytes] | None] = asyncio.Queue()
        self._room = threading.Semaphore(4)  # for so many reads that the loop has not taken
        self._answers: queue.SimpleQueue[bytes | None] = queue.SimpleQueue()
        threading.Thread(target=self._read, args=(source,), daemon=True, name="stdin").start()
        self._writer = threading.Thread(
            target=self._write, args=(target,), daemon=True, name="stdout")
        self._writer.start()

    async def __aiter__(self) -> AsyncIterator[bytes]:
        """The lines up to the end of input; too long a one is cut to one byte more than allowed."""
        while (lines := await self._arrived.get()) is not None:
            self._room.release()
            for line in lines:
                yield line
                while self._answers.qsize() > _MAX_UNREAD_ANSWERS:
                    await asyncio.sleep(0.01)

    def answer(self, line: bytes) -> None:
        """Write a line, whole and in its turn. Never waits."""
        self._answers.put(line + b"\n")

    def close(self, wait_s: float) -> None:
        """Let out what was answered, as far as the client reads it in that time. Blocks."""
        self._answers.put(None)
        self._writer.join(wait_s)

    def _read(self, source: int) -> None:
        pending = b""
        with contextlib.suppress(RuntimeError):  # the loop is closed: nobody takes them any more
            while chunk := os.read(source, 1 << 16):
                *lines, pending = (pending + chunk).split(b"\n")
                pending = pending[: MAX_LINE_BYTES + 1]  # an endless line's rest is passed over
                self._room.acquire()
                self._loop.call_soon_threadsafe(self._arrived.put_nowait, lines)
            self._loop.call_soon_threadsafe(self._arrived.put_nowait, [pending])
            self._loop.call_soon_threadsafe(self._arrived.put_nowait, None)

    def _write(self, target: int) -> None:
        try:
            while (line := self._answers.get()) is not None:
                while line:
                    line = line[os.write(target, line):]
        except OSError:
            self._loop.call_soon_threadsafe(self._client_is_gone)
