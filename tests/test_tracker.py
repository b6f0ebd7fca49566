"""What a tracker is for, with the expected values as such, where the other tests compare with plain
Python: disabling and the cooldown, the summary, and a history that outlives restarts and failing
databases.
"""

import dataclasses
import sqlite3
import tempfile
from pathlib import Path
from unittest import mock

from bench import hosts

from . import HealthCase

START = 1_700_000_000.0  # the clock's first reading
STARTED = "2023-11-14 22:13:20"  # the same as text
ENABLED, DISABLED = (False, None), (True, "E")
# The settings; the steps: success, error, ask, clear the marks, or so many seconds later; then the
# answers, and the record: calls, errors, last error, when disabled and changed (seconds after the
# start), errors in a row; and whether it is marked as changed.
DISABLING = [
    ((3, 60), "error error 2 error", [], (3, 3, "E", 2, 2, 3), True),
    ((3, 60), "error success error error clear ask", [ENABLED], (4, 3, "E", None, 0, 2), False),
    ((3, 60), "error error error clear 59.5 ask", [DISABLED], (3, 3, "E", 0, 0, 3), False),
    ((3, 60), "error error error clear 60 ask", [ENABLED], (3, 3, "E", None, 60, 0), True),
    ((2, 60), "error error 60 ask error ask", [ENABLED, ENABLED], (3, 3, "E", None, 60, 1), True),
    ((2, 60), "error error -9 ask 69 ask", [DISABLED, ENABLED], (2, 2, "E", None, 60, 0), True),
    ((3, 0), "error error error ask", [ENABLED], (3, 3, "E", None, 0, 0), True),
    ((0, 60), "success error ask", [DISABLED], (2, 1, "E", 0, 0, 1), True),
]


class Calls(HealthCase):
    def test_disabling_and_cooldown(self):
        for settings, steps, answers, record, marked in DISABLING:
            with self.subTest(steps, settings=settings):
                self.clock.now, seen = START, []
                tracker = self.host.tracker(limits=hosts.ToolsConfig(*settings))
                for step in steps.split():
                    match step:
                        case "success": tracker.record_success("a")
                        case "error": tracker.record_error("a", "E")
                        case "ask": seen.append(tracker.is_disabled("a"))
                        case "clear": tracker._dirty.clear()
                        case _: self.clock.now += float(step)
                found = dataclasses.astuple(tracker._state["a"])
                times = [None if time is None else time - START for time in found[3:5]]
                self.assertEqual((seen, (*found[:3], *times, found[5])), (answers, record))
                self.assertEqual(tracker._dirty, {"a"} if marked else set())

    def test_summary(self):
        """Most errors first, then most calls; a tool's rows most calls first, then by the texts of
        action and outcome.
        """
        tracker, state = self.host.tracker(limits=hosts.ToolsConfig(3, 5)), self.health._ToolState
        tracker._state |= {"few": state(10, 2), "gamma": state(100, 0), "many": state(50, 2)}
        for _ in range(3):
            tracker.record_error("off", "boom")
        self.clock.now += 100
        for action, outcome, alias_hit in (
                ("text", "ok", False), ("zeta", "failed", False), ("eta", "ok", False),
                (None, "ok", True), (None, "ok", False), ("text", "ok", False)):
            tracker.record_call("used", action, outcome, alias_hit=alias_hit, duration_ms=10)
        summary = tracker.get_health_summary()
        order = [record["tool_name"] for record in summary]
        self.assertEqual(order, ["off", "many", "few", "gamma", "used"])
        self.assertEqual(summary[0], {
            "tool_name": "off", "call_count": 3, "error_count": 3, "last_error": "boom",
            "disabled": True, "disabled_at": STARTED, "updated_at": STARTED, "usage": []})
        rows = [tuple(row.values()) for row in summary[-1]["usage"]]
        self.assertEqual(rows, [
            ("text", "ok", False, 2, 10.0, True), (None, "ok", False, 1, 10.0, False),
            (None, "ok", True, 1, 10.0, False), ("eta", "ok", False, 1, 10.0, False),
            ("zeta", "failed", False, 1, 10.0, False)])

    def test_kept_error(self):
        """Its first 500 characters, and an empty text for none."""
        tracker = self.host.tracker(limits=hosts.ToolsConfig(1))
        for error, kept in (("é" * 501, "é" * 500), ("x" * 500, "x" * 500), ("", ""), (None, "")):
            with self.subTest(error):
                tracker.record_error("a", error)
                self.assertEqual(tracker.is_disabled("a"), (True, kept))


class History(HealthCase):
    def fill(self, tracker):
        for name in "bac":
            tracker.record_error(name, f"{name} failed")
        tracker.record_call("zz", None, "ok\n", alias_hit=False, duration_ms=0.0625)
        tracker.record_call("a", "text", "ok", alias_hit=True, duration_ms=3)

    def test_what_is_stored(self):
        tracker = self.host.tracker(limits=hosts.ToolsConfig(1, 0))
        db = tracker._repo.db
        self.assertEqual((tracker.has_unsaved_changes, tracker.flush()), (False, 0))
        self.fill(tracker)
        tracker.is_disabled("c")
        tracker._dirty.add("unknown")
        self.assertTrue(tracker.has_unsaved_changes)
        self.assertEqual((tracker.flush(), tracker.has_unsaved_changes), (5, False))
        self.assertEqual(db.fetchall("SELECT * FROM tool_health"), [
            ("a", 1, 1, "a failed", STARTED, STARTED), ("b", 1, 1, "b failed", STARTED, STARTED),
            ("c", 1, 1, "c failed", None, STARTED)])
        self.assertEqual(db.fetchall("SELECT * FROM schema_info"), [("tool_usage", (
            '[{"tool":"zz","action":null,"outcome":"ok\\n","alias_hit":false,"calls":1,'
            '"timed_calls":1,"total_ms":0.062},{"tool":"a","action":"text","outcome":"ok",'
            '"alias_hit":true,"calls":1,"timed_calls":1,"total_ms":3.0}]'))])

    def test_restart_after_each_statement_failed(self):
        """Whichever statement fails, nothing counted is lost; a tool that is gone stays gone."""
        for fail_at in range(8):
            with self.subTest(fail_at=fail_at), tempfile.TemporaryDirectory() as folder:
                file = Path(folder, "history.db")
                before, gone = self.host.database(file), hosts.Tool()
                with mock.patch.dict(self.health.TOOLS, gone=gone, zz=gone):
                    old = self.host.tracker(before)
                    old.record_success("gone")
                    self.fill(old)
                    old.flush()
                db, failed = self.host.database(file), 0
                db.fail_at = fail_at
                self.host.warnings.clear()
                tracker = self.host.tracker(db)
                for _ in range(2):
                    self.fill(tracker)
                    try:
                        tracker.flush()
                    except sqlite3.OperationalError:
                        failed += 1
                tracker.flush()
                warned = [text % arguments for text, arguments in self.host.warnings]
                lost = {1: "health history", 2: "health history", 3: "usage counts"}.get(fail_at)
                told = [f"Could not read the tool {lost}: injected"] if lost else []
                self.assertEqual((warned, failed), (told, fail_at > 3))
                again = self.host.tracker(self.host.database(file))
                for record in tracker._state.values():
                    record.consecutive_errors = 0
                known = {key: counts for key, counts in tracker._usage.items() if key[0] == "a"}
                self.assertEqual((again._state, again._usage), (tracker._state, known))
                stored = before.fetchall("SELECT * FROM tool_health WHERE tool_name = 'gone'")
                self.assertEqual(stored, [])
