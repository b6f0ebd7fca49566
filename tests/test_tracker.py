# What a tracker is for, by example: disabling and the cooldown, counting, the summary, and a
# history that outlives restarts and failing databases.
#
# The expected values stand here as such; the other tests compare with plain Python. For example,
# three errors in a row disable a tool, until 60 seconds later somebody asks for it:
#
#     tracker.record_error("a", "E")      # three times, at the second 0
#     tracker.is_disabled("a")            # (True, "E") up to the second 59.999
#     tracker.is_disabled("a")            # (False, None) at the second 60

import dataclasses
import json
import sqlite3
import tempfile
import threading
from pathlib import Path

from . import HealthCase, hosts

START = 1_700_000_000.0  # the clock's first reading
STARTED = "2023-11-14 22:13:20"  # the same as text
COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
UPSERT = f"""INSERT INTO tool_health ({COLUMNS})
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at"""
WRITE_USAGE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"
ENABLED, DISABLED = (False, None), (True, "E")
# The settings; the steps: success, error, ask, clear the marks, or so many seconds later; then the
# answers, and the record: calls, errors, last error, when disabled and changed (seconds after the
# start), errors in a row; and whether it is marked as changed.
DISABLING = [
    ((3, 60), "5 success", [], (1, 0, None, None, 5, 0), True),
    ((3, 60), "error error 2 error", [], (3, 3, "E", 2, 2, 3), True),
    ((3, 60), "error error error 5 error", [], (4, 4, "E", 5, 5, 4), True),
    ((3, 60), "error error success error error clear ask", [ENABLED], (5, 4, "E", None, 0, 2), False),
    ((3, 60), "error error error 1 success ask", [ENABLED], (4, 3, "E", None, 1, 0), True),
    ((3, 60), "error error error clear 59.5 ask", [DISABLED], (3, 3, "E", 0, 0, 3), False),
    ((3, 60), "error error error clear 60 ask", [ENABLED], (3, 3, "E", None, 60, 0), True),
    ((3, 60), "error error error 60 ask error error ask", [ENABLED] * 2, (5, 5, "E", None, 60, 2), True),
    ((3, 60), "error error error -9 ask 69 ask", [DISABLED, ENABLED], (3, 3, "E", None, 60, 0), True),
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

    def test_counting(self):
        tracker, usage = self.host.tracker(), self.health._Usage
        for action, alias_hit, duration_ms in (
                (None, False, None), ("", False, 0.0), (None, True, 2), (None, False, 12.5)):
            tracker.record_call("a", action, "ok", alias_hit=alias_hit, duration_ms=duration_ms)
        self.assertEqual(tracker._usage, {
            ("a", None, "ok", False): usage(2, 1, 12.5), ("a", "", "ok", False): usage(1, 1, 0.0),
            ("a", None, "ok", True): usage(1, 1, 2.0)})
        self.assertEqual((tracker._state, tracker._usage_dirty), ({}, True))

    # Most errors first, then most calls; most calls first, then by the texts of the key.
    def test_summary(self):
        tracker, state = self.host.tracker(limits=hosts.ToolsConfig(3, 5)), self.health._ToolState
        tracker._state |= {"few": state(10, 2), "gamma": state(100, 0), "many": state(50, 2),
                           "alike": state(100, 0)}
        for _ in range(3):
            tracker.record_error("off", "boom")
        self.clock.now += 100
        for action, alias_hit in (("text", False), (None, True), (None, False), ("text", False)):
            tracker.record_call("used", action, "ok", alias_hit=alias_hit, duration_ms=10)
        summary = tracker.get_health_summary()
        order = [record["tool_name"] for record in summary]
        self.assertEqual(order, ["off", "many", "few", "gamma", "alike", "used"])
        self.assertEqual(summary[0], {
            "tool_name": "off", "call_count": 3, "error_count": 3, "last_error": "boom", "usage": [],
            "disabled": True, "disabled_at": STARTED, "updated_at": STARTED})
        rows = [(row["action"], row["alias_hit"], row["calls"]) for row in summary[-1]["usage"]]
        self.assertEqual(rows, [("text", False, 2), (None, False, 1), (None, True, 1)])
        self.assertEqual(summary[-1]["usage"][0], {
            "action": "text", "outcome": "ok", "alias_hit": False, "calls": 2, "avg_ms": 10.0,
            "slow": True})
        self.assertEqual(summary[-1]["updated_at"], "1970-01-01 00:00:00")

    def test_reports(self):
        census = hosts.ThreadCensus(None, 12, {"pool": 12})
        self.assertEqual(self.health.thread_census_report(11, census), {
            "python": 12, "python_by_name": {"pool": 12}, "budget": 11, "warning":
            "The process holds 12 threads, more than the 11 its pools allow: threads are piling up. A"
            " thread that ran the local embedding model keeps a team of torch threads, as many as"
            " KAVRIN_EMBED_THREADS allows (0 leaves torch's own size)."})
        self.assertEqual(self.health.thread_census_report(7), {
            "os": 7, "python": 3, "python_by_name": {"MainThread": 1, "pool": 2}, "budget": 7})
        shown = dict.fromkeys(("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors"), 1)
        self.host.timings.append(shown | {"more": 1})
        self.assertEqual(self.health.handle_get_tool_performance_stats(), {"tools": [shown]})


class History(HealthCase):
    def fill(self, tracker):
        for name in "bac":
            tracker.record_error(name, f"{name} failed")
        tracker.record_call("zz", None, "ok\n", alias_hit=False, duration_ms=0.0625)
        tracker.record_call("a", "text", "ok", alias_hit=True, duration_ms=3)

    def test_statements(self):
        tracker = self.host.tracker(limits=hosts.ToolsConfig(1, 0))
        db = tracker._repo.db
        self.assertEqual(db.calls, [
            ("fetchall", f"SELECT {COLUMNS} FROM tool_health"),
            ("fetchone", "SELECT value FROM schema_info WHERE key = ?", ("tool_usage",))])
        self.assertEqual((tracker.has_unsaved_changes, tracker.flush(), len(db.calls)), (False, 0, 2))
        self.fill(tracker)
        tracker.is_disabled("c")
        tracker._dirty.add("unknown")
        self.assertTrue(tracker.has_unsaved_changes)
        self.assertEqual((tracker.flush(), tracker.has_unsaved_changes), (5, False))
        self.assertEqual(db.calls[2:], [
            ("executemany", UPSERT, [("a", 1, 1, "a failed", STARTED, STARTED),
                                     ("b", 1, 1, "b failed", STARTED, STARTED),
                                     ("c", 1, 1, "c failed", None, STARTED)]),
            ("execute", WRITE_USAGE, ("tool_usage", (
                '[{"tool":"zz","action":null,"outcome":"ok\\n","alias_hit":false,"calls":1,'
                '"timed_calls":1,"total_ms":0.062},{"tool":"a","action":"text","outcome":"ok",'
                '"alias_hit":true,"calls":1,"timed_calls":1,"total_ms":3.0}]')))])

    # An error puts the marks back; what is no Exception, an interrupt, does not.
    def test_failed_writes(self):
        for method, error, names, usage_dirty in (
                ("executemany", OSError(), {*"abc"}, True),
                ("executemany", KeyboardInterrupt(), set(), True),
                ("execute", OSError(), set(), True),
                ("execute", SystemExit(), set(), False)):
            with self.subTest(method, error=error):
                tracker = self.host.tracker()
                self.fill(tracker)
                answers = tracker._repo.db.answers
                works, answers[method] = answers[method], error
                with self.assertRaises(type(error)) as caught:
                    tracker.flush()
                self.assertIs(caught.exception, error)
                self.assertEqual((tracker._dirty, tracker._usage_dirty), (names, usage_dirty))
                answers[method] = works
                self.assertEqual(tracker.flush(), len(names) + 2 * usage_dirty)

    # A database that calls back into the tracker, and another thread: no wait, no mark lost.
    def test_changes_during_a_flush(self):
        def busy(*_):
            for work in (lambda: self.fill(tracker), tracker.get_health_summary):
                thread = threading.Thread(target=work, daemon=True)
                thread.start()
                thread.join(5)
                self.assertFalse(thread.is_alive())
                work()

        tracker = self.host.tracker()
        self.fill(tracker)
        tracker._repo.db.answers.update(executemany=busy, execute=busy)
        self.assertEqual((tracker.flush(), tracker._dirty, tracker._usage_dirty), (5, {*"abc"}, True))

    # Whichever statement fails, nothing counted is lost, and a tool that is gone stays gone.
    def test_restart_after_each_statement_failed(self):
        entry = {"tool": "a", "action": None, "outcome": "ok", "alias_hit": False, "calls": 3,
                 "timed_calls": 2, "total_ms": 12.5}
        for fail_at in range(8):
            with self.subTest(fail_at=fail_at), tempfile.TemporaryDirectory() as folder:
                first, db = (self.host.database(Path(folder, "history.db")) for _ in range(2))
                rows = [(name, 9, 4, "old", STARTED, STARTED) for name in ("a", "gone", "b")]
                first.executemany(UPSERT, rows)
                document = json.dumps([entry, entry | {"tool": "gone"}])
                first.execute(WRITE_USAGE, ("tool_usage", document))
                self.host.warnings.clear()
                db.fail_at, failed = fail_at, 0
                tracker = self.host.tracker(db)
                for _ in range(2):
                    self.fill(tracker)
                    try:
                        tracker.flush()
                    except sqlite3.OperationalError:
                        failed += 1
                seen = len(self.host.warnings), failed
                self.assertEqual(seen, (fail_at in (1, 2, 3), fail_at > 3))
                tracker.flush()
                again = self.host.tracker(self.host.database(Path(folder, "history.db")))
                for record in tracker._state.values():
                    record.consecutive_errors = 0
                known = {key: counts for key, counts in tracker._usage.items() if key[0] == "a"}
                self.assertEqual((again._state, again._usage), (tracker._state, known))
                if fail_at not in (1, 2, 3):
                    self.assertEqual(again._state["a"].call_count, 11)
                gone = first.fetchall("SELECT * FROM tool_health WHERE tool_name = 'gone'")
                self.assertEqual(gone, [])
