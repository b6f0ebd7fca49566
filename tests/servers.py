"""Real servers of the sample host, each a copy of the package on a directory of its own.

In the copy a file called "hang", "wait" (until `self.go()`) or "break" is read in its own way, and
ripgrep finds one line for the text "slow", and then nothing more, without an end.
"""

import json
import os
import shutil
import sqlite3
import tempfile
import time
import unittest
from pathlib import Path
from unittest import mock

from bench import hosts
from bench.client import Client

FILES = {"action": "files", "pattern": "*.py"}
SLOW = {"action": "text", "pattern": "slow"}
ODD_READS = '''
import time
usual = read_file

def read_file(sources, *, path, **rest):
    if path == "break":
        raise OSError("it broke")
    while path == "hang" or path == "wait" and not (sources._directory.parent / "go").exists():
        time.sleep(0.01)
    return usual(sources, path="src/a.py" if path == "wait" else path, **rest)
'''
ODD_RIPGREP = '''#!/bin/sh
case "$*" in *"-e slow"*)
    echo $$ >> {pids}
    echo '{{"type": "match", "data": {{"path": {{"text": "a"}}, "lines": {{"text": "slow"}},' \\
        '"line_number": 1, "submatches": [{{"start": 0}}]}}}}'
    exec sleep 600
esac
exec {rg} "$@"
'''


def message(**members):
    return json.dumps({"jsonrpc": "2.0", **members}).encode()


def request(method="ping", **members):
    return message(**{"id": 7, "method": method, **members})


def call(name, arguments, number=7):
    return request("tools/call", id=number, params={"name": name, "arguments": arguments})


def eventually(condition):
    ends_at = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < ends_at, "waited in vain"
        time.sleep(0.01)


class Server(Client):
    """A server and its client."""

    def begin(self, tool="read_file", **arguments):
        """Call without waiting: the id of the call."""
        return self.ask("tools/call", {"name": tool, "arguments": arguments})

    def read(self, path="src/a.py"):
        return self.call("read_file", {"path": path})[1]

    def answer(self, number):
        """What comes next is the answer to that call: its text, or the error's."""
        got = self.receive()
        assert got["id"] == number, got
        return got["result"]["content"][0]["text"] if "result" in got else got["error"]["message"]

    def cancel(self, *numbers):
        for number in numbers:
            self.send(message(method="notifications/cancelled", params={"requestId": number}))

    def counted(self, *columns, tool="search"):
        """How many calls of the tool were counted under which values of these columns."""
        rows = next(it["usage"] for it in self.data("perf_stats") if it["tool_name"] == tool)
        return {tuple(row[column] for column in columns): row["calls"] for row in rows}

    def ends(self):
        """Its exit status, in a while."""
        return self.process.wait(30)


class ServerCase(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        names = "another_name", "sources", "db?%41", "log", "bin", "pids"  # a URI quotes the third
        self.host, self.sources, self.db, self.log, tools, self.pids = map(
            self.directory.joinpath, names)
        left_out = shutil.ignore_patterns("health.*", "__pycache__")
        shutil.copytree(hosts.CHECKOUT / "sample_host", self.host, ignore=left_out)
        self.module = Path(shutil.copy(hosts.MODULE, self.host / "tool_handlers"))
        self.append("tool_handlers/read_file.py", ODD_READS)
        tools.mkdir()
        (tools / "rg").write_text(ODD_RIPGREP.format(pids=self.pids, rg=shutil.which("rg")))
        (tools / "rg").chmod(0o755)
        path = f"{tools}:{os.environ['PATH']}"
        self.enterContext(mock.patch.dict(os.environ, PATH=path))
        (self.sources / "src").mkdir(parents=True)
        (self.sources / "src" / "a.py").write_bytes(b"alpha\nbeta\f\r\ngamma\n")

    def append(self, file, code):
        with (self.host / file).open("a") as module:
            module.write(f"\n{code}\n")

    def configure(self, **settings):
        """Limits that a test cannot wait for."""
        for name, value in settings.items():
            self.append("config.py", f"{name} = {value}")

    def words(self, **options):
        options = {"repo": self.sources, "db": self.db, "flush_every": 600} | options
        return [f"--{name.replace('_', '-')}={value}" for name, value in options.items()]

    def start(self, stderr=None, **options):
        stderr = stderr or self.enterContext(self.log.open("a"))
        server = Server(self.host, *self.words(**options), stderr=stderr)
        self.addCleanup(server.close)
        self.addCleanup(server.process.kill)
        return server

    def started(self, **options):
        """A server that answers."""
        server = self.start(**options)
        server.request("ping", {})
        return server

    def go(self):
        (self.directory / "go").touch()

    def assertLog(self, *told):
        """Each line of the log holds these words."""
        lines = self.log.read_text().splitlines()
        self.assertEqual([words in line for words, line in zip(told, lines, strict=True)],
                         [True] * len(told), lines)

    def searches(self):
        """Those of the slow searches' processes that are still there."""
        pids = self.pids.read_text().split() if self.pids.exists() else []
        return [pid for pid in pids if Path("/proc", pid).exists()]

    def in_database(self, *statements):
        """Another process's connection, and what the last of its statements found."""
        other = sqlite3.connect(self.db, isolation_level=None)
        self.addCleanup(other.close)
        return other, [other.execute(statement).fetchall() for statement in statements][-1]

    def saved_calls(self):
        """All that were counted; a save writes this last."""
        other, found = self.in_database("SELECT value FROM schema_info WHERE key = 'tool_usage'")
        other.close()
        return sum(row["calls"] for value, in found for row in json.loads(value))
