# Many calls at once, calls that hang, saving, and the start of the sample host.
# For example, four handlers that hang take nothing from the others: their calls are answered when
# their time is up, and read_file works on:
#     asked = [client.ask("tools/call", reading("hang")) for _ in range(WORKERS)]

import contextlib
import os
import re
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

from sample_host.config import MAX_QUEUED, WORKERS

from bench import hosts

from .servers import FILES, SLOW, ServerCase, call, eventually, reading


class ManyCalls(ServerCase):
    def test_handlers_that_hang(self):
        """Their calls are answered in time, also those behind them, and others go on."""
        self.configure(TIME_LIMIT_S=2)
        client = self.started(flush_every=600)
        asked = [client.ask("tools/call", reading("hang")) for _ in range(2 * WORKERS)]
        started = time.monotonic()
        for _ in asked:
            self.assertIn("no answer in 2 s", str(client.receive()))
        self.assertLess(time.monotonic() - started, 4, "time in the queue has not counted")
        self.assertEqual(client.call(*reading("src/a.py").values())[0], False)
        server = self.data(client, key="server")
        self.assertIn(server["stuck_threads"], range(WORKERS, len(asked) + 1))
        self.assertEqual((server["database"], server["last_save_error"]), (str(self.db), None))
        self.configure(MAX_STUCK=0)
        self.assertIn("Too many calls", self.started().call(*reading("src/a.py").values())[1])
        client.process.send_signal(signal.SIGTERM)
        self.assertEqual(client.process.wait(10), 0)

    def test_time_of_a_handler_is_its_own(self):
        self.configure(WORKERS=1, TIME_LIMIT_S=60)
        client = self.started()
        asked = [client.ask("tools/call", reading("wait")) for _ in range(2)]
        time.sleep(2)
        self.go()
        for number in asked:
            self.answer(client, number)
        (times,) = self.data(client, "get_tool_performance_stats", "tools")
        self.assertLess(times["min_ms"], 1000, "the wait for a worker has counted")

    def test_search_that_takes_too_long(self):
        """It answers with what it has, under an outcome of its own, and its process is ended."""
        self.configure(TIME_LIMIT_S=1)
        client = self.started(disable_after_errors=1)
        for _ in range(2):
            self.assertEqual(client.call(*SLOW.values()), (
                False, "a:1: slow\n(stopped after 1 s, after a:1; narrow the pattern)"))
        self.assertEqual(self.usage(client, "outcome"), {("cut_short",): 2})
        self.assertEqual(self.searchers(), [])

    def test_more_calls_than_can_wait(self):
        self.configure(TIME_LIMIT_S=600)
        client = self.started(disable_after_errors=1, flush_every=600)
        asked = [client.ask("tools/call", SLOW) for _ in range(WORKERS + MAX_QUEUED + 3)]
        for number in asked[-3:]:
            self.assertIn("calls wait already", self.answer(client, number))
        self.assertEqual(self.usage(client, "outcome"), {("overloaded",): 3})
        eventually(lambda: len(self.searchers()) == WORKERS)
        self.cancel(client, *asked[:-3])
        eventually(lambda: not self.searchers())
        self.assertEqual(client.call("search", FILES), (False, "src/a.py"))
        self.assertEqual(self.usage(client, "outcome")["cancelled",], len(asked) - 3)
        client.send(b"\n".join(call("status", {}, number) for number in range(600)))
        answers = [client.receive()["result"]["isError"] for _ in range(600)]
        self.assertIn(True, answers, "all waited for the one thread")
        threads = self.data(client, key="threads")
        self.assertEqual(threads["budget"], 10)
        self.assertLessEqual(threads["os"], 10)

    def test_one_call_goes_first_after_the_cooldown(self):
        """Whether calls were refused, or none came, or the server was started anew."""
        options = {"disable_after_errors": 2, "cooldown_s": 2, "flush_every": 600}
        self.configure(TIME_LIMIT_S=600)
        client = self.started(**options)
        for before in ("refused calls", "no call", "a restart"):
            with self.subTest(before):
                for _ in range(2):
                    self.assertIn("OSError", client.call(*reading("break").values())[1])
                if before == "a restart":
                    client.process.terminate()
                    self.assertEqual(client.process.wait(30), 0)
                    client = self.started(**options)
                elif before == "refused calls":
                    refused = "read_file is disabled.*OSError: it broke.*useless.*in [012] s"
                    self.assertRegex(client.call(*reading("src/a.py").values())[1], refused)
                time.sleep(3)
                for _ in range(2):  # one that is cancelled lets the next one try, and only that
                    probe = client.ask("tools/call", reading("hang"))
                    for _ in range(3):
                        told = client.call(*reading("src/a.py").values())[1]
                        self.assertIn("another call is trying it", told)
                    self.cancel(client, probe)
                    client.request("ping", {})
                self.assertFalse(client.call(*reading("src/a.py").values())[0])
                asked = [client.ask("tools/call", reading("src/a.py")) for _ in range(3)]
                answers = {client.receive()["result"]["isError"] for _ in asked}
                self.assertEqual(answers, {False})
        for words, count in (("read_file failed: OSError: it broke", 6),
                             ("read_file is disabled after 2 failures in a row, until ", 3),
                             ("read_file is enabled: ", 3)):
            with self.subTest(words):  # the log is written a moment later
                line = re.compile(rf"\d:\d\d,\d+ WARNING .*{words}")
                eventually(lambda: len(line.findall(self.log.read_text())) == count)

    def test_late_success(self):
        """That of a call from before the tool was disabled does not let everybody in."""
        client = self.started(disable_after_errors=2)
        late = client.ask("tools/call", reading("wait"))
        for _ in range(2):
            client.call(*reading("break").values())
        self.go()
        self.assertIn("alpha", self.answer(client, late))
        (self.directory / "go").unlink()
        client.ask("tools/call", reading("wait"))
        told = client.call(*reading("src/a.py").values())[1]
        self.assertIn("another call is trying it", told)


class Saving(ServerCase):
    def test_failing_saves_are_told_once_and_made_up_for(self):
        """And signals that come during the last one change nothing."""
        self.configure("repository.py", BUSY_TIMEOUT_S=0.5)
        client = self.start()
        for told, saved in ((1, 1), (2, 4)):
            client.call("search", FILES)
            reader, _ = self.in_database("BEGIN", "SELECT * FROM sqlite_master")
            eventually(lambda: self.saved_calls() == saved)  # while another process reads
            reader.close()
            lock, _ = self.in_database("BEGIN IMMEDIATE")
            client.call("search", {"action": "none"})
            eventually(lambda: self.log.read_text().count("\n") == told)
            if told == 1:
                self.assertIn("locked", self.data(client, key="server")["last_save_error"])
                time.sleep(1)
                lock.close()
                self.assertEqual(self.log.read_text().count("\n"), 1)  # it is not told again

        def has_ended():
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                client.process.send_signal(number)
            return client.process.poll() is not None

        eventually(has_ended)
        told = f"save to {self.db} what stays", "calls are lost, not saved to " + str(self.db)
        self.assertEnds(client, 1, told[0], told[0], told[1])

    def test_error_without_a_text(self):
        with (self.host / "repository.py").open("a") as module:
            module.write("\ndef fail(*_):\n    raise MemoryError\nDatabase.execute = fail\n")
        client = self.started(flush_every=600)
        client.call("search", FILES)
        self.assertEqual(client.close(), 1)
        self.assertIn("MemoryError()", self.log.read_text())

    def test_what_was_saved_outlives_kills_and_a_read_only_file(self):
        saved = 0
        for _ in range(3):
            client = self.start(flush_every=0.0001)
            for _ in range(WORKERS + MAX_QUEUED):
                client.ask("tools/call", reading("src/a.py"))
            client.receive()  # it has opened its database
            eventually(lambda: self.saved_calls() >= saved + 20)
            saved = self.saved_calls()
            client.process.kill()
            client.process.wait()
        self.assertEqual((self.start().close(), self.log.read_text()), (0, ""))
        saved = self.saved_calls()
        self.db.chmod(0o444)
        client = self.start()
        client.call(*reading("src/a.py").values())
        self.assertEqual(self.usage(client, "outcome", tool="read_file")["ok",], saved + 1)
        self.assertEqual(client.close(), 0 if os.access(self.db, os.W_OK) else 1)


class Starts(ServerCase):
    def test_refused(self):
        for told, options in (("no directory", {"repo": self.log}),
                              ("no file can be there: '/no/db'", {"db": "/no/db"}),
                              ("no file can be there: '/tmp'", {"db": "/tmp"}),
                              ("cooldown-s: must be more than 0", {"cooldown_s": "inf"}),
                              ("cooldown-s: must be more than 0", {"cooldown_s": 0}),
                              ("flush-every: must be more than 0", {"flush_every": 0})):
            with self.subTest(told, options=options):
                self.log.write_text("")
                self.assertEqual(self.start(**options).close(), 2)
                self.assertIn(told, self.log.read_text())
        with self.subTest("no ripgrep"):
            path, os.environ["PATH"] = os.environ["PATH"], str(self.directory)
            self.assertEqual(self.start().close(), 1)
            os.environ["PATH"] = path
            self.assertIn("ripgrep (rg) is not on the PATH", self.log.read_text())
        self.module.rename(self.module.with_name("health.cpython-399.so"))
        self.assertEqual(self.start().close(), 1)
        told = rf"is not built for {sys.executable} \(Python 3.13.*built.*: health.cpython-399.so"
        self.assertRegex(self.log.read_text(), told + r"[^$]*script/bootstrap")

    def test_history_that_cannot_be_used(self):
        """One that cannot be read is told, and what follows; one that holds no counts is an end."""
        self.db.write_text("no database")
        self.assertEqual(self.started().close(), 0)
        told = rf"not a database \(in {re.escape(str(self.db))}; counting from zero, and the next"
        self.assertEqual(len(re.findall(told, self.log.read_text())), 2)
        self.db.unlink()
        self.log.write_text("")
        with contextlib.closing(sqlite3.connect(self.db)) as other, other:
            other.execute("CREATE TABLE tool_health (tool_name PRIMARY KEY, call_count,"
                          " error_count, last_error, disabled_at, updated_at)")
            other.execute("INSERT INTO tool_health VALUES ('search', 'x', 0, NULL, NULL, NULL)")
        self.assertEnds(self.start(), 1, "holds what is no history of tools")


class Demo(ServerCase):
    def test_demo(self):
        (self.sources / "bell").write_text("the \x1b[31mbell\x07\n")
        scratch = self.enterContext(tempfile.TemporaryDirectory())
        demo = subprocess.run(
            [sys.executable, "-c", "import pathlib, sys; from bench.demo import main;"
             " main(*map(pathlib.Path, sys.argv[1:]))", self.sources, self.host],
            cwd=hosts.CHECKOUT, env=os.environ | {"COLUMNS": "80", "TMPDIR": scratch},
            capture_output=True, text=True)
        self.assertEqual((demo.returncode, demo.stderr, os.listdir(scratch)), (0, "", []))
        self.assertLessEqual(max(map(len, demo.stdout.splitlines())), 80)
        self.assertTrue(all(it.isprintable() or it == "\n" for it in demo.stdout))
        free, locked = map(int, re.findall(r"the slowest\s+after (\d+) ms", demo.stdout))
        self.assertLess(locked, 2000 + 2 * free, "a call has waited for the database")
