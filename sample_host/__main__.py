"""Serve the sources in a directory to an MCP client over stdio."""

import argparse
import asyncio
import logging
import math
import os
import platform
import shutil
import signal
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from pathlib import Path
from typing import Any, NoReturn

from . import __version__
from .config import GRACE_S, LAST_SAVE_S, MAX_STUCK, TIME_LIMIT_S, WORKERS, ToolsConfig
from .repository import Repository

try:
    from .tool_handlers import health
except ImportError as error:
    if error.name != f"{__package__}.tool_handlers":
        raise
    there = ", ".join(file.name for file in Path(__file__).parent.glob("tool_handlers/health.*.so"))
    sys.exit(f"health is not built for {sys.executable} (Python {platform.python_version()}); built"
             f" there is: {there or 'nothing'}.\nBuild it: cmake --preset release"
             f" -DPython_EXECUTABLE={sys.executable}, then script/bootstrap")

from .daemon.health_saver import HealthSaver
from .daemon.mcp_server import McpServer
from .daemon.stdio import Lines
from .daemon.tool_pipeline import Handler, ToolPipeline
from .tool_handlers.read_file import read_file
from .tool_handlers.search import Search
from .tool_handlers.source_files import Sources
from .tool_handlers.status import status
from .utils.log import finish_log, start_log
from .utils.workers import Workers

logger = logging.getLogger(__name__)


def main() -> None:
    if sys.stderr is None:
        os.open(os.devnull, os.O_WRONLY)  # lest the database get its number
    if sys.stdin is None or sys.stdout is None:
        sys.exit("standard input and output must be open: an MCP client speaks over them")
    if shutil.which("rg") is None:
        sys.exit("ripgrep (rg) is not on the PATH, and search needs it: apt-get install ripgrep")
    options = _parse_options()
    start_log()  # to standard error: standard output is the protocol's
    asyncio.run(_serve(options))


def _end(status: int) -> NoReturn:
    """End the process, whatever its threads are stuck in, while signals still find the loop."""
    finish_log(1)
    os._exit(status)


async def _serve(options: argparse.Namespace) -> NoReturn:
    """Serve until the input ends or a signal comes; then save, and end the process."""
    loop, the_end = asyncio.get_running_loop(), asyncio.Event()
    reasons: list[str | OSError] = []  # why it is to end, if not for the end of input

    def end(reason: str | OSError) -> None:
        reasons.append(reason)
        the_end.set()

    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        loop.add_signal_handler(number, end, number.name)
    database = ThreadPoolExecutor(1, "database")  # for all that waits for it: history and saves
    repository = Repository(options.repo, options.db)
    settings = ToolsConfig(options.disable_after_errors, options.cooldown_s)
    health.logger.addFilter(partial(_say_what_follows, options.db))
    making = loop.run_in_executor(database, health.ToolHealthTracker, repository, settings)
    ending = asyncio.create_task(the_end.wait())
    await asyncio.wait({making, ending}, return_when=asyncio.FIRST_COMPLETED)
    if not making.done():
        _end(1)
    try:
        tracker = making.result()
    except (ValueError, TypeError, OverflowError) as error:
        logger.error("%s holds what is no history of tools: %s", options.db, error)
        _end(1)
    started, sources = time.monotonic(), Sources(repository.directory)
    workers, quick = Workers("worker", WORKERS), Workers("status", 1)

    def server_status() -> dict[str, Any]:
        error = saver.last_error
        return {"version": __version__, "uptime_s": round(time.monotonic() - started, 1),
                "database": str(options.db), "stuck_threads": workers.stuck + quick.stuck,
                "last_save_error": error and (str(error) or repr(error))}

    pipeline = ToolPipeline(
        tracker,
        {"search": Search(sources, workers),
         "read_file": _in_thread(workers, partial(read_file, sources)),
         "status": _in_thread(quick, lambda: status(tracker, server_status())),
         "get_tool_performance_stats": _in_thread(
             quick, health.handle_get_tool_performance_stats)},
        {"status": "quick", "get_tool_performance_stats": "quick"},
        lambda: workers.stuck + quick.stuck >= MAX_STUCK)
    saver = HealthSaver(tracker, database, lambda: pipeline.counted, options.db)
    saving = asyncio.create_task(saver.run(options.flush_every))
    lines = Lines(sys.stdin.fileno(), sys.stdout.fileno(), end)
    server = McpServer(pipeline, lines.answer)
    serving = asyncio.create_task(_receive_all(lines, server, the_end))
    await ending
    serving.cancel()
    await server.finish(GRACE_S if reasons else TIME_LIMIT_S + 1)
    saving.cancel()
    is_saved = await saver.save_at_the_end(LAST_SAVE_S)
    lines.close(GRACE_S)
    for error in (reason for reason in reasons if isinstance(reason, OSError)):
        is_saved = False
        logger.error("The client can not be answered: %s", error)
    _end(0 if is_saved else 1)


async def _receive_all(lines: Lines, server: McpServer, the_end: asyncio.Event) -> None:
    async for line in lines:
        server.receive(line)
    the_end.set()


def _in_thread(workers: Workers, function: Any) -> Handler:
    async def handle(until: float, **parameters: Any) -> tuple[Any, float, bool]:
        content, seconds = await workers.run(partial(function, **parameters), until)
        return content, seconds, False
    return handle


def _say_what_follows(file: Path, record: logging.LogRecord) -> bool:
    name = str(file).replace("%", "%%")
    record.msg += f" (in {name}; counting from zero, and the next save replaces what is there)"
    return True


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
