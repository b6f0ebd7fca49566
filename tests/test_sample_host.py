"""The sample host as its clients see it: a server on a copy of the package, spoken to over its
stdio.

Every test starts real servers and plays their clients. For example, four slow searches keep every
worker busy, and a ping sent after them must be answered before them:

    slow = [client.ask("tools/call", SLOW) for _ in range(4)]
    assert client.request("ping", {}) == {}

A search is slow in a directory with so many lines that the time limit ends it.
"""

import contextlib
import ctypes
import json
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from sample_host import __version__, config
from sample_host.demo import Client

from . import hosts

PACKAGE = hosts.CHECKOUT / "sample_host"
MODULE = Path(hosts.MODULE)
FIND = {"action": "files", "pattern": "*.py"}
SLOW = {"name": "search", "arguments": {"action": "text", "pattern": "no such text"}}
PING = {"jsonrpc": "2.0", "id": "next", "result": {}}


def request(**members):
    return json.dumps({"jsonrpc": "2.0", "id": 7, **members}).encode()


def tool_call(**params):
    return request(method="tools/call", params=params)


def locked(path):
    """The database's write lock, for the length of a with block."""

    @contextlib.contextmanager
    def hold():
        with contextlib.closing(sqlite3.connect(path, isolation_level=None)) as other:
            other.execute("BEGIN IMMEDIATE")
            yield

    return hold()


class ServerCase(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        names = ("another_name", "sources", "db", "log")
        self.host, self.sources, self.db, self.log = map(self.directory.joinpath, names)
        left_out = shutil.ignore_patterns("health.*", "__pycache__")
        shutil.copytree(PACKAGE, self.host, ignore=left_out)
        name = "health.py" if MODULE.suffix == ".py" else MODULE.name
        self.module = self.host / "tool_handlers" / name
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

    def start_slow(self, **options):
        """A server in whose sources a search for a text takes longer than its time limit."""
        for number in range(12):
            (self.sources / f"long{number}").write_text("b\n" * (2 << 20))
        return self.start(**options)

    def health(self, client, tool="search"):
        records = json.loads(client.call("status", {})[1])["perf_stats"]
        found = next(record for record in records if record["tool_name"] == tool)
        for row in found["usage"]:
            del row["avg_ms"]  # may round otherwise after a restart, from the microseconds stored
        return found

    def outcomes(self, client, tool="search"):
        """How many of a tool's calls ended in which way."""
        rows = self.health(client, tool)["usage"]
        return {row["outcome"]: row["calls"] for row in rows}

    def cancel(self, client, *asked):
        for number in asked:
            notification = {"method": "notifications/cancelled", "params": {"requestId": number}}
            client.send(json.dumps({"jsonrpc": "2.0", **notification}).encode())

    def saved_calls(self):
        with contextlib.closing(sqlite3.connect(self.db)) as db:
            query = "SELECT call_count FROM tool_health WHERE tool_name = 'search'"
            rows = db.execute(query).fetchall()
        return rows[0][0] if rows else 0


class Protocol(ServerCase):
    def test_bad_lines_are_answered_and_survived(self):
        ping = request(method="ping")
        errors = {
            (None, -32700): [
                b"{",
                b"[" * 99_999,
                ping.replace(b"7", b"NaN"),
                ping.replace(b"n", b"\xff"),
            ],
            (None, -32600): [b"5", b"{}", b"[]", b"[%s]" % ping, ping + b" " * (3 << 20)]
            + [request(id=bad, method="ping") for bad in (None, True, 1.5, [], {})],
            (7, -32600): [ping.replace(b"2.0", b"1.0"), request(), request(method=["ping"])]
            + [request(method="ping", params=bad) for bad in (None, 5, "x", True)],
            (7, -32601): [request(method="tools/\ud800")],
            (7, -32602): [request(method="ping", params=[]), request(method="initialize")]
            + [request(method="tools/list", params={"cursor": "2"})]
            + [tool_call(name=bad) for bad in (None, 5, [], "", "rm", "\ud800")]
            + [tool_call(name="status", arguments=bad) for bad in (None, 5, [], "x")],
            None: [
                b'{"jsonrpc": "2.0", "method": "tools/call"}',
                b" ",
                request(result={}),
                b'{"jsonrpc": "2.0", "method": "notifications/cancelled", "params": [5]}',
                request(error={}),
            ],
        }
        client = self.start()
        for error, lines in errors.items():
            for line in lines:
                with self.subTest(line[:80]):
                    client.send(line)
                    client.send(request(id="next", method="ping"))
                    answers = []
                    while (answer := client.receive()) != PING:
                        answers.append((answer["id"], answer["error"]["code"]))
                    self.assertEqual(answers, [error] if error else [])
        self.assertEqual((client.close(), self.log.read_text()), (0, ""))

    def test_versions_and_batches(self):
        client = self.start()
        for asked, version in (
            ("2025-06-18", "2025-06-18"),
            ("2024-11-05", "2024-11-05"),
            ("2026-01-01", "2025-11-25"),
            ("x", "2025-11-25"),
            ("2025-03-26", "2025-03-26"),
        ):
            started = client.request("initialize", {"protocolVersion": asked})
            self.assertEqual(started["protocolVersion"], version)
            self.assertEqual(started["serverInfo"]["version"], __version__)
        messages = [
            request(method="ping"),
            tool_call(name="status").replace(b"7", b"8"),
            b"5",
            b'{"jsonrpc": "2.0", "method": "notifications/initialized"}',
        ]
        client.send(b"[%s]" % b",".join(messages))
        batch = client.receive()
        self.assertEqual([answer["id"] for answer in batch], [7, 8, None])
        client.send(b"[%s]" % messages[-1])
        client.send(b"[]")
        self.assertEqual(client.receive()["error"]["code"], -32600)

    def test_tools_and_their_data(self):
        client = self.start()
        for tool in client.request("tools/list", {})["tools"]:
            arguments = {"search": FIND, "read_file": {"path": "src/a.py"}}.get(tool["name"], {})
            self.assertEqual(set(tool["inputSchema"]["required"]), set(arguments))
            self.assertTrue(tool["title"] and tool["annotations"]["readOnlyHint"])
            result = client.request("tools/call", {"name": tool["name"], "arguments": arguments})
            self.assertFalse(result["isError"])
            self.assertEqual("structuredContent" in result, "outputSchema" in tool)
            if "structuredContent" in result:
                data, schema = result["structuredContent"], tool["outputSchema"]
                self.assertEqual(json.loads(result["content"][0]["text"]), data)
                self.assertEqual(set(schema["required"]), set(data))
        self.assertEqual(data["tools"][0]["count"], 1)

    def test_input_of_every_kind(self):
        lines = self.directory / "requests"
        lines.write_bytes(request(method="ping") + b"\n" + tool_call(name="status", arguments={}))
        command = [sys.executable, "-m", self.host.name, "--repo", self.sources, "--db", self.db]
        ours, theirs = socket.socketpair()
        with lines.open("rb") as file, ours, theirs:
            ours.sendall(lines.read_bytes())
            ours.shutdown(socket.SHUT_WR)
            for kind, source in (("file", file), ("socket", theirs)):
                with self.subTest(kind):
                    done = subprocess.run(
                        command, cwd=self.directory, stdin=source, capture_output=True
                    )
                    answers = list(map(json.loads, done.stdout.splitlines()))
                    self.assertEqual((done.returncode, len(answers)), (0, 2))


class Tools(ServerCase):
    def test_answers_stay_inside_and_agents_disable_nothing(self):
        for name, target in (("out", "/etc/passwd"), ("etc", "/etc"), ("loop", "loop")):
            (self.sources / name).symlink_to(target)
        os.mkfifo(self.sources / "pipe")
        (self.sources / "binary").write_bytes(b"root\0")
        (self.sources / "large").write_bytes(b"root\n" * (1 << 20))
        (self.sources / ".git").mkdir()
        (self.sources / "wide").write_text("x" * 3000 + "Needle\n")
        (self.sources / "rows").write_text("y" * 999 + "\n" + "z" * 999 + "\n" * 150_000)
        Path(os.fsdecode(bytes(self.sources) + b"/caf\xe9")).write_text("cup\n")
        text, file = {"action": "text", "pattern": "x"}, {"path": "src/a.py"}
        searched = (
            "\n(not searched: 1 x .git, 1 x binary files, 1 x files over 4 MiB, "
            "4 x links and special files)"
        )
        table = {
            "src/a.py:3: gamma" + searched: [text | {"pattern": "gam"}],
            "(no match)" + searched: [text | {"pattern": "Gam"}, text | {"pattern": "root"}],
            "wide:1: " + "x" * 200 + searched: [text | {"pattern": "needle"}],
            "caf?:1: cup\n(more than 1 matches; narrow the pattern)"
            + searched: [text | {"pattern": "p", "limit": 1.0}],
            "binary\ncaf?\nlarge\nrows\nwide\nsrc/a.py\n"
            "(not searched: 1 x .git, 4 x links and special files)": [
                {"mode": "glob", "query": "*"}
            ],
            "src/a.py\n(not searched: 1 x .git, 4 x links and special files)": [
                {"action": "files", "pattern": pattern} for pattern in ("*.py", "src/*", "**/a.*")
            ],
            "alpha\n(lines 1 to 1 of 3)": [file | {"max_lines": 1}],
            "beta\f\ngamma": [{"file": f"{self.sources}/src/../src/a.py", "offset": 2}],
            "Bad arguments: ": [text | {"pattern": bad} for bad in (5, "x" * 1001)]
            + [text | {"action": bad} for bad in ("drop", "", None, [], {})]
            + [
                text | bad
                for bad in ({"max_results": True}, {"limit": 0}, {"query": "y"}, {"z": 1})
            ]
            + [file | bad for bad in ({"start_line": 9}, {"start_line": -1}, {"max_lines": 1.5})]
            + [{"path": bad} for bad in ("../log", "/etc/passwd", "out", "etc/passwd", "loop")]
            + [{"path": bad} for bad in ("pipe", "src", "", "\0", "\ud800", "x" * 999)],
            "read_file cannot answer this call: ": [{"path": bad} for bad in ("binary", "large")],
        }
        client = self.start(disable_after_errors=1)
        for expected, calls in table.items():
            for arguments in calls:
                with self.subTest(arguments):
                    tool = "read_file" if {"path", "file"} & set(arguments) else "search"
                    is_error, answer = client.call(tool, arguments)
                    shown = answer[: len(expected)] if is_error else answer
                    self.assertEqual((shown, is_error), (expected, expected[-2:] == ": "))
        answer = client.call("read_file", {"path": "rows", "max_lines": 2000})[1]
        self.assertTrue(answer.endswith("\n(lines 1 to 2000 of 150001)"), answer[-50:])
        self.assertEqual(self.health(client)["error_count"], 0)
        usage = self.health(client, "read_file")["usage"]
        usage = [(row["outcome"], row["alias_hit"], row["calls"]) for row in usage]
        self.assertEqual(
            usage,
            [
                ("bad_arguments", False, 14),
                ("call_failed", False, 2),
                ("ok", False, 2),
                ("ok", True, 1),
            ],
        )

    def test_unreadable_file_is_the_calls_own_failure(self):
        """Three calls on a file without permission, and a long line: the tool stays enabled."""
        (self.sources / "secret").write_text("s")
        (self.sources / "secret").chmod(0)
        (self.sources / "line").write_text("l" * 100_001)
        for capability in (1, 2):  # child processes inherit the loss: a mode holds for root too
            ctypes.CDLL(None).prctl(24, capability, 0, 0, 0)
        client = self.start(disable_after_errors=1)
        for _ in range(3):
            is_error, answer = client.call("read_file", {"path": "secret"})
            self.assertEqual((is_error, answer[-17:]), (True, "Permission denied"))
        answer = client.call("read_file", {"path": "line"})[1]
        self.assertEqual(answer, "l" * 100_000 + "\n(line 1 of 1, cut after 100000 characters)")
        self.assertEqual(self.outcomes(client, "read_file"), {"call_failed": 3, "ok": 1})
        stats = json.loads(client.call("get_tool_performance_stats", {})[1])["tools"]
        self.assertEqual(
            [(stats[0][key]) for key in ("name", "count", "errors")], ["read_file", 4, 3]
        )


class ManyCalls(ServerCase):
    def test_answers_come_as_they_are_ready(self):
        client = self.start_slow()
        slow = [client.ask("tools/call", SLOW) for _ in range(config.WORKERS)]
        began = time.monotonic()
        self.assertEqual(client.request("ping", {}), {})
        self.assertFalse(client.call("status", {})[0])
        self.assertLess(time.monotonic() - began, 2)
        ended = {client.receive()["id"] for _ in slow}
        self.assertEqual(ended, set(slow))
        self.assertGreater(time.monotonic() - began, 4)
        self.assertEqual(self.outcomes(client), {"ok": config.WORKERS})

    def test_cancelled_calls_are_not_answered(self):
        client = self.start_slow(disable_after_errors=1)
        running = [client.ask("tools/call", SLOW) for _ in range(config.WORKERS)]
        queued = client.ask("tools/call", SLOW)
        self.cancel(client, queued, "unknown", *running)
        self.assertEqual(client.call("search", FIND), (False, "src/a.py"))
        self.assertEqual(self.outcomes(client), {"cancelled": config.WORKERS + 1, "ok": 1})
        self.assertEqual(self.health(client)["error_count"], 0)

    def test_full_queue(self):
        client = self.start_slow()
        bound = config.WORKERS + config.MAX_QUEUED
        asked = [client.ask("tools/call", SLOW) for _ in range(bound + 3)]
        for refused in asked[bound:]:
            answer = client.receive()
            self.assertEqual((answer["id"], answer["result"]["isError"]), (refused, True))
            self.assertIn("calls wait already", answer["result"]["content"][0]["text"])
        self.cancel(client, *asked[:bound])
        while client.call("search", FIND)[0]:
            pass  # the workers see it at their next look
        ended = self.outcomes(client)
        self.assertEqual((ended["cancelled"], ended["ok"]), (bound, 1))

    def test_one_call_goes_first_after_the_cooldown(self):
        client = self.start_slow(disable_after_errors=1, cooldown_s=0.5)
        client.request("ping", {})
        self.sources.rename(self.directory / "away")
        self.assertIn("FileNotFoundError", client.call("search", FIND)[1])
        (self.directory / "away").rename(self.sources)
        self.assertRegex(client.call("search", FIND)[1], "search is disabled.*useless")
        time.sleep(0.6)
        probe = client.ask("tools/call", SLOW)
        for _ in range(20):
            self.assertIn("another call is trying it now", client.call("search", FIND)[1])
        self.cancel(client, probe)  # it does not lock the tool: the next one tries
        client.request("ping", {})
        self.assertEqual(
            client.call("search", {"action": "text", "pattern": "(", "z": 1})[1][:4], "Bad "
        )
        self.assertEqual(client.call("search", FIND), (False, "src/a.py"))
        together = [
            client.ask("tools/call", {"name": "search", "arguments": FIND}) for _ in range(9)
        ]
        self.assertEqual({client.receive()["result"]["isError"] for _ in together}, {False})


class Saving(ServerCase):
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
        with locked(self.db):
            began = time.monotonic()
            client.call("search", FIND)
            self.assertLess(time.monotonic() - began, 3)
            while "locked" not in self.log.read_text():  # a save has given up
                time.sleep(0.1)
            client.process.stdout.close()
            client.send(tool_call(name="search", arguments=FIND))
            time.sleep(0.5)
        self.assertEqual((client.close(), self.saved_calls()), (0, 3))
        self.assertEqual(self.log.read_text().count("locked"), 1)

    def test_changes_that_are_lost_at_the_end(self):
        """The last save fails: the message says what is lost, also when signals come meanwhile."""
        client = self.start(flush_every=600)
        client.call("search", FIND)
        with locked(self.db):
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
                client.process.send_signal(number)
                time.sleep(0.3)
            self.assertEqual(client.process.wait(), 1)
        lost = f"The counts of the last 1 calls are lost, not saved to {self.db}"
        lost = rf"\AERROR .*: {lost}: .*locked\n\Z"
        self.assertRegex(self.log.read_text(), lost)

    def test_what_was_saved_outlives_kills_and_a_read_only_file(self):
        saved = 0
        for _ in range(3):
            client = self.start(flush_every=0.0001)
            client.call("search", FIND)
            self.assertGreater(self.health(client)["call_count"], saved)
            for _ in range(300):
                client.ask("tools/call", {"name": "search", "arguments": FIND})
            before = saved
            while saved < before + 20:
                saved = self.saved_calls()
            client.process.kill()
        self.assertEqual((self.start().close(), self.log.read_text()), (0, ""))
        content, saved = self.db.read_bytes(), self.saved_calls()
        self.db.chmod(0o444)
        for capability in (1, 2):  # child processes inherit the loss: a mode holds for root too
            ctypes.CDLL(None).prctl(24, capability, 0, 0, 0)
        for mode in (0o755, 0o555):
            self.directory.chmod(mode)
            client = self.start()
            client.call("search", FIND)
            self.assertEqual((self.health(client)["call_count"], client.close()), (saved + 1, 1))
        self.db.rename(self.sources / "db")
        self.assertEqual(self.start().close(), 0)  # nothing to save, nothing lost
        self.directory.chmod(0o755)
        self.assertEqual((self.sources / "db").read_bytes(), content)

    def test_refused_at_the_start(self):
        for options, told in (
            ({"repo": self.db}, "no directory"),
            ({"db": self.sources}, "no file can be there"),
            ({"db": "/no/such/db"}, "no file can be there"),
            ({"db": ""}, "no file can be there"),
            ({"flush_every": 0}, "must be more than 0"),
        ):
            with self.subTest(options):
                self.log.write_text("")
                self.assertEqual(self.start(**options).close(), 2)
                self.assertIn(told, self.log.read_text())
        self.module.rename(self.module.with_name("health.cpython-399.so"))
        self.log.write_text("")
        self.assertEqual(self.start().close(), 1)
        told = self.log.read_text()
        for words in ("is not built for", sys.executable, "(Python 3.13.", "health.cpython-399.so"):
            self.assertIn(words, told)


class Demo(ServerCase):
    def test_demo(self):
        (self.sources / "bell").write_text("the \x1b[31mbell\x07\n")
        run = [sys.executable, "-m", f"{self.host.name}.demo"]
        environment = os.environ | {"COLUMNS": "80", "TMPDIR": str(self.directory / "src")}
        (self.directory / "src").mkdir()
        ended = subprocess.run(
            [*run, self.sources],
            cwd=self.directory,
            env=environment,
            capture_output=True,
            text=True,
        )
        self.assertEqual((ended.returncode, ended.stderr), (0, ""))
        self.assertLessEqual(max(map(len, ended.stdout.splitlines())), 80)
        self.assertTrue(
            all(character.isprintable() or character == "\n" for character in ended.stdout)
        )
        slowest = int(ended.stdout.partition("the slowest after ")[2].split()[0])
        self.assertLess(slowest, 3000, "a call has waited for the database")
        self.assertIn("synonyms", ended.stdout)
        for how in ("a pipe that closes", "an interrupt"):
            with self.subTest(how), subprocess.Popen(
                [*run, self.sources],
                cwd=self.directory,
                env=environment,
                text=True,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
            ) as demo:
                demo.stdout.readline(), demo.stdout.readline()
                if how == "an interrupt":
                    demo.send_signal(signal.SIGINT)
                else:
                    demo.stdout.close()
                self.assertEqual((demo.stderr.read(), demo.wait()), ("", 0))
        self.assertEqual(list((self.directory / "src").iterdir()), [])
        ended = subprocess.run(
            [*run, self.sources / "bell"], cwd=self.directory, capture_output=True
        )
        self.assertEqual((ended.returncode, ended.stderr[:13]), (1, b"no directory:"))
