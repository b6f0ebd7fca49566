"""Agents' conversations with the server, played over MCP: script/demo runs it."""
# Nothing is staged inside the server. It reaches the repository through a symbolic link, which
# stands for a disk that can be unmounted: with the link taken away, the tools fail for real.

import contextlib
import json
import os
import re
import shutil
import signal
import sqlite3
import sys
import textwrap
import time
from collections import Counter
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import IO, Any

from bench.client import Client, Unexpected

HOST = Path(__file__).resolve().parent.parent / "sample_host"

COOLDOWN_S, FAILURES, LOCKED_S, AGENTS = 4, 3, 3, 8

# What a call is expected to answer: whether it is an error, and a text that it begins with or
# holds.
OK, BAD_ARGUMENTS = (False, ""), (True, "Bad arguments: ")
FAILED, REFUSED = (True, "FileNotFoundError: "), (True, "is disabled")


def main(directory: Path, host: Path = HOST) -> None:
    """Play with the server that the package directory `host` holds, on a directory of sources."""
    signal.alarm(120)  # a server that hangs must not hang the demo
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    with TemporaryDirectory() as scratch, Path(scratch, "server.log").open("w+") as log:
        try:
            _play(host, directory, Path(scratch), log)
        except Unexpected as error:
            log.seek(0)
            sys.exit(f"\nNot as expected: {error}\nThe server's log:\n{log.read()}")
        except KeyboardInterrupt:
            sys.exit(130)
        except BrokenPipeError:  # nobody looks any more
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


def _play(host: Path, directory: Path, scratch: Path, log: IO[str]) -> None:
    disk, database = scratch / "repository", scratch / "health.db"
    disk.symlink_to(directory)
    options = ["--repo", str(disk), "--db", str(database), "--flush-every", "0.5"]
    options += ["--disable-after-errors", str(FAILURES), "--cooldown-s", str(COOLDOWN_S)]
    todo = {"action": "text", "pattern": "todo", "max_results": 3}

    _print(f"\nA server on {directory}")
    agent = _connect(host, options, log)
    found = _ask(agent, OK, "search", {"action": "text", "pattern": "the", "max_results": 20})
    _print("(mode, query and limit are synonyms that agents use; they are understood, and counted)")
    _ask(agent, OK, "search", {"mode": "glob", "query": "*.[ch]*", "limit": 3})
    line = re.search(r"^([\w./ +-]+):(\d+): ", found, re.MULTILINE)
    if line is not None:  # an empty directory has no file to read
        _ask(agent, OK, "read_file", {"file": line[1], "start_line": int(line[2]), "max_lines": 2})

    _print("\nThe agent's own mistakes are answered and counted, and disable nothing")
    _ask(agent, BAD_ARGUMENTS, "search", {"action": "replace", "pattern": "x"})
    _ask(agent, BAD_ARGUMENTS, "search", {"action": "text"})
    _ask(agent, BAD_ARGUMENTS, "read_file", {"path": "../.."})

    _print(f"\n{AGENTS} agents call for {LOCKED_S} s, and again while another process locks the"
           " database")
    with contextlib.closing(sqlite3.connect(database, isolation_level=None)) as other:
        for state, statement in (("free", "SELECT 1"), ("locked", "BEGIN IMMEDIATE")):
            other.execute(statement)
            call = {"name": "search", "arguments": {"action": "files", "pattern": "README*"}}
            took = list(agent.keep_calling(AGENTS, LOCKED_S, call))
            _print(f"server  database {state}: {len(took)} calls answered, the slowest after"
                   f" {max(took) * 1000:.0f} ms")
        other.execute("ROLLBACK")

    _print(f"\nThe disk with the repository goes away; {FAILURES} failures in a row disable a tool")
    disk.unlink()
    _ask(agent, FAILED, "read_file", {"path": "README.md"})
    for _ in range(FAILURES):
        _ask(agent, FAILED, "search", todo)
    _ask(agent, REFUSED, "search", todo)

    _print("\nThe disk is back and the server starts anew: what it knew is still there")
    disk.symlink_to(directory)
    before = _health(agent)["search"]["disabled_at"]
    _end(agent)
    agent = _connect(host, options, log)
    if _health(agent)["search"]["disabled_at"] != before:
        raise Unexpected(f"before the restart, search was disabled at {before}")
    _ask(agent, REFUSED, "search", todo)

    _print(f"\nAfter the cooldown of {COOLDOWN_S} s the tool is tried again, and works")
    time.sleep(COOLDOWN_S)
    _ask(agent, OK, "search", todo)
    _ask(agent, OK, "get_tool_performance_stats", {})
    _print("\nThe tools' health, the worst first, and how their calls ended")
    for name, record in _health(agent).items():
        ended: Counter[str] = Counter()
        for row in record["usage"]:
            ended[row["outcome"]] += row["calls"]
        counts = ", ".join(f"{count} {outcome}" for outcome, count in ended.items())
        _print(f"{name:<27} {'disabled' if record['disabled'] else 'enabled'}: {counts}")
    _end(agent)


def _connect(host: Path, options: list[str], log: IO[str]) -> Client:
    client = Client(host, *options, stderr=log)
    introduction = {"capabilities": {}, "clientInfo": {"name": "demo", "version": "1.0"}}
    started = client.request("initialize", {"protocolVersion": "2025-06-18", **introduction})
    client.send(b'{"jsonrpc": "2.0", "method": "notifications/initialized"}')
    names = ", ".join(tool["name"] for tool in client.request("tools/list", {})["tools"])
    _print("agent   initialize, tools/list")
    _print(f"server  MCP {started['protocolVersion']}, tools: {names}")
    return client


def _end(agent: Client) -> None:
    if agent.close() != 0:
        raise Unexpected("the server ended with an error")


def _ask(agent: Client, expected: tuple[bool, str], tool: str, arguments: dict[str, Any]) -> str:
    _print(f"agent   {tool} {json.dumps(arguments)}")
    failed, text = agent.call(tool, arguments)
    lines = (f"ERROR: {text}" if failed else text).splitlines()
    _print(f"server  {lines[0]}", *(f"        {line}" for line in lines[1:3]))
    if failed != expected[0] or expected[1] not in text:
        wanted = "an error" if expected[0] else "no error"
        raise Unexpected(f"the answer of {tool} should have been {wanted}, and was {text}")
    return text


def _print(*lines: str) -> None:
    """Print lines, wrapped for the terminal, without control characters of a repository's files."""
    for line in lines:
        heading = line.removeprefix("\n")
        shown = "".join(it if it.isprintable() else "?" for it in heading.expandtabs(4))
        indent = " " * 8 if line.startswith(("agent ", "server ", " " * 8)) else ""
        width = shutil.get_terminal_size().columns
        wrapped = textwrap.fill(shown, width, subsequent_indent=indent)
        print("\n" * (len(line) - len(heading)) + wrapped, flush=True)


def _health(agent: Client) -> dict[str, dict[str, Any]]:
    """The health of each tool by name, as the status tool answers it."""
    return {record["tool_name"]: record for record in agent.data("perf_stats")}


if __name__ == "__main__":
    main(Path(sys.argv[1]))
