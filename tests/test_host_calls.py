"""Many calls at once, calls that hang, saving, and the start of the sample host."""

import os
import signal
import subprocess
import sys
import tempfile
import time
from unittest import mock

from sample_host.config import MAX_QUEUED, WORKERS

from bench import hosts

from .servers import FILES, SLOW, ServerCase, call, eventually


class ManyCalls(ServerCase):
    def test_handlers_that_hang(self):
        """Their calls are answered in time, also those behind them, and others go on."""
        self.configure(TIME_LIMIT_S=2)
        server, started = self.started(), time.monotonic()
        asked = [server.begin(path="wait") for _ in range(2 * WORKERS)]
        for _ in asked:
            self.assertIn("no answer in 2 s", str(server.receive()))
        self.assertLess(time.monotonic() - started, 4, "time in the queue has not counted")
        self.assertIn("alpha", server.read())
        status = server.data("server")
        self.assertIn(status["stuck_threads"], range(WORKERS, len(asked) + 1))
        self.assertEqual((status["database"], status["last_save_error"]), (str(self.db), None))
        self.go()
        eventually(lambda: server.data("server")["stuck_threads"] == 0)
        self.configure(MAX_STUCK=0)
        self.assertIn("Too many calls", self.started().read())
        server.process.send_signal(signal.SIGTERM)
        self.assertEqual(server.ends(), 0)

    def test_time_of_a_handler_is_its_own(self):
        self.configure(WORKERS=1)
        server = self.started()
        asked = [server.begin(path="wait") for _ in range(2)]
        time.sleep(2)
        self.go()
        self.assertEqual([server.receive()["id"] for _ in asked], asked)
        (times,) = server.data("tools", "get_tool_performance_stats")
        self.assertLess(times["min_ms"], 1000, "the wait for a worker has counted")

    def test_search_that_takes_too_long(self):
        """It answers with what it has, under an outcome of its own, and its process is ended."""
        self.configure(TIME_LIMIT_S=1)
        server = self.started(disable_after_errors=1)
        for _ in range(2):
            self.assertEqual(server.call("search", SLOW), (
                False, "a:1: slow\n(stopped after 1 s, after a:1; narrow the pattern)"))
        self.assertEqual((server.counted("outcome"), self.searches()), ({("cut_short",): 2}, []))
        times, *_ = server.data("tools", "get_tool_performance_stats")
        self.assertGreater(times["min_ms"], 500)

    def test_more_calls_than_can_wait(self):
        self.configure(TIME_LIMIT_S=600)
        server = self.started(disable_after_errors=1)
        asked = [server.begin("search", **SLOW) for _ in range(WORKERS + MAX_QUEUED + 3)]
        for number in asked[-3:]:
            self.assertIn("calls wait already", server.answer(number))
        self.assertEqual(server.counted("outcome"), {("overloaded",): 3})
        eventually(lambda: len(self.searches()) == WORKERS)
        server.cancel(*asked[:-3])
        eventually(lambda: not self.searches())
        self.assertEqual(server.call("search", FILES), (False, "src/a.py"))
        self.assertEqual(server.counted("outcome")["cancelled",], len(asked) - 3)
        server.send(b"\n".join(call("status", {}, number) for number in range(600)))
        answers = [server.receive()["result"]["isError"] for _ in range(600)]
        self.assertIn(True, answers, "all waited for the one thread")
        self.assertLessEqual(server.data("threads")["os"], 10)

    def test_one_call_goes_first_after_the_cooldown(self):
        """Whether calls were refused, or none came, or the server was started anew."""
        options = {"disable_after_errors": 2, "cooldown_s": 2}
        self.configure(TIME_LIMIT_S=600)
        server = self.started(**options)
        for before in ("refused calls", "no call", "a restart"):
            with self.subTest(before):
                server.send(b"\n".join(call("read_file", {"path": "break"}, it) for it in range(3)))
                for _ in range(3):
                    self.assertIn("OSError", str(server.receive()))
                if before == "a restart":
                    server.process.terminate()
                    self.assertEqual(server.ends(), 0)
                    server = self.started(**options)
                elif before == "refused calls":
                    self.assertRegex(server.read(), "is disabled.*OSError: it broke.*in [012] s")
                time.sleep(3)
                for _ in range(2):  # one that is cancelled lets the next one try, and only that
                    probe = server.begin(path="hang")
                    for _ in range(3):
                        self.assertIn("another call is trying it", server.read())
                    server.cancel(probe)
                    server.request("ping", {})
                self.assertIn("alpha", server.read())
                asked = [server.begin(path="src/a.py") for _ in range(3)]
                answers = {server.receive()["result"]["isError"] for _ in asked}
                self.assertEqual(answers, {False})
        self.assertEqual(server.counted("outcome", tool="read_file"), {
            ("failed",): 9, ("refused",): 19, ("cancelled",): 6, ("ok",): 12})
        for words, count in (("read_file failed: OSError: it broke", 9),
                             ("read_file is disabled after 2 failures in a row, until ", 3),
                             ("read_file is enabled: ", 3)):
            with self.subTest(words):  # the log is written a moment later
                eventually(lambda: self.log.read_text().count(words) == count)

    def test_late_success(self):
        """That of a call from before the tool was disabled does not let everybody in."""
        server = self.started(disable_after_errors=2)
        late = server.begin(path="wait")
        for _ in range(2):
            server.read("break")
        self.go()
        self.assertIn("alpha", server.answer(late))
        (self.directory / "go").unlink()
        server.begin(path="wait")
        self.assertIn("another call is trying it", server.read())
        eventually(lambda: self.log.read_text().count("is disabled") == 1)


class Saving(ServerCase):
    def test_failing_saves_are_told_once_and_made_up_for(self):
        """And signals that come during the last one change nothing."""
        self.append("repository.py", "BUSY_TIMEOUT_S = 0.5")
        server = self.start(flush_every=0.001)
        for told, saved in ((1, 1), (2, 4)):
            server.call("search", FILES)
            reader, _ = self.in_database("BEGIN", "SELECT * FROM sqlite_master")
            eventually(lambda: self.saved_calls() == saved)  # while another process reads
            reader.close()
            lock, _ = self.in_database("BEGIN IMMEDIATE")
            server.call("search", {"action": "none"})
            eventually(lambda: self.log.read_text().count("\n") == told)
            if told == 1:
                self.assertIn("locked", server.data("server")["last_save_error"])
                time.sleep(1)
                lock.close()
                self.assertEqual(self.log.read_text().count("\n"), 1)  # it is not told again

        def has_ended():
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                server.process.send_signal(number)
            return server.process.poll() is not None

        eventually(has_ended)
        self.assertEqual(server.ends(), 1)
        told = f" WARNING another_name.daemon.health_saver: Could not save to {self.db} what stays"
        self.assertLog(told, told, f" calls are lost, not saved to {self.db}")
        # A call that ended while the last good save began is in it, and counted as lost.
        self.assertRegex(self.log.read_text(), "last [12] calls are lost")

    def test_last_save_that_fails(self):
        """With an error that has no text, or not at all within its limit."""
        self.configure(LAST_SAVE_S=1)
        for code, told in (("raise MemoryError", "MemoryError()"),
                           ("import time; time.sleep(600)", "no answer in 1 s")):
            with self.subTest(told):
                self.append("repository.py", f"def fail(*_): {code}\nDatabase.execute = fail")
                server = self.started()
                server.call("search", FILES)
                self.assertEqual(server.close(), 1)
                self.assertIn(told, self.log.read_text())

    def test_disabled_before_a_restart(self):
        for _ in range(2):
            server = self.started(disable_after_errors=1)
            told = server.read("break")
            server.close()
        self.assertRegex(told, r"it broke.* in (2\d\d|300) s")

    def test_what_was_saved_outlives_kills_and_a_read_only_file(self):
        saved = 0
        for _ in range(3):
            server = self.start(flush_every=0.0001)
            for _ in range(WORKERS + MAX_QUEUED):
                server.begin(path="src/a.py")
            server.receive()  # it has opened its database
            eventually(lambda: self.saved_calls() >= saved + 20)
            saved = self.saved_calls()
            server.process.kill()
            server.process.wait()
        self.assertEqual((self.start().close(), self.log.read_text()), (0, ""))
        saved = self.saved_calls()
        self.db.chmod(0o444)
        server = self.started()
        server.read()
        self.assertEqual(server.counted("outcome", tool="read_file")["ok",], saved + 1)
        self.assertEqual(server.close(), 0 if os.access(self.db, os.W_OK) else 1)


class Starts(ServerCase):
    def test_refused(self):
        for told, options in (("no directory", {"repo": self.log}),
                              ("no file can be there: '/no/db'", {"db": "/no/db"}),
                              ("no file can be there: '/tmp'", {"db": "/tmp"}),
                              ("cooldown-s: must be more than 0", {"cooldown_s": "inf"}),
                              ("flush-every: must be more than 0", {"flush_every": 0})):
            with self.subTest(told, options=options):
                self.log.write_text("")
                self.assertEqual(self.start(**options).close(), 2)
                self.assertIn(told, self.log.read_text())

    def test_without_what_it_needs(self):
        with mock.patch.dict(os.environ, PATH=str(self.directory)):
            self.assertEqual(self.start().close(), 1)
            self.assertLog("ripgrep (rg) is not on the PATH")
        self.module.rename(self.module.with_name("health.cpython-399.so"))
        self.assertEqual(self.start().close(), 1)
        told = rf"not built for {sys.executable} \(Python 3.13.*built.*: health.cpython-399.so\.\n"
        self.assertRegex(self.log.read_text(), told + ".*script/bootstrap")

    def test_signal_while_the_history_is_read(self):
        self.append("repository.py", "BUSY_TIMEOUT_S = 600")
        self.in_database("BEGIN EXCLUSIVE")
        server = self.start()
        tasks = f"/proc/{server.process.pid}/task"
        eventually(lambda: len(os.listdir(tasks)) == 3)  # the loop, the log and the database
        server.process.terminate()
        self.assertEqual((server.ends(), self.log.read_text()), (1, ""))

    def test_history_that_cannot_be_used(self):
        """One that cannot be read is told, and what follows; one that holds no counts is an end."""
        self.db.write_text("no database")
        self.assertEqual(self.started().close(), 0)
        told = f"not a database (in {self.db}; counting from zero, and the next"
        self.assertLog(told, told)
        self.db.unlink()
        self.in_database(
            "CREATE TABLE tool_health (tool_name PRIMARY KEY, call_count, error_count, last_error,"
            " disabled_at, updated_at)",
            "INSERT INTO tool_health VALUES ('search', 'x', 0, NULL, NULL, NULL)")
        self.assertEqual(self.start().ends(), 1)
        self.assertIn("holds what is no history of tools", self.log.read_text())


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
        lines = demo.stdout.splitlines()
        self.assertTrue(all(it.isprintable() and len(it) <= 80 for it in lines), lines)
