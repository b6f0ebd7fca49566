"""The sample host as its clients see it: a server on a copy of the package, spoken to over its stdio."""

import contextlib
import ctypes
import json
import os
import shutil
import sqlite3
import tempfile
import time
import unittest
from pathlib import Path

from sample_host.demo import Client

PACKAGE = Path(__file__).resolve().parent.parent / "sample_host"
MODULE = Path(os.environ["HEALTH_MODULE"])
FIND = {"action": "files", "pattern": "*.py"}


def request(**members):
    return json.dumps({"jsonrpc": "2.0", "id": 7, **members}).encode()


def tool_call(**params):
    return request(method="tools/call", params=params)


class SampleHost(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        names = ("another_name", "sources", "db", "log")
        self.host, self.sources, self.db, self.log = map(self.directory.joinpath, names)
        shutil.copytree(PACKAGE, self.host, ignore=shutil.ignore_patterns("health.*", "__pycache__"))
        self.module = self.host / "tool_handlers" / ("health.py" if MODULE.suffix == ".py" else MODULE.name)
        shutil.copy(MODULE, self.module)
        (self.sources / "src").mkdir(parents=True)
        (self.sources / "src" / "a.py").write_text("alpha\nbeta\f\ngamma\n")

    def start(self, **options):
        options = {"repo": self.sources, "db": self.db, "flush_every": 0.001, **options}
        words = [f"--{name.replace('_', '-')}={value}" for name, value in options.items()]
        client = Client(self.host, *words, stderr=self.enterContext(self.log.open("a")))
        self.addCleanup(client.close)
        self.addCleanup(client.process.kill)
        return client

    def health(self, client, tool="search"):
        records = json.loads(client.call("status", {})[1])["perf_stats"]
        found = next(record for record in records if record["tool_name"] == tool)
        for row in found["usage"]:
            del row["avg_ms"]  # may round otherwise after a restart, from the microseconds that are stored
        return found

    def saved_calls(self):
        with contextlib.closing(sqlite3.connect(self.db)) as db:
            rows = db.execute("SELECT call_count FROM tool_health WHERE tool_name = 'search'").fetchall()
        return rows[0][0] if rows else 0

    def test_bad_lines_are_answered_and_survived(self):
        ping, notification = request(method="ping"), b'{"jsonrpc": "2.0", "method": "tools/call"}'
        errors = {
            (None, -32700): [b"{", b"[" * 99_999, ping.replace(b"7", b"NaN"), ping.replace(b"n", b"\xff")],
            (None, -32600): [b"5", b"{}", b"[]", b"[%s]" % ping, ping + b" " * (3 << 20)]
            + [request(id=bad, method="ping") for bad in (None, True, 1.5, [], {})],
            (7, -32600): [ping.replace(b"2.0", b"1.0"), request(), request(method=["ping"])]
            + [request(method="ping", params=bad) for bad in (None, 5, "x", True)],
            (7, -32601): [request(method="tools/\ud800")],
            (7, -32602): [request(method="ping", params=[]), request(method="initialize")]
            + [request(method="tools/list", params={"cursor": "2"})]
            + [tool_call(name=bad) for bad in (None, 5, [], "", "rm", "\ud800")]
            + [tool_call(name="status", arguments=bad) for bad in (None, 5, [], "x")],
            None: [notification, b" ", request(result={}), request(error={})],
        }
        client = self.start()
        for error, line in ((error, line) for error, lines in errors.items() for line in lines):
            with self.subTest(line[:80]):
                client.send(line)
                client.send(request(id="next", method="ping"))
                answers = []
                while (answer := client.receive()) != {"jsonrpc": "2.0", "id": "next", "result": {}}:
                    answers.append((answer["id"], answer["error"]["code"]))
                self.assertEqual(answers, [error] if error else [])
        versions = {"2025-06-18": "2025-06-18", "2025-03-26": "2024-11-05", "x": "2025-11-25"}
        for asked, version in versions.items():
            started = client.request("initialize", {"protocolVersion": asked})
            self.assertEqual(started["protocolVersion"], version)
        for tool in client.request("tools/list", {})["tools"]:
            arguments = {"search": FIND, "read_file": {"path": "src/a.py"}}.get(tool["name"], {})
            self.assertEqual(set(tool["inputSchema"]["required"]), set(arguments))
            self.assertFalse(client.call(tool["name"], arguments)[0])
        self.assertEqual((client.close(), self.log.read_text()), (0, ""))

    def test_answers_stay_inside_and_agents_disable_nothing(self):
        for name, target in (("out", "/etc/passwd"), ("etc", "/etc"), ("loop", "loop")):
            (self.sources / name).symlink_to(target)
        os.mkfifo(self.sources / "pipe")
        (self.sources / "binary").write_bytes(b"root\0")
        (self.sources / "slow").write_text("b" * 60 + "!")
        Path(os.fsdecode(bytes(self.sources) + b"/caf\xe9")).write_text("cup\n")
        text, file = {"action": "text", "pattern": "x"}, {"path": "src/a.py"}
        table = {
            "src/a.py:3: gamma": [text | {"pattern": "^gam|root"}],
            "caf?:1: cup\n(stopped after 5 s; use a simpler pattern)": [text | {"pattern": "(b+b+)+$|^cup"}],
            "caf?:1: cup\n(more than 1 matches; narrow the pattern)": [text | {"pattern": ".", "limit": 1}],
            "binary\ncaf?\nslow\nsrc/a.py": [{"mode": "glob", "query": "*"}],
            "alpha\n(line 1 of 3)": [file | {"max_lines": 1}],
            "beta\f\ngamma": [{"file": f"{self.sources}/src/../src/a.py", "offset": 2}],
            "Bad arguments: ": [text | {"pattern": bad} for bad in ("(", "a{9999999999}", "(?a)(?u)", 5)]
            + [text | {"pattern": "x" * 1001}]
            + [text | {"action": bad} for bad in ("drop", "", None, [], {})]
            + [text | bad for bad in ({"max_results": True}, {"limit": 0}, {"query": "y"}, {"z": 1})]
            + [file | bad for bad in ({"start_line": 9}, {"start_line": -1}, {"max_lines": 1.5})]
            + [{"path": bad} for bad in ("../log", "/etc/passwd", "out", "etc/passwd", "loop", "pipe")]
            + [{"path": bad} for bad in ("binary", "src", "", "\0", "\ud800", "x" * 999, "src/a.py/b")],
        }
        client = self.start(disable_after_errors=1)
        for expected, arguments in ((expected, each) for expected, calls in table.items() for each in calls):
            with self.subTest(arguments):
                tool = "read_file" if {"path", "file"} & set(arguments) else "search"
                is_error, answer = client.call(tool, arguments)
                self.assertEqual(answer[: len(expected)] if is_error else answer, expected)
                self.assertEqual(is_error, expected == "Bad arguments: ")
        self.assertEqual(self.health(client)["error_count"], 0)
        usage = self.health(client, "read_file")["usage"]
        usage = [(row["outcome"], row["alias_hit"], row["calls"]) for row in usage]
        self.assertEqual(usage, [("bad_arguments", False, 16), ("ok", False, 1), ("ok", True, 1)])

    def test_failing_tool_is_refused_until_its_cooldown_has_passed(self):
        options = {"disable_after_errors": 2, "cooldown_s": 4, "flush_every": 600}
        client = self.start(**options)
        client.call("search", FIND)
        self.sources.rename(self.directory / "away")
        for _ in range(2):
            self.assertIn("FileNotFoundError", client.call("search", FIND)[1])
        (self.directory / "away").rename(self.sources)
        disabled_by = time.time()
        is_error, text = client.call("search", FIND)
        self.assertRegex(text, "search is disabled.*FileNotFoundError.*useless.*in 4 s")
        before = self.health(client)
        client.process.terminate()
        self.assertEqual((is_error, client.process.wait()), (True, 0))
        client = self.start(**options)
        self.assertEqual(self.health(client), before)
        self.assertEqual(client.call("search", FIND), (True, text))
        time.sleep(max(0, disabled_by + 4 - time.time()))
        self.assertEqual(client.call("search", FIND), (False, "src/a.py"))

    def test_neither_a_locked_database_nor_a_client_that_left_costs_a_count(self):
        client = self.start()
        client.call("search", FIND)
        with contextlib.closing(sqlite3.connect(self.db, isolation_level=None)) as other:
            other.execute("BEGIN IMMEDIATE")
            began = time.monotonic()
            client.call("search", FIND)
            self.assertLess(time.monotonic() - began, 3)
            while "locked" not in self.log.read_text():  # a save has given up
                time.sleep(0.1)
            client.process.stdout.close()
            client.send(tool_call(name="search", arguments=FIND))
        self.assertEqual((client.close(), self.saved_calls()), (0, 3))

    def test_what_was_saved_outlives_kills_and_a_read_only_file(self):
        saved = 0
        for _ in range(5):
            client = self.start(flush_every=0.0001)
            client.call("search", FIND)
            self.assertGreater(self.health(client)["call_count"], saved)
            for _ in range(300):
                client.send(tool_call(name="search", arguments=FIND))
            before = saved
            while saved < before + 20:
                saved = self.saved_calls()
            client.process.kill()
        self.assertEqual((self.start().close(), self.log.read_text()), (0, ""))
        content, saved = self.db.read_bytes(), self.saved_calls()
        self.db.chmod(0o444)
        for capability in (1, 2):  # child processes inherit the loss: without these a mode holds for root too
            ctypes.CDLL(None).prctl(24, capability, 0, 0, 0)
        for mode in (0o755, 0o555):
            self.directory.chmod(mode)
            client = self.start()
            client.call("search", FIND)
            self.assertEqual((self.health(client)["call_count"], client.close()), (saved + 1, 0))
        self.directory.chmod(0o755)
        self.assertEqual(self.db.read_bytes(), content)
        self.assertRegex(self.log.read_text(), r"\A(.* Could not save the tool health.*\n)+\Z")

    def test_says_how_to_build_the_module_where_it_is_missing(self):
        self.module.unlink()
        self.assertEqual(self.start().close(), 1)
        self.assertRegex(self.log.read_text(), r"\A.* is not built: cmake --preset release && cmake .*\n\Z")
