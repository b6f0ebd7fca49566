# The sample host as its clients see it: a server on a copy of the package, over its stdio.
#
# Every test starts real servers and plays their clients. For example, four slow searches keep every
# worker busy, and a ping sent after them must be answered before them:
#     slow = [client.ask("tools/call", SLOW) for _ in range(4)]
#     assert client.request("ping", {}) == {}
# A limit that a test cannot wait for is another one in its copy: self.configure(TIME_LIMIT_S=600).

import ctypes
import json
import os
import re
import select
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from sample_host.config import MAX_QUEUED, WORKERS
from sample_host.demo import Client
from sample_host.utils.timing import TimingCollector

from bench import hosts


FIND, FOUND = {"action": "files", "pattern": "*.py"}, (False, "src/a.py")
TEXT, A_FILE = {"action": "text", "pattern": "no such text"}, {"path": "src/a.py"}
FINDING, SLOW = ({"name": "search", "arguments": arguments} for arguments in (FIND, TEXT))


def message(**members):
    return json.dumps({"jsonrpc": "2.0", **members}).encode()


def request(method="ping", **members):
    return message(**{"id": 7, "method": method, **members})


def call(name, arguments, number=7):
    return request("tools/call", id=number, params={"name": name, "arguments": arguments})


# Wait until the condition holds.
def eventually(condition):
    ends_at = time.monotonic() + 30
    while not condition():
        assert time.monotonic() < ends_at, "waited in vain"
        time.sleep(0.01)


def setUpModule():
    for capability in (1, 2):  # file modes are to hold for the servers, also when they are root's
        ctypes.CDLL(None).prctl(24, capability, 0, 0, 0)


class ServerCase(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        names = ("another_name", "sources", "db?%41", "log")  # a URI has to quote the third
        self.host, self.sources, self.db, self.log = map(self.directory.joinpath, names)
        left_out = shutil.ignore_patterns("health.*", "__pycache__")
        shutil.copytree(hosts.CHECKOUT / "sample_host", self.host, ignore=left_out)
        name = "health.py" if hosts.MODULE.endswith(".py") else Path(hosts.MODULE).name
        self.module = Path(shutil.copy(hosts.MODULE, self.host / "tool_handlers" / name))
        (self.sources / "src").mkdir(parents=True)
        (self.sources / "src" / "a.py").write_bytes(b"alpha\nbeta\f\r\ngamma\n")

    def configure(self, file="config.py", **settings):
        with (self.host / file).open("a") as module:
            module.writelines(f"\n{name} = {value}" for name, value in settings.items())

    def start(self, **options):
        options = {"repo": self.sources, "db": self.db, "flush_every": 0.001, **options}
        words = [f"--{name.replace('_', '-')}={value}" for name, value in options.items()]
        client = Client(self.host, *words, stderr=self.enterContext(self.log.open("a")))
        self.addCleanup(client.close)
        self.addCleanup(client.process.kill)
        return client

    # A search for a text takes many seconds from now on, and no time limit ends it.
    def make_search_slow(self):
        self.configure(TIME_LIMIT_S=600)
        for number in range(24):
            (self.sources / f"long{number}").write_text("b\n" * (2 << 20))

    def data(self, client, tool="status", key="perf_stats"):
        return json.loads(client.call(tool, {})[1])[key]

    # How many calls were counted under which values of these columns.
    def usage(self, client, *columns, tool="search"):
        rows = next(it["usage"] for it in self.data(client) if it["tool_name"] == tool)
        return {tuple(row[column] for column in columns): row["calls"] for row in rows}

    # How many calls were timed, and how many of those are errors.
    def timed(self, client, tool="search"):
        stats = self.data(client, "get_tool_performance_stats", "tools")
        return next((row["count"], row["errors"]) for row in stats if row["name"] == tool)

    def cancel(self, client, *asked):
        for number in asked:
            client.send(message(method="notifications/cancelled", params={"requestId": number}))

    # Another process's connection, and what the last of its statements found.
    def in_database(self, *statements):
        other = sqlite3.connect(self.db, isolation_level=None)
        self.addCleanup(other.close)
        return other, [other.execute(statement).fetchall() for statement in statements][-1]

    # All that were counted; a save writes this last.
    def saved_calls(self):
        other, found = self.in_database("SELECT value FROM schema_info WHERE key = 'tool_usage'")
        other.close()
        return sum(row["calls"] for value, in found for row in json.loads(value))


class Protocol(ServerCase):
    def test_bad_lines_are_answered_and_survived(self):
        ping, note = request(), message(method="notifications/cancelled", params=[5])
        table = {
            (None, -32700): [b"{", b"[" * 99_999, ping.replace(b"7", b"NaN"), b"\xff"],
            (None, -32600): [b"5", b"{}", b"[]", b"[%s]" % ping, note.ljust((1 << 20) + 1)]
            + [ping.ljust(3 << 20), *(request(id=bad) for bad in (None, True, 1.5, [], {}))],
            (7, -32600): [ping.replace(b"2.0", b"1.0"), message(id=7), request(["ping"])]
            + [request(params=bad) for bad in (None, 5, "x", True)],
            (7, -32601): [request("tools/\ud800")],
            (7, -32602): [request("initialize"), request("tools/list", params={"cursor": "2"})]
            + [request(params=[]), *(call("status", bad) for bad in (None, 5, [], "x"))]
            + [call(bad, {}) for bad in (None, 5, [], "", "rm", "\ud800")],
            None: [b" ", note.ljust(1 << 20), message(id=7, result={}), message(id=7, error={})]
            + [message(method="ping"), note.replace(b"[5]", b'{"requestId": []}')],
        }
        client = self.start()
        for error, lines in table.items():
            for line in lines:
                with self.subTest(line[:80]):
                    client.send(line + b"\n" + request(id="next"))
                    answers = []
                    while (answer := client.receive())["id"] != "next":
                        answers.append((answer["id"], answer["error"]["code"]))
                    self.assertEqual(answers, [error] if error else [])
        self.assertEqual((client.close(), self.log.read_text()), (0, ""))

    def test_versions_and_batches(self):
        client = self.start()
        for asked, version in (("2025-06-18", "2025-06-18"), ("2026-01-01", "2025-11-25"),
                               ("2023-01-01", "2025-11-25"), ("2025-05-05", "2025-03-26")):
            started = client.request("initialize", {"protocolVersion": asked})
            self.assertEqual(started["protocolVersion"], version)
        note = message(method="notifications/initialized")  # the last of these is that with batches
        client.send(b"[%s, 5, %s, %s]\n[%s]" % (request(id=1), note, call("status", {}), note))
        self.assertEqual([answer["id"] for answer in client.receive()], [1, None, 7])
        client.send(b"[]")
        self.assertEqual(client.receive()["error"]["code"], -32600)

    def test_tools_and_their_data(self):
        client = self.start()
        for tool in client.request("tools/list", {})["tools"]:
            arguments = {"search": FIND, "read_file": A_FILE}.get(tool["name"], {})
            client.send(call(tool["name"], arguments))  # the same id again is no obstacle
            result = client.receive()["result"]
            promised = tool.get("outputSchema", {"required": ()})["required"]
            self.assertEqual(set(result.get("structuredContent", ())), set(promised))

    # It may end without a line feed, and what it asked for waits for a slow reader.
    def test_file_for_input(self):
        self.configure(GRACE_S=60)
        (self.sources / "src" / "a.py").write_text("x" * 99_000)
        lines = self.directory / "requests"
        lines.write_bytes(b"\n".join(call("read_file", A_FILE, number) for number in range(20)))
        command = [sys.executable, "-m", self.host.name, "--repo", self.sources, "--db", self.db]
        with lines.open() as file, subprocess.Popen(
                command, cwd=self.directory, stdin=file, stdout=subprocess.PIPE) as server:
            time.sleep(1)
            answers = [json.loads(line)["result"] for line in server.stdout]
        self.assertEqual((server.returncode, len(answers)), (0, 20))

    # For one that never reads nothing more is taken in; one that has left ends the server.
    def test_clients_that_do_not_read(self):
        self.configure(GRACE_S=0.5)
        client, taken = self.start(), 0
        stdin = client.process.stdin.fileno()
        os.set_blocking(stdin, False)
        while select.select([], [stdin], [], 2)[1] and taken < 2 << 20:
            taken += os.write(stdin, (request() + b"\n") * 1000)
        self.assertLess(taken, 2 << 20)
        client.process.terminate()
        self.assertEqual(client.process.wait(30), 0)
        client = self.start(flush_every=600)
        client.request("ping", {})
        client.process.stdout.close()
        client.send(call("search", FIND))
        self.assertEqual((client.process.wait(30), self.log.read_text()), (0, ""))
        self.assertEqual(self.saved_calls(), 1)


class Tools(ServerCase):
    def test_answers_stay_inside_and_agents_disable_nothing(self):
        for name, target in (("out", "/etc/passwd"), ("etc", "/etc"), ("loop", "loop")):
            (self.sources / name).symlink_to(target)
        os.mkfifo(self.sources / "pipe")
        for name in ("src/e", "src/d", "src/c", "src/b", ".git"):
            (self.sources / name).mkdir()
            (self.sources / name / "x").touch()
        for name, content in (
                (b"binary", b"root\0"), (b"caf\xe9", b"\xffcup\n"), (b"full", b"f" * (4 << 20)),
                (b"large", b"f" * (4 << 20) + b"\n"), (b"wide", b"x" * 3000 + b"Needle\n"),
                (b"rows", (b"y" * 999 + b"\n") * 100 + b"\n" * 2000)):
            Path(os.fsdecode(bytes(self.sources) + b"/" + name)).write_bytes(content)
        text = TEXT | {"pattern": "x"}
        listed = "\n(not searched: 1 x .git, 4 x links and special files)"
        searched = listed.replace("git,", "git, 1 x binary files, 1 x files over 4 MiB,")
        in_src = "src/a.py\nsrc/b/x\nsrc/c/x\nsrc/d/x\nsrc/e/x" + listed
        searches = {
            "src/a.py:3: gamma" + searched: [text | {"action": "grep", "pattern": "gam"}]
            + [text | {"pattern": "gam", "max_results": 1}],
            "(no match)" + searched: [text | {"pattern": none} for none in ("Gam", "root")],
            "wide:1: " + "x" * 200 + searched: [text | {"pattern": "x" * 1000, "limit": 500}]
            + [text | {"pattern": one} for one in ("needle", "Needle")],
            "caf?:1: \ufffdcup\n(more than 1 matches; narrow the pattern)" + searched:
                [text | {"pattern": "p", "max_results": 1.0}],
            "binary\ncaf?\nfull\nlarge\nrows\nwide\n" + in_src: [{"mode": "glob", "query": "**"}],
            in_src: [FIND | {"pattern": "src/**"}],
            "src/a.py" + listed:
                [FIND | {"pattern": one} for one in ("*.py", "src/*", "src/**/a.*")],
            "(no match)" + listed:
                [FIND | {"pattern": none} for none in ("no/**", "src", "src/a", "*/*/a.py")],
            "Bad arguments: ": [text | {"pattern": bad} for bad in (5, "x" * 1001)]
            + [text | {"action": bad} for bad in ("drop", "", None, [], {})]
            + [text | {"max_results": bad} for bad in (True, 0, 501)]
            + [text | {"query": "y"}, text | {"path": "y"}, {"action": "text"}],
        }
        reads = {
            "alpha\n(lines 1 to 1 of 3)": [A_FILE | {"max_lines": 1}],
            "beta\f\ngamma": [{"file": f"{self.sources}/src/../src/a.py", "offset": 2}],
            "gamma": [A_FILE | {"start_line": 3, "max_lines": 2000}],
            "f" * 100_000 + "\n(line 1 of 1, cut after 100000 characters)": [{"path": "full"}],
            ("y" * 999 + "\n") * 100 + "(lines 1 to 100 of 2100)": [{"path": "rows"}],
            "Bad arguments: ": [A_FILE | bad for bad in ({"start_line": 4}, {"start_line": -1})]
            + [A_FILE | {"max_lines": bad} for bad in (1.5, 2001)]
            + [{"path": bad} for bad in ("../log", "/etc/passwd", "out", "etc/passwd", "loop")]
            + [{"path": bad} for bad in ("pipe", "src", "", "\0", "\ud800", "x" * 999)],
            "read_file cannot answer this call: ": [{"path": bad} for bad in ("binary", "large")],
        }
        client = self.start(disable_after_errors=1)
        for tool, table in (("search", searches), ("read_file", reads)):
            for expected, arguments in ((key, call) for key in table for call in table[key]):
                with self.subTest(arguments):
                    is_error, answer = client.call(tool, arguments)
                    shown = answer[: len(expected)] if is_error else answer
                    self.assertEqual((shown, is_error), (expected, expected[-2:] == ": "))
        self.assertEqual(self.usage(client, "action", "outcome", "alias_hit", "slow"), {
            ("text", "ok", False, True): 6, ("text", "ok", True, True): 2,
            ("files", "ok", False, False): 8, ("files", "ok", True, False): 1,
            (None, "bad_arguments", False, False): 13})
        reads = self.usage(client, "outcome", "alias_hit", tool="read_file")
        self.assertEqual((reads["call_failed", False], reads["ok", True]), (2, 1))
        self.assertEqual((self.timed(client), self.timed(client, "read_file")), ((17, 0), (7, 2)))

    def test_times(self):
        collector = TimingCollector()
        for duration in [*range(100, 0, -1), *[7] * 1000]:
            collector.record("many", duration, failed=duration > 90)
            if duration == 1:
                before = collector.get_all_stats()
        self.assertEqual(list(before[0].values()), ["many", 100, 50.5, 95, 1, 100, 10])
        # Those before are too long ago for the percentile.
        self.assertEqual(collector.get_all_stats()[0]["p95_ms"], 7)

    # One that may not be read is the call's own failure; the tool fails without the root.
    def test_unreadable_files_and_directories(self):
        (self.sources / "secret").touch(0)
        (self.sources / "closed").mkdir(0)
        client = self.start(disable_after_errors=1)
        for _ in range(2):
            self.assertIn("Permission denied", client.call("read_file", {"path": "secret"})[1])
        kinds = "1 x unreadable directories, 1 x unreadable files: Permission denied"
        self.assertEqual(client.call("search", TEXT)[1], f"(no match)\n(not searched: {kinds})")
        self.sources.chmod(0)
        self.assertIn("PermissionError", client.call("search", FIND)[1])
        self.sources.chmod(0o755)

    # It is looked at between files and between lines.
    def test_time_limit(self):
        (self.sources / "src" / "long").write_text("b\n" * (2 << 20))
        alpha = TEXT | {"pattern": "alpha"}
        for limit, tool, arguments in ((0, "search", FIND), (0, "search", alpha),
                                       (0, "read_file", A_FILE), (0.05, "search", TEXT)):
            self.configure(TIME_LIMIT_S=limit)
            client = self.start(disable_after_errors=1)
            for _ in range(2):
                stopped = rf"\A(\(no match\)|read_file cannot.*)\W+stopped after {limit} s"
                self.assertRegex(client.call(tool, arguments)[1], stopped)


class ManyCalls(ServerCase):
    # While workers and queue are full, when those calls are cancelled, and at the end.
    def test_answers_come_as_they_are_ready(self):
        self.make_search_slow()
        self.configure(GRACE_S=3)
        client = self.start(disable_after_errors=1, flush_every=600)
        asked = [client.ask("tools/call", SLOW) for _ in range(WORKERS + MAX_QUEUED + 3)]
        for number in asked[-3:]:
            answer = client.receive()
            self.assertEqual((answer["id"], answer["result"]["isError"]), (number, True))
            self.assertIn("calls wait already", answer["result"]["content"][0]["text"])
        self.cancel(client, True, "1", "unknown")  # nobody's ids
        client.send(call("search", FIND, number=1))
        self.assertEqual(client.receive()["error"]["code"], -32600)  # that id is in use
        names = dict.fromkeys(("MainThread", "stdin", "stdout", "database", "status"), 1)
        threads = {"os": 9, "python": 9, "python_by_name": {**names, "worker": WORKERS}}
        self.assertEqual(self.data(client, key="threads"), {**threads, "budget": 9})
        self.assertEqual(self.usage(client, "outcome"), {("overloaded",): 3})
        self.cancel(client, *asked[:-3])
        eventually(lambda: client.call("search", FIND) == FOUND)  # at the workers' next look
        ended = self.usage(client, "outcome")
        self.assertEqual((ended["cancelled",], self.timed(client)), (len(asked) - 3, (1, 0)))
        for _ in range(WORKERS):
            client.ask("tools/call", SLOW)
        client.request("ping", {})
        client.process.send_signal(signal.SIGINT)
        time.sleep(1)
        client.ask("ping", {})  # is taken in no more
        self.assertEqual((client.process.wait(30), client.process.stdout.read()), (0, b""))
        cancelled = self.usage(self.start(), "outcome")["cancelled",]
        self.assertEqual(cancelled, len(asked) - 3 + WORKERS)

    # Whether the server has refused calls before, or none came, or it was started anew.
    def test_one_call_goes_first_after_the_cooldown(self):
        options = {"disable_after_errors": 2, "cooldown_s": 2, "flush_every": 600}
        self.make_search_slow()
        client = self.start(**options)
        client.request("ping", {})  # it is there
        for before in ("refused calls", "no call", "a restart"):
            self.sources.rename(self.directory / "away")
            for _ in range(2):
                self.assertIn("FileNotFoundError", client.call("search", FIND)[1])
            (self.directory / "away").rename(self.sources)
            if before == "a restart":
                client.process.terminate()
                self.assertEqual(client.process.wait(30), 0)
                client = self.start(**options)
            elif before == "refused calls":
                refused = "search is disabled.*FileNotFoundError.*useless.*in 2 s"
                self.assertRegex(client.call("search", FIND)[1], refused)
                usage = {("failed", None): 2, ("refused", None): 1}
                self.assertEqual(self.usage(client, "outcome", "avg_ms"), usage)
                self.assertEqual(self.timed(client), (2, 2))
            time.sleep(2)
            for _ in range(2):  # a probe that is cancelled lets the next one try, and only that
                probe = client.ask("tools/call", SLOW)
                for _ in range(9):
                    self.assertIn("another call is trying it", client.call("search", FIND)[1])
                self.cancel(client, probe)
                client.request("ping", {})
            self.assertIn("Bad arguments", client.call("search", {"z": 1})[1])
            self.assertEqual(client.call("search", FIND), FOUND)
            together = [client.ask("tools/call", FINDING) for _ in range(9)]
            self.assertEqual({client.receive()["result"]["isError"] for _ in together}, {False})
        self.assertEqual(self.log.read_text().count("search failed: FileNotFoundError"), 6)


class Saving(ServerCase):
    # And signals that come during the last one change nothing.
    def test_failing_saves_are_told_once_and_made_up_for(self):
        self.configure("repository.py", BUSY_TIMEOUT_S=1)
        client = self.start()
        for told, saved in ((1, 1), (2, 3)):
            client.call("search", FIND)
            reader, _ = self.in_database("BEGIN", "SELECT * FROM sqlite_master")
            eventually(lambda: self.saved_calls() == saved)  # while another process reads
            reader.close()
            lock, _ = self.in_database("BEGIN IMMEDIATE")
            client.call("search", {"action": "none"})
            eventually(lambda: self.log.read_text().count("\n") == told)
            if told == 1:
                time.sleep(1.5)
                lock.close()
                self.assertEqual(self.log.read_text().count("\n"), 1)  # it is not told again

        def has_ended():
            for number in (signal.SIGTERM, signal.SIGINT):
                client.process.send_signal(number)
            return client.process.poll() is not None

        eventually(has_ended)
        self.assertEqual(client.process.returncode, 1)
        told = f"save to {self.db} what stays", f"last 1 calls are lost, not saved to {self.db}"
        told = [rf".* {re.escape(words)}.*: database is locked\n" for words in told]
        self.assertRegex(self.log.read_text(), rf"\A(WARNING{told[0]}){{2}}ERROR{told[1]}\Z")

    def test_what_was_saved_outlives_kills_and_a_read_only_file(self):
        saved = 0
        for _ in range(3):
            client = self.start(flush_every=0.0001)
            for _ in range(WORKERS + MAX_QUEUED):
                client.ask("tools/call", FINDING)
            client.receive()  # it has opened its database
            eventually(lambda: self.saved_calls() >= saved + 20)
            saved = self.saved_calls()
            client.process.kill()
            client.process.wait()
        self.assertEqual((self.start().close(), self.log.read_text()), (0, ""))
        saved = self.saved_calls()
        self.db.chmod(0o444)
        for mode, known in ((0o555, saved), (0o755, saved), (0o555, 0)):
            if not known:  # as at a first start
                self.db.unlink()
            self.directory.chmod(mode)
            if not known:
                self.assertEqual(self.start().close(), 0)  # nothing to save, nothing lost
            client = self.start()
            self.assertEqual(client.call("search", FIND), FOUND)
            self.assertEqual(self.usage(client, "outcome")["ok",], known + 1)
            self.assertEqual(client.close(), 1)
        self.directory.chmod(0o755)

    def test_refused_at_the_start(self):
        for told, options in (("no directory", {"repo": self.log}),
                              ("no file can be there: '/no/db'", {"db": "/no/db"}),
                              ("no file can be there: '/tmp'", {"db": "/tmp"}),
                              ("cooldown-s: must be more than 0", {"cooldown_s": "inf"})):
            self.assertEqual(self.start(**options).close(), 2)
            self.assertIn(told, self.log.read_text())
        self.module.rename(self.module.with_name("health.cpython-399.so"))
        self.assertEqual(self.start().close(), 1)
        told = rf"is not built for {sys.executable} \(Python 3.13.*built.*: health.cpython-399.so"
        self.assertRegex(self.log.read_text(), told)


class Demo(ServerCase):
    def test_demo(self):
        (self.sources / "bell").write_text("the \x1b[31mbell\x07\n")
        scratch = self.enterContext(tempfile.TemporaryDirectory())
        demo = subprocess.run(
            [sys.executable, "-m", f"{self.host.name}.demo", self.sources], cwd=self.directory,
            env=os.environ | {"COLUMNS": "80", "TMPDIR": scratch}, capture_output=True, text=True)
        self.assertEqual((demo.returncode, demo.stderr, os.listdir(scratch)), (0, "", []))
        self.assertLessEqual(max(map(len, demo.stdout.splitlines())), 80)
        self.assertTrue(all(it.isprintable() or it == "\n" for it in demo.stdout))
        free, locked = map(int, re.findall(r"the slowest after (\d+) ms", demo.stdout))
        self.assertLess(locked, 2000 + 2 * free, "a call has waited for the database")
