"""The sample host's conversation: what it is sent and answers, and how it ends."""

import json
import os
import select
import signal
import subprocess
import sys
import time

from .servers import FILES, SLOW, ServerCase, call, eventually, message, request


class Protocol(ServerCase):
    def test_bad_lines_are_answered_and_survived(self):
        ping, note = request(), message(method="notifications/cancelled", params=[5])
        table = {  # by the answer's id and error
            (None, -32700): [b"{", b"[" * 99_999, ping.replace(b"7", b"NaN"), b"\xff"],
            (None, -32600): [b"5", b"[]", b"[%s]" % ping, note.ljust((1 << 20) + 1)]
            + [ping.ljust(3 << 20), *(request(id=bad) for bad in (None, True, 1.5, []))],
            (7, -32600): [ping.replace(b"2.0", b"1.0"), message(id=7), request(["ping"])]
            + [request(params=bad) for bad in (None, 5, "x")],
            (7, -32601): [request("tools/\ud800")],
            (7, -32602): [request("initialize"), request("tools/list", params={"cursor": "2"})]
            + [request(params=[]), *(call("status", bad) for bad in (None, 5, []))]
            + [call(bad, {}) for bad in (None, [], "rm", "\ud800")],
            (7, None): [request(id=7.0), request(result={})],
            None: [b" ", note.ljust(1 << 20), message(id=7, result={}), message(id=7, error={})]
            + [message(method="ping"), note.replace(b"[5]", b'{"requestId": []}')],
        }
        server = self.start()
        for error, lines in table.items():
            for line in lines:
                with self.subTest(line[:80]):
                    server.send(line + b"\n" + request(id="next"))
                    answers = []
                    while (answer := server.receive())["id"] != "next":
                        answers.append((answer["id"], answer.get("error", {}).get("code")))
                    self.assertEqual(answers, [error] if error else [])
        self.assertEqual((server.close(), self.log.read_text()), (0, ""))

    def test_versions(self):
        for asked, version in (("2025-06-18", "2025-06-18"), ("2026-01-01", "2025-11-25"),
                               ("2023-01-01", "2025-11-25"), ("2025-03-26", "2024-11-05")):
            with self.subTest(asked):
                server = self.start()
                for expected in (version, None):  # once
                    server.send(request("initialize", params={"protocolVersion": asked}))
                    answer = server.receive().get("result", {})
                    self.assertEqual(answer.get("protocolVersion"), expected)

    def test_tools_and_their_data(self):
        server = self.start()
        for tool in server.request("tools/list", {})["tools"]:
            arguments = {"search": FILES, "read_file": {"path": "src/a.py"}}.get(tool["name"], {})
            with self.subTest(tool["name"]):
                server.send(call(tool["name"], arguments))  # the same id again is no obstacle
                result = server.receive()["result"]
                promised = tool.get("outputSchema", {"required": ()})["required"]
                self.assertEqual(set(result.get("structuredContent", ())), set(promised))

    def test_ids(self):
        """One in use is refused without an answer under it, and is free after a cancellation."""
        server, hang = self.start(), call("read_file", {"path": "hang"}, 1)
        cancelled = message(method="notifications/cancelled", params={"requestId": 1})
        server.send(hang)
        for _ in range(2):
            server.cancel(True, "1", "unknown")  # nobody's ids
            server.send(call("search", FILES, 1.0))
            self.assertIn("is running", server.answer(None))
            server.send(b"\n".join((cancelled, hang, request())))
            self.assertEqual(server.receive()["id"], 7)  # the cancelled call has ended
        server.cancel(1)
        server.send(call("search", FILES, 1))
        self.assertEqual(server.answer(1), "src/a.py")


class Ends(ServerCase):
    def setUp(self):
        super().setUp()
        (self.sources / "src" / "large").write_text("x" * 99_000)
        asked = (call("read_file", {"path": "src/large"}, number) for number in range(50))
        self.requests = b"\n".join(asked)  # the last one without a line feed

    def run_server(self, stdin, stdout=subprocess.PIPE, close=""):
        """Run a server to its end, with a slow reader: its status, lines printed, and its log."""
        shell = ["sh", "-c", f'exec timeout 100 "$@" {close}', "sh"]
        with subprocess.Popen([*shell, sys.executable, "-m", self.host.name, *self.words()],
                              cwd=self.directory, stdin=stdin, stdout=stdout,
                              stderr=subprocess.PIPE) as server:
            time.sleep(1)
            printed = len(server.stdout.readlines()) if server.stdout else 0
            told = server.stderr.read().decode()
        return server.returncode, printed, told

    def test_files_for_input_and_output(self):
        asked = self.directory / "requests"
        asked.write_bytes(self.requests)
        with open(asked) as file, open("/dev/full", "w") as full, open(os.devnull, "w") as unread:
            self.assertEqual(self.run_server(file), (0, 50, ""))
            file.seek(0)
            status, _, told = self.run_server(file, full)
            self.assertEqual((status, "No space left" in told), (1, True), told)
            self.assertEqual(self.run_server(unread), (0, 0, ""))
        for closed in ("<&-", ">&-"):
            with self.subTest(closed):
                status, _, told = self.run_server(subprocess.DEVNULL, close=closed)
                self.assertEqual((status, "must be open" in told), (1, True), told)

    def test_pipes_that_do_not_wait(self):
        (stdin, asking), (answering, stdout) = os.pipe(), os.pipe()
        for end in (stdin, stdout):
            os.set_blocking(end, False)
        with subprocess.Popen([sys.executable, "-m", self.host.name, *self.words()], stdin=stdin,
                              cwd=self.directory, stdout=stdout) as server:
            os.close(stdin)
            os.close(stdout)
            time.sleep(1)  # the server finds nothing to read, and then nobody who reads
            with open(asking, "wb") as asking, open(answering, "rb") as answering:
                asking.write(self.requests)
                asking.close()
                time.sleep(1)
                self.assertEqual(len(answering.readlines()), 50)
        self.assertEqual(server.returncode, 0)

    def test_clients_that_do_not_read(self):
        """For one that never reads nothing more is taken in; one that has left ends the server."""
        self.configure(GRACE_S=0.5)
        server, taken = self.started(), 0
        stdin = server.process.stdin.fileno()
        os.set_blocking(stdin, False)
        lines = (request("tools/list") + b"\n") * 1000
        while select.select([], [stdin], [], 3)[1] and taken < 4 << 20:
            taken += os.write(stdin, lines)
        self.assertLess(taken, 4 << 20)
        server.process.terminate()
        self.assertEqual(server.ends(), 0)
        server = self.started()
        server.process.stdout.close()
        server.send(call("search", FILES))
        self.assertEqual(server.ends(), 1)
        self.assertRegex(self.log.read_text(), r"\A.* ERROR .*can not be answered: .*pipe\n\Z")
        self.assertEqual(self.saved_calls(), 1)

    def test_log_that_nobody_reads(self):
        reading_end, writing_end = os.pipe()
        server = self.start(stderr=writing_end, disable_after_errors=10**6)
        for _ in range(1500):
            server.read("break")
        self.assertEqual(server.counted("outcome", tool="read_file"), {("failed",): 1500})
        os.close(reading_end)
        os.close(writing_end)

    def test_running_calls_at_the_end(self):
        """At the end of input they get what is left of their limit; after a signal, a moment."""
        self.configure(TIME_LIMIT_S=3, GRACE_S=1)
        for end, reading, searching in (
                (lambda: server.process.stdin.close(), "no answer in 3 s", "stopped after 3 s"),
                (lambda: server.process.terminate(), "the server ends", "the server ends"),
                (lambda: server.process.send_signal(signal.SIGHUP), *["the server ends"] * 2)):
            server = self.started()
            expected = {server.begin(path="hang"): reading,
                        server.begin("search", **SLOW): searching}
            eventually(self.searches)
            end()
            for answer in (server.receive(), server.receive()):
                with self.subTest(expected):
                    self.assertIn(expected[answer["id"]], json.dumps(answer))
            self.assertEqual((server.ends(), self.searches()), (0, []))
