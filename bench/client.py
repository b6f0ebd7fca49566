"""An MCP client that has a server of its own: for the demo, the benchmark and the tests."""

import json
import subprocess
import sys
import time
from collections.abc import Iterator
from pathlib import Path
from typing import IO, Any


class Unexpected(Exception):
    """The conversation went other than it should."""


class Client:
    """An MCP client, with a server of its own as a child process."""

    def __init__(self, host: Path, *options: str, stderr: IO[Any] | None = None) -> None:
        """Start the server that the package directory `host` holds."""
        pipe = subprocess.PIPE
        self.process = subprocess.Popen(
            [sys.executable, "-m", host.name, *options],
            cwd=host.parent, stdin=pipe, stdout=pipe, stderr=stderr, start_new_session=True)
        self._next_id = 0

    def send(self, line: bytes) -> None:
        assert self.process.stdin is not None
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    def receive(self) -> dict[str, Any]:
        assert self.process.stdout is not None
        line = self.process.stdout.readline()
        if not line:
            raise Unexpected("the server ended")
        return json.loads(line)

    def ask(self, method: str, params: dict[str, Any]) -> int:
        """Send a request, and answer its id without waiting."""
        self._next_id += 1
        message = {"jsonrpc": "2.0", "id": self._next_id, "method": method, "params": params}
        self.send(json.dumps(message).encode())
        return self._next_id

    def request(self, method: str, params: dict[str, Any]) -> dict[str, Any]:
        asked, answer = self.ask(method, params), self.receive()
        if answer["id"] != asked or "error" in answer:
            raise Unexpected(f"{method} was answered {answer}")
        return answer["result"]

    def call(self, tool: str, arguments: dict[str, Any]) -> tuple[bool, str]:
        """Call a tool: whether the answer is an error, and its text."""
        result = self.request("tools/call", {"name": tool, "arguments": arguments})
        return result["isError"], result["content"][0]["text"]

    def data(self, key: str, tool: str = "status") -> Any:
        """A part of what a tool answers as data."""
        return json.loads(self.call(tool, {})[1])[key]

    def keep_calling(self, at_once: int, seconds: float, call: dict[str, Any]) -> Iterator[float]:
        """Keep so many calls running for so long, and give out the seconds that each took."""
        ends_at = time.monotonic() + seconds
        asked_at = {self.ask("tools/call", call): time.monotonic() for _ in range(at_once)}
        while asked_at:
            yield time.monotonic() - asked_at.pop(self.receive()["id"])
            if time.monotonic() < ends_at:
                asked_at[self.ask("tools/call", call)] = time.monotonic()

    def close(self) -> int:
        """End the server by the end of its input, and answer its exit status."""
        assert self.process.stdin is not None
        with self.process:
            self.process.stdin.close()
        return self.process.returncode
