"""The ``search`` tool: ripgrep as a child of the event loop."""

import asyncio
import base64
import contextlib
import json
import os
import time
from asyncio.subprocess import DEVNULL, PIPE, Process
from collections.abc import AsyncIterator
from typing import Any

from ..config import TIME_LIMIT_S, WORKERS
from ..tool_schemas import BadArguments
from ..utils.workers import Workers
from .source_files import MAX_FILE_BYTES, Sources

SKIPPED_DIRECTORIES = (".git", ".venv", "node_modules", "__pycache__")
_SHOWN_CHARACTERS = 200
_LONGEST = 8 * MAX_FILE_BYTES  # of ripgrep's lines: one of a file, as JSON
_EVERYWHERE = ["--no-config", "--no-messages", "--no-ignore", "--hidden", "--sort=path",
               *(f"--glob=!{name}" for name in SKIPPED_DIRECTORIES)]


class Search:
    """Searches, so many at once. The time limit is real: a child that exceeds it is killed."""

    def __init__(self, sources: Sources, workers: Workers) -> None:
        self._sources = sources
        self._workers = workers  # opens the directory, which may block
        self._free = asyncio.Semaphore(WORKERS)

    async def __call__(self, until: float, *, action: str, pattern: str, max_results: int,
                       glob: str = "") -> tuple[str, float, bool]:
        """The matches, one a line, then what ended the search early; the seconds that it took; and
        whether it was cut short. `until` is a time of the loop; TimeoutError if it never began.
        """
        async with asyncio.timeout_at(until):
            await self._free.acquire()
        try:
            root, _ = await self._workers.run(self._sources.open, until)
            started = time.perf_counter()
            try:
                found, remark, is_cut = await _collect(
                    _arguments(action, pattern, glob), root, until, max_results)
            finally:
                os.close(root)
        finally:
            self._free.release()
        lines = [*(found or ["(no match)"]), *remark]
        return "\n".join(lines), time.perf_counter() - started, is_cut


def _arguments(action: str, pattern: str, glob: str) -> list[str]:
    if action == "files":
        return ["--files", "--null", _only(pattern), *_EVERYWHERE, "--", "."]
    only = [_only(glob)] if glob else []
    return [*only, *_EVERYWHERE, "--json", "--fixed-strings", "--smart-case",
            f"--max-filesize={MAX_FILE_BYTES}", "-e", pattern, "--", "."]


def _only(glob: str) -> str:
    return "--glob=" + ("\\" if glob.startswith("!") else "") + glob


async def _collect(arguments: list[str], root: int, until: float,
                   most: int) -> tuple[list[str], list[str], bool]:
    """The matches; a remark on what is missing; and whether it was cut short."""
    found: list[str] = []
    # The descriptor, not the path, which may lead to another directory by now.
    child = await asyncio.create_subprocess_exec(
        "rg", *arguments, cwd=f"/proc/self/fd/{root}", stdin=DEVNULL, stdout=PIPE, stderr=PIPE,
        limit=_LONGEST)
    assert child.stderr is not None
    try:
        async with asyncio.timeout_at(until):
            async for match in _matches(child, "--json" in arguments):
                if len(found) == most:
                    return found, [f"(more than {most} matches; narrow the pattern)"], False
                found.append(match)
            if told := await child.stderr.read():  # of unreadable files it says nothing
                raise BadArguments(told.decode("utf-8", "replace").strip()[:_SHOWN_CHARACTERS])
    except (TimeoutError, asyncio.LimitOverrunError) as error:
        why = f"after {TIME_LIMIT_S:g} s"
        if isinstance(error, asyncio.LimitOverrunError):  # ripgrep lists each match in a line
            why = "at a line with too many matches"
        where = f"after {found[-1].partition(': ')[0]}" if found else "before the first match"
        return found, [f"(stopped {why}, {where}; narrow the pattern)"], True
    finally:
        with contextlib.suppress(ProcessLookupError):
            child.kill()
        with contextlib.suppress(TimeoutError):  # a dead mount may hold even that up
            await asyncio.wait_for(child.wait(), 1)
    return found, [], False


async def _matches(child: Process, is_json: bool) -> AsyncIterator[str]:
    assert child.stdout is not None
    with contextlib.suppress(asyncio.IncompleteReadError):  # the end
        while True:
            line = await child.stdout.readuntil(b"\n" if is_json else b"\0")
            if not is_json:
                yield _shown(line[:-1].removeprefix(b"./"))
            elif (event := json.loads(line))["type"] == "match":
                yield _matching_line(event["data"])


def _matching_line(match: dict[str, Any]) -> str:
    line, path = _bytes(match["lines"]), _shown(_bytes(match["path"]).removeprefix(b"./"))
    hit = match["submatches"][0]["start"]
    start = max(0, hit - _SHOWN_CHARACTERS // 2) if len(line) > _SHOWN_CHARACTERS else 0
    text = line[start:].decode("utf-8", "replace").strip()[:_SHOWN_CHARACTERS]
    return f"{path}:{match['line_number']}: {text}"


def _bytes(text: dict[str, str]) -> bytes:
    """What ripgrep says as text, or in base64 where that is not UTF-8."""
    return text["text"].encode() if "text" in text else base64.b64decode(text["bytes"])


def _shown(name: bytes) -> str:
    """A file's name on one line, whatever is in it."""
    text = name.decode("utf-8", "replace")
    return "".join(it if it.isprintable() else it.encode("unicode_escape").decode() for it in text)
