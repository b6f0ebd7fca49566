"""What the sample host's tools answer, and what they never show: what is outside the directory."""

import os
from pathlib import Path

from sample_host.utils.timing import TimingCollector

from .servers import FILES, ServerCase

TEXT = {"action": "text", "pattern": "no such text"}
A_FILE = {"path": "src/a.py"}


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
                (b"forged\na:1: x", b"q\n"), (b"!note", b"q\n"),
                (b"rows", (b"y" * 999 + b"\n") * 100 + b"\n" * 2000)):
            Path(os.fsdecode(bytes(self.sources) + b"/" + name)).write_bytes(content)
        in_src = "src/a.py\nsrc/b/x\nsrc/c/x\nsrc/d/x\nsrc/e/x"
        searches = {
            "src/a.py:3: gamma": [TEXT | {"pattern": "gam"}, {"action": "grep", "pattern": "gam"}]
            + [{"mode": "text", "query": "gam"}]
            + [TEXT | {"pattern": "gam", "glob": one} for one in ("*.py", "src/**", "src/*.py")],
            "(no match)": [TEXT | {"pattern": none} for none in ("Gam", "root", "-e", "")][:3]
            + [FILES | {"pattern": none} for none in ("no/**", "src", "src/a", "*/*/a.py")]
            + [TEXT | {"pattern": "gam", "glob": none} for none in ("*.txt", "!src")],
            "wide:1: " + "x" * 100 + "Needle": [TEXT | {"pattern": "needle", "limit": 500}],
            "caf\ufffd:1: \ufffdcup\n(more than 1 matches; narrow the pattern)":
                [TEXT | {"pattern": "p", "max_results": 1.0}],
            "full:1: " + "f" * 200: [TEXT | {"pattern": "f" * 1000}],
            "(no match)\n(stopped at a line with too many matches, before the first match; narrow"
            " the pattern)": [TEXT | {"pattern": "fff"}],
            "!note:1: q\nforged\\na:1: x:1: q": [TEXT | {"pattern": "q"}],
            "!note\nbinary\ncaf\ufffd\nlarge\nrows\n" + in_src + "\nwide":
                [FILES | {"pattern": "[!f]*"}],
            in_src: [FILES | {"pattern": "src/**"}],
            "src/a.py": [FILES | {"pattern": one} for one in ("*.py", "src/*", "src/**/a.*")],
            "!note": [FILES | {"pattern": "!note"}],
            "Bad arguments: ": [TEXT | {"pattern": bad} for bad in (5, "x" * 1001)]
            + [TEXT | {"action": bad} for bad in ("drop", "", None, [], {})]
            + [TEXT | {"max_results": bad} for bad in (True, 0, 501)] + [FILES | {"glob": "*"}]
            + [FILES | {"pattern": "["}, TEXT | {"pattern": "a\nb"}]
            + [TEXT | {"query": "y"}, TEXT | {"path": "y"}, {"action": "text"}],
        }
        reads = {
            "alpha\n(lines 1 to 1 of 3)": [A_FILE | {"max_lines": 1}],
            "beta\f\ngamma": [{"file": "./src//a.py", "offset": 2}],
            "gamma": [A_FILE | {"start_line": 3, "max_lines": 2000}],
            "f" * 100_000 + "\n(line 1 of 1, cut after 100000 characters)": [{"path": "full"}],
            ("y" * 999 + "\n") * 100 + "(lines 1 to 100 of 2100)": [{"path": "rows"}],
            "Bad arguments: ": [A_FILE | bad for bad in ({"start_line": 4}, {"start_line": -1})]
            + [A_FILE | {"max_lines": bad} for bad in (1.5, 2001)]
            + [{"path": bad} for bad in ("../log", "/etc/passwd", "out", "etc/passwd", "loop")]
            + [{"path": bad} for bad in ("pipe", "src", "", "\0", "\ud800", "x" * 999)],
            "read_file cannot answer this call: ": [{"path": bad} for bad in ("binary", "large")],
        }
        server = self.start(disable_after_errors=1)
        for tool, table in (("search", searches), ("read_file", reads)):
            for expected, arguments in ((key, call) for key in table for call in table[key]):
                with self.subTest(arguments):
                    is_error, answer = server.call(tool, arguments)
                    shown = answer[: len(expected)] if is_error else answer
                    self.assertEqual((shown, is_error), (expected, expected[-2:] == ": "))
        counted = server.counted("action", "outcome", "alias_hit", "slow")
        self.assertEqual(counted["text", "ok", True, True], 3)
        self.assertEqual(counted[None, "bad_arguments", False, False], 14)
        self.assertEqual(counted["files", "bad_arguments", False, False], 1)
        reads = server.counted("outcome", "alias_hit", tool="read_file")
        self.assertEqual((reads["call_failed", False], reads["ok", True]), (2, 1))
        _, times, *_ = server.data("tools", "get_tool_performance_stats")
        self.assertEqual((times["name"], times["errors"]), ("read_file", 2))
        self.assertLess(len(os.listdir(f"/proc/{server.process.pid}/fd")), 12)

    def test_directory_that_is_replaced_or_gone(self):
        """The tools fail, whatever is at its place, until it is back."""
        server = self.started(disable_after_errors=100)
        self.sources.rename(self.directory / "away")
        for name, arguments in (("search", FILES), ("read_file", A_FILE)):
            self.assertIn("FileNotFoundError", server.call(name, arguments)[1])
        self.sources.symlink_to("/etc")
        for name, arguments in (("search", FILES), ("read_file", {"path": "passwd"})):
            self.assertIn("another directory", server.call(name, arguments)[1])
        self.sources.unlink()
        (self.directory / "away").rename(self.sources)
        self.assertEqual(server.call("search", FILES), (False, "src/a.py"))

    def test_times(self):
        collector = TimingCollector()
        for duration in [None, *range(101, 0, -1), *[7] * 1000]:
            collector.record("many", duration, failed=duration is None or duration > 90)
            if duration == 1:
                before = collector.get_all_stats()
        self.assertEqual(list(before[0].values()), ["many", 102, 51, 96, 1, 101, 12])
        # Those before are too long ago for the percentile.
        self.assertEqual(collector.get_all_stats()[0]["p95_ms"], 7)
        collector.record("none", None, failed=True)
        self.assertEqual(list(collector.get_all_stats()[1].values()), ["none", 1, 0, 0, 0, 0, 1])
