# Eight threads at once on one tracker, with a real database that fails now and then.

import contextlib
import faulthandler
import random
import sqlite3
import sys
import tempfile
import threading
from pathlib import Path

from . import HealthCase, hosts

ROUNDS, NAMES = 400, "abc"


class Threads(HealthCase):
    def setUp(self):
        super().setUp()
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        self.addCleanup(faulthandler.cancel_dump_traceback_later)
        sys.setswitchinterval(1e-6)
        faulthandler.dump_traceback_later(120, exit=True)

    # Run all at once to their ends, and raise what any of them raised.
    def together(self, *works):
        gate, errors = threading.Barrier(len(works)), []

        def run(work):
            try:
                gate.wait()
                work()
            except BaseException as error:
                errors.append(error)

        threads = [threading.Thread(target=run, args=(work,)) for work in works]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(60)
            self.assertFalse(thread.is_alive())
        if errors:
            raise errors[0]

    def test_totals(self):
        with tempfile.TemporaryDirectory() as folder:
            db, dice, done = self.host.database(Path(folder, "history.db")), random.Random(7), []
            tracker = self.host.tracker(db, hosts.ToolsConfig(5, 0.0))
            db.tracker = None  # or it would find the lock held by the other threads
            for method in ("execute", "executemany"):
                db.answers[method] = lambda *call, write=db.answers[method]: self.fail_or(dice, write, *call)

            self.health.TOOLS["c"] = self.health.TOOLS["a"]

            def report(number):
                for turn in range(ROUNDS):
                    name = NAMES[(turn + number) % 3]
                    if turn % 2:
                        tracker.record_error(name, f"{number}")
                    else:
                        tracker.record_success(name)
                    tracker.record_call(name, "text", "ok", alias_hit=turn % 4 == 0, duration_ms=0.25)
                    tracker.is_disabled(name)
                done.append(number)

            def flush():
                while len(done) < 6 or tracker.has_unsaved_changes:
                    with contextlib.suppress(sqlite3.OperationalError):
                        tracker.flush()
                    db.calls.clear()

            def summarise():
                while len(done) < 6:
                    for row in tracker.get_health_summary():
                        self.assertLessEqual(row["error_count"], row["call_count"])
                        self.assertGreaterEqual(ROUNDS * 6, sum(usage["calls"] for usage in row["usage"]))

            self.together(*[lambda number=number: report(number) for number in range(6)], flush, summarise)
            self.assertEqual([sum(getattr(it, field) for it in tracker._state.values()) for field in ("call_count", "error_count")],
                             [6 * ROUNDS, 3 * ROUNDS])
            self.assertEqual([sum(getattr(it, field) for it in tracker._usage.values()) for field in ("calls", "total_ms")],
                             [6 * ROUNDS, 1.5 * ROUNDS])
            again = self.host.tracker(self.host.database(Path(folder, "history.db")))
            for state in tracker._state.values():
                state.consecutive_errors = 0
            self.assertEqual((again._state, again._usage), (tracker._state, tracker._usage))

    def fail_or(self, dice, write, *call):
        if dice.random() < 0.4:
            raise sqlite3.OperationalError("injected")
        return write(*call)
