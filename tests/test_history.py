"""The stored forms, loading the history and flushing the changes."""

import json
import sqlite3
import tempfile
import threading
from pathlib import Path

from . import HealthCase, hosts

COLUMNS = "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
SELECT = f"SELECT {COLUMNS} FROM tool_health"
DELETE = "DELETE FROM tool_health WHERE tool_name = ?"
READ_USAGE = ("fetchone", "SELECT value FROM schema_info WHERE key = ?", ("tool_usage",))
WRITE_USAGE = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)"
UPSERT = (f"INSERT INTO tool_health ({COLUMNS})" + """
                    VALUES (?, ?, ?, ?, ?, ?)
                    ON CONFLICT(tool_name) DO UPDATE SET
                        call_count = excluded.call_count,
                        error_count = excluded.error_count,
                        last_error = excluded.last_error,
                        disabled_at = excluded.disabled_at,
                        updated_at = excluded.updated_at""")
T, TIME = 1_700_000_000.0, "2023-11-14 22:13:20"


def entry(**changes):
    return {"tool": "a", "action": None, "outcome": "ok", "alias_hit": False, "calls": 3, "timed_calls": 2,
            "total_ms": 12.5} | changes


class Loading(HealthCase):
    def test_times(self):
        for epoch, text in ((None, None), (0.0, "1970-01-01 00:00:00"), (T + 0.9, TIME), (T - 4e-7, TIME),
                            (-0.5, "1969-12-31 23:59:59"), (T + 0.9999996, "2023-11-14 22:13:21")):
            self.assertEqual(self.health._sqlite_time(epoch), text)
        for text, epoch in (
            (None, None), ("", None), (0, None), (b"", None), (TIME, T), ("2023-1-5 3:4:5", 1672887845.0),
            ("2023-11-14 \t\n22:13:20", T), ("２０２３-11-14\u00a022:13:20", T), ("1970-01-01 00:00:00", 0.0),
            ("0001-01-01 00:00:00", -62135596800.0), ("2024-02-29 00:00:00", 1709164800.0),
        ):
            self.assertEqual(repr(self.health._epoch(text)), repr(epoch), text)
        for text in ("2023-02-29 00:00:00", "2023-13-01 00:00:00", "2023-11-14 24:00:00", TIME[:-2] + "60",
                     "0000-01-01 00:00:00", "2023-11-14T22:13:20", "+023-11-14 22:13:20", " " + TIME,
                     TIME.replace(" ", ""), TIME + " ", TIME + ".5", TIME[2:], TIME[:-3]):
            self.assertIsNone(self.health._epoch(text), text)
        for bad in (5, True, b"x", (TIME,)):
            self.assertRaises(TypeError, self.health._epoch, bad)

    def check(self, answers, text, logged, statements):
        """A tracker whose history is ``answers``: the error ``logged``, or none, and the database
        calls.
        """
        db = self.host.database()
        db.answers |= answers
        self.host.warnings.clear()
        tracker = self.host.tracker(db)
        self.assertEqual([warning[0] for warning in self.host.warnings], [text] * (logged is not None))
        for _, [error] in self.host.warnings:
            self.assertTrue(error is logged or type(error) is logged, error)
        self.assertEqual((db.calls, tracker._dirty), (statements, set()))
        return tracker

    def test_health_rows(self):
        state, error = self.health._ToolState, OSError("broken")

        def failing():
            yield one
            raise error

        one, two = ("a", 3.9, " 7 ", "x", TIME, TIME), ("b", 2, None, None, "garbage", None)
        a, b = state(3, 7, "x", T, T), state(2)
        gone = [("gone", *one[1:]), list(two), ("z", *"12345")]
        for rows, loaded, logged in (
            ([], {}, None), ([two, one], {"b": b, "a": a}, None), (iter((one,)), {"a": a}, None),
            ([("b", *one[1:]), one, two], {"b": b, "a": a}, None), (gone, {"b": b}, None), (gone, {}, error),
            ([("c", True, "", 5, 0, "")], {"c": state(True, 0, 5)}, None), (failing(), {}, error),
            (error, {}, error), (None, {}, TypeError), ([one, 5], {}, TypeError), ([()], {}, IndexError),
        ):
            with self.subTest(rows, logged=logged):
                delete = [("executemany", DELETE, [("gone",), ("z",)])] if rows is gone else []
                answers = {"fetchall": rows, "executemany": logged}
                tracker = self.check(answers, "Could not read the tool health history: %s", logged,
                                     [("fetchall", SELECT), *delete, READ_USAGE])
                self.assertEqual((list(tracker._state), tracker._state), (list(loaded), loaded))
        for method, answer, escaped in (
            ("fetchall", [one, ("a", "x", *one[2:])], ValueError), ("fetchall", [one, ("z", 1)], ValueError),
            ("fetchall", [one, ("a", 1, 1, None, 5, None)], TypeError),
            ("fetchall", KeyboardInterrupt(), KeyboardInterrupt), ("fetchone", SystemExit(), SystemExit),
        ):
            db = self.host.database()
            db.answers[method] = answer
            self.assertRaises(escaped, self.host.tracker, db)
            loaded = {"a": a} if isinstance(answer, list) else {}
            self.assertEqual((db.tracker._lock.locked(), db.tracker._state), (False, loaded))

    def test_usage_documents(self):
        usage, key, other = self.health._Usage, ("a", None, "ok", False), ("a", "text", "ok", False)
        good = [([], {}), ({}, {}), ([entry(more=1)], {key: usage(3, 2, 12.5)}), ([entry(tool="gone")], {}),
                ([entry(), entry(action="text"), entry(calls=9)],
                 {key: usage(9, 2, 12.5), other: usage(3, 2, 12.5)}),
                ([entry(tool="gone"), entry(action="text"), entry(action="no")], {other: usage(3, 2, 12.5)}),
                ([entry(alias_hit=[0], outcome=5, calls=2.9, timed_calls=" 7 ", total_ms="1e3")],
                 {("a", None, "5", True): usage(2, 7, 1000.0)})]
        bad = [*((saved, TypeError) for saved in (5, True, None, "abc", {"a": 1}, [entry(action=[])])),
               *(([entry(), {name: 1 for name in entry() if name != lost}], KeyError) for lost in entry()),
               ([entry(), entry(calls=None)], TypeError), ([entry(total_ms="")], ValueError),
               ([entry(calls="1.5")], ValueError), ([entry(calls=float("inf"))], OverflowError)]
        error = OSError("broken")
        rows = [(("",), json.JSONDecodeError), ((None,), None), ((5,), None), ((b"[",), None), (None, None),
                ((), IndexError), (5, TypeError), (error, error)]
        for row, counts, logged in [*(((json.dumps(saved),), counts, None) for saved, counts in good),
                                    *(((json.dumps(saved),), {}, logged) for saved, logged in bad),
                                    *((row, {}, logged) for row, logged in rows)]:
            with self.subTest(row):
                tracker = self.check({"fetchone": row}, "Could not read the tool usage counts: %s", logged,
                                     [("fetchall", SELECT), READ_USAGE])
                self.assertEqual(hosts.typed(tracker._usage), hosts.typed(counts))
                dirty = "gone" in str(row)
                self.assertEqual((tracker._usage_dirty, tracker.flush()), (dirty, len(counts) * dirty))
                self.assertEqual([call[0] for call in tracker._repo.db.calls[2:]], ["execute"] * dirty)


class Flushing(HealthCase):
    def fill(self, tracker):
        for name in "bac":
            tracker.record_error(name, f"{name} failed")
        tracker.record_call("é😀", None, "ok\n", alias_hit=False, duration_ms=0.0625)
        tracker.record_call("a", "text", "ok", alias_hit=True, duration_ms=3)

    def test_statements(self):
        tracker = self.host.tracker(limits=hosts.ToolsConfig(1, 0))
        db = tracker._repo.db
        self.assertEqual((tracker.has_unsaved_changes, tracker.flush(), db.calls[2:]), (False, 0, []))
        self.fill(tracker)
        tracker.is_disabled("c")
        tracker._dirty.add("unknown")
        self.assertTrue(tracker.has_unsaved_changes)
        self.assertEqual((tracker.flush(), tracker.has_unsaved_changes), (5, False))
        self.assertEqual(db.calls[2:], [
            ("executemany", UPSERT, [("a", 1, 1, "a failed", TIME, TIME), ("b", 1, 1, "b failed", TIME, TIME),
                                     ("c", 1, 1, "c failed", None, TIME)]),
            ("execute", WRITE_USAGE, ("tool_usage", r'[{"tool":"\u00e9\ud83d\ude00","action":null,"outcome":'
             r'"ok\n","alias_hit":false,"calls":1,"timed_calls":1,"total_ms":0.062},{"tool":"a","action":'
             '"text","outcome":"ok","alias_hit":true,"calls":1,"timed_calls":1,"total_ms":3.0}]'))])
        tracker.record_call("a", "text", "ok", alias_hit=True, duration_ms=None)
        tracker._dirty.add("unknown")
        self.assertEqual((tracker.flush(), len(db.calls), tracker._dirty), (2, 5, set()))
        for total, text in ((0.1875, "0.188"), (12.3456, "12.346"), (1e16, "1e+16"), (0.0006, "0.001"),
                            (float("nan"), "NaN"), (float("-inf"), "-Infinity"), (1e22, "1e+22"), (7, "7")):
            tracker._usage, tracker._usage_dirty = {("a", "", "", 0): self.health._Usage(1, 1, total)}, True
            tracker.flush()
            self.assertTrue(db.calls[-1][2][1].endswith(f'"total_ms":{text}}}]'), text)

    def test_failed_writes(self):
        for method, error, names, usage_dirty in (
            ("executemany", OSError(), {*"abc"}, True), ("executemany", KeyboardInterrupt(), set(), True),
            ("execute", OSError(), set(), True), ("execute", SystemExit(), set(), False)):
            with self.subTest(method, error=error):
                tracker = self.host.tracker()
                self.fill(tracker)
                db, sqlite = tracker._repo.db, tracker._repo.db.answers[method]
                db.answers[method] = error
                with self.assertRaises(type(error)) as caught:
                    tracker.flush()
                self.assertIs(caught.exception, error)
                self.assertEqual((tracker._dirty, tracker._usage_dirty), (names, usage_dirty))
                db.answers[method] = sqlite
                tracker.record_success("a")
                self.assertEqual(tracker.flush(), len(names | {"a"}) + 2 * usage_dirty)
                self.assertEqual(db.fetchall(SELECT)[0][:4], ("a", 2, 1, "a failed"))

    def test_changes_during_a_flush(self):
        """A database that calls back into the tracker, and another thread: no wait, and no mark
        lost.
        """
        def busy(*_, result=None):
            for work in (lambda: self.fill(db.tracker), db.tracker.get_health_summary):
                thread = threading.Thread(target=work, daemon=True)
                thread.start()
                thread.join(5)
                self.assertFalse(thread.is_alive())
                work()
            if isinstance(result, Exception):
                raise result
            return result

        db = self.host.database()
        db.answers.update(fetchall=lambda *_: busy(result=[("a", 1, 1, None, None, None)]), fetchone=busy)
        tracker = self.host.tracker(db)
        self.assertEqual((tracker._state["a"].call_count, tracker._state["b"].call_count), (3, 4))
        db.answers.update(executemany=busy, execute=busy)
        self.assertEqual((tracker.flush(), tracker._dirty, tracker._usage_dirty), (5, {*"abc"}, True))
        db.answers["executemany"] = lambda *_: tracker.record_success("new") or busy(result=OSError())
        self.assertRaises(OSError, tracker.flush)
        self.assertEqual(tracker._dirty, {*"abc", "new"})

    def test_restart_after_each_statement_failed(self):
        seen = {}
        for fail_at in range(8):
            with self.subTest(fail_at=fail_at), tempfile.TemporaryDirectory() as folder:
                first, db = (self.host.database(Path(folder, "history.db")) for _ in range(2))
                first.executemany(UPSERT, [(name, 9, 4, "old", TIME, TIME) for name in ("a", "gone", "b")])
                first.execute(WRITE_USAGE, ("tool_usage", json.dumps([entry(), entry(tool="gone")])))
                self.host.warnings.clear()
                db.fail_at, failed = fail_at, 0
                tracker = self.host.tracker(db)
                for _ in range(2):
                    self.fill(tracker)
                    tracker.record_success("b")
                    try:
                        tracker.flush()
                    except sqlite3.OperationalError:
                        failed += 1
                self.assertEqual((len(self.host.warnings), failed), (fail_at in (1, 2, 3), fail_at > 3))
                tracker.flush()
                again = self.host.tracker(self.host.database(Path(folder, "history.db")))
                for record in tracker._state.values():
                    record.consecutive_errors = 0
                known = [(key, counts) for key, counts in tracker._usage.items() if key[0] == "a"]
                self.assertEqual((again._state, list(again._usage.items())), (tracker._state, known))
                self.assertEqual(first.fetchall(SELECT + " WHERE tool_name = 'gone'"), [])
                seen[fail_at] = hosts.state_of(tracker)
        self.assertTrue(all(seen[fail_at] == seen[0] for fail_at in range(4, 8)))
