"""Eight threads at once on one tracker, with a real database that fails now and then.

What six have reported is in memory to the last call while one flushes and one summarises, and in
the database after a restart, however often a write has failed.
"""

import contextlib
import random
import sqlite3
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from bench import hosts

from . import HealthCase

ROUNDS, REPORTERS = 400, 6


class Threads(HealthCase):
    def test_totals(self):
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-6)
        file = Path(self.enterContext(tempfile.TemporaryDirectory()), "history.db")
        db, reports = self.host.database(file), []
        tracker = self.host.tracker(db, hosts.ToolsConfig(5, 0.0))
        db.tracker = None  # or it would find the lock held by the other threads
        self.health.TOOLS["c"] = self.health.TOOLS["a"]

        def failing(write, *call):
            if random.random() < 0.4:
                raise sqlite3.OperationalError("injected")
            return write(*call)

        def report(number):
            for turn in range(ROUNDS):
                name = "abc"[(turn + number) % 3]
                tracker.record_error(name, "E") if turn % 2 else tracker.record_success(name)
                tracker.record_call(name, "text", "ok", alias_hit=number > 3, duration_ms=0.25)
                tracker.is_disabled(name)

        def flush():
            while not all(it.done() for it in reports) or tracker.has_unsaved_changes:
                with contextlib.suppress(sqlite3.OperationalError):
                    tracker.flush()
                db.calls.clear()

        def summarise():
            while not all(it.done() for it in reports):
                for record in tracker.get_health_summary():
                    self.assertLessEqual(record["error_count"], record["call_count"])

        for method in ("execute", "executemany"):
            db.answers[method] = lambda *call, write=db.answers[method]: failing(write, *call)
        with ThreadPoolExecutor(REPORTERS + 2) as pool:
            reports += [pool.submit(report, number) for number in range(REPORTERS)]
            for work in (*reports, pool.submit(flush), pool.submit(summarise)):
                work.result(60)
        states, usage, calls = tracker._state.values(), tracker._usage.values(), REPORTERS * ROUNDS
        counted = [sum(it.call_count for it in states), sum(it.error_count for it in states),
                   sum(it.calls for it in usage), sum(it.total_ms for it in usage)]
        self.assertEqual(counted, [calls, calls / 2, calls, calls / 4])
        again = self.host.tracker(self.host.database(file))
        for state in states:
            state.consecutive_errors = 0
        self.assertEqual((again._state, again._usage), (tracker._state, tracker._usage))
