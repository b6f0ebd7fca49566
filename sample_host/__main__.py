"""Serve the sources in a directory to an MCP client over stdio."""

import argparse
import logging
import os
import signal
import sys
import threading
from collections.abc import Callable
from functools import partial
from pathlib import Path

from .config import ToolsConfig
from .repository import Repository

try:
    from .tool_handlers.health import ToolHealthTracker, handle_get_tool_performance_stats
except ModuleNotFoundError as error:
    if error.name != f"{__package__}.tool_handlers.health":
        raise
    sys.exit(f"{error.name} is not built: cmake --preset release && cmake --build --preset release")

from .daemon.health_saver import HealthSaver
from .daemon.mcp_server import McpServer
from .daemon.tool_pipeline import ToolPipeline
from .tool_handlers.read_file import read_file
from .tool_handlers.search import search
from .tool_handlers.status import status


def main() -> None:
    options = _parse_options()
    logging.basicConfig(format="%(levelname)s %(name)s: %(message)s")  # to stderr: stdout is the protocol's
    repository = Repository(options.repo, options.db)
    tracker = ToolHealthTracker(repository, ToolsConfig(options.disable_after_errors, options.cooldown_s))
    handlers = {
        "search": partial(search, repository.directory),
        "read_file": partial(read_file, repository.directory),
        "status": partial(status, tracker),
        "get_tool_performance_stats": handle_get_tool_performance_stats,
    }
    server = McpServer(ToolPipeline(tracker, handlers))
    with HealthSaver(tracker, options.flush_every):
        _at_end_signals(lambda *_: sys.exit())
        try:
            server.serve(sys.stdin.buffer, sys.stdout.buffer)
        except BrokenPipeError:  # the client is gone; what stdout still holds may go nowhere
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        finally:
            _at_end_signals(signal.SIG_IGN)  # or a second one would break off the last save


def _at_end_signals(handler: Callable[..., object] | signal.Handlers) -> None:
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, handler)


def _parse_options() -> argparse.Namespace:
    defaults = ToolsConfig()
    parser = argparse.ArgumentParser(prog=f"python3.13 -m {__package__}", description=__doc__)
    add = parser.add_argument
    add("--repo", type=_directory, required=True, metavar="DIR", help="the sources to serve")
    add("--db", type=Path, required=True, metavar="FILE", help="the SQLite file that keeps the tools' health")
    add("--disable-after-errors", type=int, default=defaults.disable_after_errors, metavar="N",
        help="failures in a row that disable a tool (%(default)s)")
    add("--cooldown-s", type=_seconds, default=defaults.disable_cooldown_s, metavar="S",
        help="seconds until a disabled tool is tried again (%(default)s)")
    add("--flush-every", type=_seconds, default=5.0, metavar="S", help="seconds between saves (%(default)s)")
    return parser.parse_args()


def _directory(text: str) -> Path:
    if not os.path.isdir(text):
        raise argparse.ArgumentTypeError(f"no directory: {text}")
    return Path(text)


def _seconds(text: str) -> float:
    seconds = float(text)
    if not 0 < seconds <= threading.TIMEOUT_MAX:
        raise argparse.ArgumentTypeError(f"must be more than 0 and at most {threading.TIMEOUT_MAX:g}")
    return seconds


if __name__ == "__main__":
    main()
