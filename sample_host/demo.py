"""An agent's conversation with the server, played over MCP: script/demo runs it.

Nothing is staged inside the server. It reaches the repository through a symbolic link, which stands for a
disk that can be unmounted: with the link taken away, the tools fail for real.
"""

import json
import re
import signal
import subprocess
import sys
import textwrap
import time
from collections import Counter
from collections.abc import Iterable
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import IO, Any

COOLDOWN_S = 4
FAILURES = 3

# What a call is expected to answer: whether it is an error, and a text that it begins with or holds.
OK = (False, "")
BAD_ARGUMENTS = (True, "Bad arguments: ")
FAILED = (True, "FileNotFoundError: ")
REFUSED = (True, "is disabled")


class Unexpected(Exception):
    """The conversation went other than it should."""


class Client:
    """An MCP client, with a server of its own as a child process."""

    def __init__(self, host: Path, *options: str, stderr: IO[Any] | None = None) -> None:
        """Start the server that the package directory `host` holds."""
        command = [sys.executable, "-m", host.name, *options]
        pipe = subprocess.PIPE
        self.process = subprocess.Popen(command, cwd=host.parent, stdin=pipe, stdout=pipe, stderr=stderr)
        self._next_id = 0

    def send(self, line: bytes) -> None:
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    def receive(self) -> dict[str, Any]:
        line = self.process.stdout.readline()
        if not line:
            raise Unexpected("the server ended")
        return json.loads(line)

    def request(self, method: str, params: dict[str, Any]) -> dict[str, Any]:
        self._next_id += 1
        message = {"jsonrpc": "2.0", "id": self._next_id, "method": method, "params": params}
        self.send(json.dumps(message).encode())
        answer = self.receive()
        if answer["id"] != self._next_id or "error" in answer:
            raise Unexpected(f"{method} was answered {answer}")
        return answer["result"]

    def call(self, tool: str, arguments: dict[str, Any]) -> tuple[bool, str]:
        """Call a tool: whether the answer is an error, and its text."""
        result = self.request("tools/call", {"name": tool, "arguments": arguments})
        return result["isError"], result["content"][0]["text"]

    def close(self) -> int:
        """End the server by the end of its input, and answer its exit status."""
        with self.process:
            self.process.stdin.close()
        return self.process.returncode


def main() -> None:
    directory = Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
    signal.alarm(120)  # a server that hangs must not hang the demo
    with TemporaryDirectory() as scratch, Path(scratch, "server.log").open("w+") as log:
        try:
            _play(directory, Path(scratch), log)
        except Unexpected as error:
            log.seek(0)
            sys.exit(f"\nNot as expected: {error}\nThe server's log:\n{log.read()}")


def _play(directory: Path, scratch: Path, log: IO[str]) -> None:
    disk = scratch / "repository"
    disk.symlink_to(directory)
    options = ["--repo", str(disk), "--db", str(scratch / "health.db")]
    options += ["--disable-after-errors", str(FAILURES), "--cooldown-s", str(COOLDOWN_S)]

    print(f"\nA server on {directory}")
    agent = _connect(options, log)
    found = _ask(agent, OK, "search", {"action": "text", "pattern": "[A-Za-z]{4}", "max_results": 20})
    _ask(agent, OK, "search", {"mode": "glob", "query": "*.[ch]*", "limit": 3})
    line = re.search(r"^([\w./ +-]+):(\d+): ", found, re.MULTILINE)
    if line is not None:  # an empty directory has no file to read
        _ask(agent, OK, "read_file", {"file": line[1], "start_line": int(line[2]), "max_lines": 2})

    print("\nThe agent's own mistakes are answered and counted, and disable nothing")
    _ask(agent, BAD_ARGUMENTS, "search", {"action": "text", "pattern": "(unclosed"})
    _ask(agent, BAD_ARGUMENTS, "search", {"action": "replace", "pattern": "x"})
    _ask(agent, BAD_ARGUMENTS, "search", {"action": "text"})
    _ask(agent, BAD_ARGUMENTS, "read_file", {"path": "../.."})
    _ask(agent, OK, "search", {"action": "files", "pattern": "README*", "max_results": 1})

    print(f"\nThe disk with the repository goes away; {FAILURES} failures in a row disable a tool")
    disk.unlink()
    _ask(agent, FAILED, "read_file", {"path": "README.md"})
    for _ in range(FAILURES):
        _ask(agent, FAILED, "search", {"action": "text", "pattern": "TODO"})
    _ask(agent, REFUSED, "search", {"action": "text", "pattern": "TODO"})

    print("\nThe disk is back and the server starts anew: what it knew is still there")
    disk.symlink_to(directory)
    before = _health(agent)["search"]
    _end(agent)
    agent = _connect(options, log)
    after = _health(agent)["search"]
    for key in ("call_count", "error_count", "last_error", "disabled_at"):
        if after[key] != before[key]:
            raise Unexpected(f"{key} was {before[key]} before the restart, and is {after[key]} after it")
    _ask(agent, REFUSED, "search", {"action": "text", "pattern": "TODO"})

    print(f"\nAfter the cooldown of {COOLDOWN_S} s the tool is tried again, and works")
    time.sleep(COOLDOWN_S)
    _ask(agent, OK, "search", {"action": "text", "pattern": "TODO", "max_results": 3})
    _ask(agent, OK, "get_tool_performance_stats", {})

    _print_status(agent)
    _end(agent)


def _connect(options: list[str], log: IO[str]) -> Client:
    client = Client(Path(__file__).parent, *options, stderr=log)
    introduction = {"capabilities": {}, "clientInfo": {"name": "demo", "version": "1.0"}}
    started = client.request("initialize", {"protocolVersion": "2025-06-18", **introduction})
    client.send(b'{"jsonrpc": "2.0", "method": "notifications/initialized"}')
    tools = client.request("tools/list", {})["tools"]
    print("agent   initialize, tools/list")
    print(f"server  MCP {started['protocolVersion']}, tools:", ", ".join(tool["name"] for tool in tools))
    return client


def _end(agent: Client) -> None:
    if agent.close() != 0:
        raise Unexpected("the server ended with an error")


def _ask(agent: Client, expected: tuple[bool, str], tool: str, arguments: dict[str, Any]) -> str:
    print("agent  ", tool, json.dumps(arguments))
    failed, text = agent.call(tool, arguments)
    answer = f"ERROR: {text}" if failed else text
    lines = [part for line in answer.splitlines() for part in textwrap.wrap(line, 100)]
    print("server  " + "\n        ".join(lines[:3]) + (" ..." if len(lines) > 3 else ""), flush=True)
    if failed != expected[0] or expected[1] not in text:
        raise Unexpected(f"the answer of {tool} should have been {'an error' if expected[0] else 'no error'}")
    return text


def _health(agent: Client) -> dict[str, dict[str, Any]]:
    """The health of each tool by name, as the status tool answers it."""
    records = json.loads(agent.call("status", {})[1])["perf_stats"]
    return {record["tool_name"]: record for record in records}


def _print_status(agent: Client) -> None:
    print("\nThe tools' health, the worst first")
    _print_table(_health(agent).values())
    threads = json.loads(agent.call("status", {})[1])["threads"]
    names = ", ".join(f"{name} {count}" for name, count in threads["python_by_name"].items())
    print(f"\nthreads: {threads.get('os', 'unknown')} of at most {threads['budget']} (Python knows {names})")
    if "warning" in threads:
        print(threads["warning"])


def _print_table(records: Iterable[dict[str, Any]]) -> None:
    row = "{:<27}{:>6}{:>8}{:>9}{:>10}  {:<10}{}"
    print(row.format("tool", "calls", "errors", "refused", "mean ms", "state", "last error"))
    for record in records:
        ended: Counter[str] = Counter()
        answered_ms = 0.0
        for usage in record["usage"]:
            ended[usage["outcome"]] += usage["calls"]
            answered_ms += usage["calls"] * (usage["avg_ms"] or 0)
        mean_ms = f"{answered_ms / ended['ok']:.1f}" if ended["ok"] else "-"
        counts = ended.total(), record["error_count"], ended["refused"], mean_ms
        state = "disabled" if record["disabled"] else "enabled"
        last_error = textwrap.shorten(record["last_error"] or "-", 50)
        print(row.format(record["tool_name"], *counts, state, last_error))


if __name__ == "__main__":
    main()
