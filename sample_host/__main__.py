"""Serve the sources in a directory to an MCP client over stdio."""

import argparse
import asyncio
import logging
import math
import os
import platform
import signal
import sys
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from pathlib import Path

from .config import GRACE_S, ToolsConfig
from .repository import Repository

try:
    from .tool_handlers.health import ToolHealthTracker, handle_get_tool_performance_stats
except ModuleNotFoundError as error:
    if error.name != f"{__package__}.tool_handlers.health":
        raise
    there = ", ".join(file.name for file in Path(__file__).parent.glob("tool_handlers/health.*.so"))
    this = f"{sys.executable} (Python {platform.python_version()})"
    sys.exit(f"{error.name} is not built for {this}; built there is: {there or 'nothing'}.\n"
             f"Build it: cmake --preset release -DPython_EXECUTABLE={sys.executable}, then"
             " script/bootstrap")

from .daemon.health_saver import HealthSaver
from .daemon.mcp_server import McpServer
from .daemon.stdio import Lines
from .daemon.tool_pipeline import ToolPipeline
from .tool_handlers.read_file import read_file
from .tool_handlers.search import search
from .tool_handlers.status import status


def main() -> None:
    options = _parse_options()
    # To stderr: stdout is the protocol's.
    logging.basicConfig(format="%(levelname)s %(name)s: %(message)s")
    sys.exit(asyncio.run(_serve(options)))


async def _serve(options: argparse.Namespace) -> int:
    """Serve until the input ends or a signal comes; then save. Answers the exit status."""
    loop, the_end = asyncio.get_running_loop(), asyncio.Event()
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda number, frame: loop.call_soon_threadsafe(the_end.set))
    database = ThreadPoolExecutor(1, "database")  # for all that waits for it: history and saves
    repository = Repository(options.repo, options.db)
    settings = ToolsConfig(options.disable_after_errors, options.cooldown_s)
    tracker = await loop.run_in_executor(database, ToolHealthTracker, repository, settings)
    sources = repository.directory
    pipeline = ToolPipeline(
        tracker,
        {"search": partial(search, sources), "read_file": partial(read_file, sources)},
        {"status": partial(status, tracker),
         "get_tool_performance_stats": handle_get_tool_performance_stats},
    )
    saver = HealthSaver(tracker, database, lambda: pipeline.counted, options.db)
    saving = asyncio.create_task(saver.run(options.flush_every))
    lines = Lines(sys.stdin.fileno(), sys.stdout.fileno(), the_end.set)
    server = McpServer(pipeline, lines.answer)
    serving = asyncio.create_task(_receive_all(lines, server, the_end))
    await the_end.wait()
    serving.cancel()
    await server.finish(GRACE_S)
    saving.cancel()
    is_saved = await saver.save_at_the_end()
    lines.close(GRACE_S)
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, signal.SIG_IGN)  # nothing is left that one could end
    return 0 if is_saved else 1


async def _receive_all(lines: Lines, server: McpServer, the_end: asyncio.Event) -> None:
    async for line in lines:
        server.receive(line)
    the_end.set()


def _parse_options() -> argparse.Namespace:
    defaults = ToolsConfig()
    parser = argparse.ArgumentParser(prog=f"python3.13 -m {__package__}", description=__doc__)
    add = parser.add_argument
    add("--repo", type=_directory, required=True, metavar="DIR", help="the sources to serve")
    add("--db", type=_database, required=True, metavar="FILE",
        help="the SQLite file that keeps the tools' health")
    add("--disable-after-errors", type=int, default=defaults.disable_after_errors, metavar="N",
        help="failures in a row that disable a tool (%(default)s)")
    add("--cooldown-s", type=_seconds, default=defaults.disable_cooldown_s, metavar="S",
        help="seconds until a disabled tool is tried again (%(default)s)")
    add("--flush-every", type=_seconds, default=5.0, metavar="S",
        help="seconds between saves (%(default)s)")
    return parser.parse_args()


def _directory(text: str) -> Path:
    if not os.path.isdir(text):
        raise argparse.ArgumentTypeError(f"no directory: {text}")
    return Path(text)


def _database(text: str) -> Path:
    path = Path(text).absolute()
    if not text or path.is_dir() or not path.parent.is_dir():
        raise argparse.ArgumentTypeError(f"no file can be there: {text!r}")
    return path


def _seconds(text: str) -> float:
    if not 0 < float(text) < math.inf:
        raise argparse.ArgumentTypeError("must be more than 0")
    return float(text)


if __name__ == "__main__":
    main()
