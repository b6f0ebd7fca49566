# Servers of the sample host for its tests: real ones, each a copy of the package on a directory of
# its own, spoken to over stdio.
#
# In the copy a file that is called "hang", "wait" or "break" is read in its own way, and ripgrep
# finds one line for the text "slow" and then nothing more, without an end:
#     asked = client.ask("tools/call", reading("wait"))    # until self.go()
# A limit that a test cannot wait for is another one in the copy: self.configure(TIME_LIMIT_S=600).

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
SLOW = {"name": "search", "arguments": {"action": "text", "pattern": "slow"}}
ODD_READS = '''
import time
usual = read_file

def read_file(sources, *, path, **rest):
    base = sources._directory.parent
    if path == "break":
        raise OSError("it broke")
    while path == "hang" or path == "wait" and not (base / "go").exists():
        time.sleep(0.01)
    return usual(sources, path="src/a.py" if path == "wait" else path, **rest)
'''
ODD_RIPGREP = '''#!/bin/sh
case "$*" in *"-e slow"*)
    echo $$ >> {pids}
    echo '{{"type": "match", "data": {{"path": {{"text": "a"}}, "lines": {{"text": "slow"}},' \\
        '"line_number": 1, "submatches": [{{"start": 0}}]}}}}'
    exec sleep 600 ;;
esac
exec {rg} "$@"
'''


def message(**members):
    return json.dumps({"jsonrpc": "2.0", **members}).encode()


def request(method="ping", **members):
    return message(**{"id": 7, "method": method, **members})


def call(name, arguments, number=7):
    return request("tools/call", id=number, params={"name": name, "arguments": arguments})


def reading(path, **more):
    return {"name": "read_file", "arguments": {"path": path, **more}}


def eventually(condition):
    """Wait until it holds."""
    ends_at = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < ends_at, "waited in vain"
        time.sleep(0.01)


class ServerCase(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        names = "another_name", "sources", "db?%41", "log", "bin", "pids"  # a URI quotes the third
        self.host, self.sources, self.db, self.log, tools, self.pids = map(
            self.directory.joinpath, names)
        left_out = shutil.ignore_patterns("health.*", "__pycache__")
        shutil.copytree(hosts.CHECKOUT / "sample_host", self.host, ignore=left_out)
        name = "health.py" if hosts.MODULE.endswith(".py") else Path(hosts.MODULE).name
        self.module = Path(shutil.copy(hosts.MODULE, self.host / "tool_handlers" / name))
        with (self.host / "tool_handlers/read_file.py").open("a") as handler:
            handler.write(ODD_READS)
        tools.mkdir()
        (tools / "rg").write_text(ODD_RIPGREP.format(pids=self.pids, rg=shutil.which("rg")))
        (tools / "rg").chmod(0o755)
        path = f"{tools}:{os.environ['PATH']}"
        self.enterContext(mock.patch.dict(os.environ, PATH=path))
        (self.sources / "src").mkdir(parents=True)
        (self.sources / "src" / "a.py").write_bytes(b"alpha\nbeta\f\r\ngamma\n")

    def configure(self, file="config.py", **settings):
        with (self.host / file).open("a") as module:
            module.writelines(f"\n{name} = {value}" for name, value in settings.items())

    def words(self, **options):
        options = {"repo": self.sources, "db": self.db, "flush_every": 0.001, **options}
        return [f"--{name.replace('_', '-')}={value}" for name, value in options.items()]

    def start(self, stderr=None, **options):
        stderr = stderr or self.enterContext(self.log.open("a"))
        client = Client(self.host, *self.words(**options), stderr=stderr)
        self.addCleanup(client.close)
        self.addCleanup(client.process.kill)
        return client

    def started(self, **options):
        """A server that answers."""
        client = self.start(**options)
        client.request("ping", {})
        return client

    def go(self):
        (self.directory / "go").touch()

    def assertEnds(self, client, status, *told):
        """The server ends by itself, with this status and only these words in its log."""
        self.assertEqual(client.process.wait(30), status, self.log.read_text())
        lines = self.log.read_text().splitlines()
        self.assertEqual(len(lines), len(told), lines)
        for line, words in zip(lines, told):
            self.assertIn(words, line)

    def answer(self, client, number):
        """What comes next is the answer to that request: its text, or the error's."""
        got = client.receive()
        self.assertEqual(got["id"], number, got)
        return got["result"]["content"][0]["text"] if "result" in got else got["error"]["message"]

    def data(self, client, tool="status", key="perf_stats"):
        return json.loads(client.call(tool, {})[1])[key]

    def usage(self, client, *columns, tool="search"):
        """How many calls were counted under which values of these columns."""
        rows = next(it["usage"] for it in self.data(client) if it["tool_name"] == tool)
        return {tuple(row[column] for column in columns): row["calls"] for row in rows}

    def cancel(self, client, *asked):
        for number in asked:
            client.send(message(method="notifications/cancelled", params={"requestId": number}))

    def searchers(self):
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
