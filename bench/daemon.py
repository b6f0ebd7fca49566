"""The sample host as its client sees it, over stdio, while its database is free and while it is
locked.

Beside it the same daemon with the module's twin in plain Python, and with a tracker that writes
every report through to the database (other_trackers.py). And how late an event loop is at worst
while another thread asks for a large summary, or flushes a large history.
"""

import asyncio
import contextlib
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from bench.client import Client, Unexpected

CHECKOUT = Path(__file__).resolve().parent.parent
IN_FLIGHT = 16
CALL = {"name": "read_file", "arguments": {"path": "file"}}

# What another process does for as long as its standard input is open.
LOCK = """
import sqlite3, sys
db = sqlite3.connect(sys.argv[1], isolation_level=None)
db.execute("BEGIN IMMEDIATE")
print("locked", flush=True)
sys.stdin.read()
db.close()
"""


class Daemon(Client):
    """The sample host with one of the trackers."""

    def __init__(self, program, directory):
        (directory / "file").write_text("text\n")
        command = [*program, "--repo", directory, "--db", directory / "db"]
        self.process = subprocess.Popen(
            [sys.executable, *command],
            cwd=CHECKOUT,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        self._next_id = 0


@contextlib.contextmanager
def lock_of(database, wanted):
    """The database's write lock, held by another process."""
    if not wanted:
        yield
        return
    with subprocess.Popen(
        [sys.executable, "-c", LOCK, database], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        start_new_session=True,  # Ctrl-C is for the benchmark; this one ends with its input
    ) as other:
        other.stdout.readline()
        yield
        other.stdin.close()


def calls_answered(program, locked, seconds):
    """How many calls were answered in so many seconds, and the 99th percentile of their seconds.

    Calls that are still waiting a while after that are given up; none answered has no percentile.
    """
    took, patience = [], seconds / 2
    with tempfile.TemporaryDirectory() as scratch:
        directory = Path(scratch)
        daemon = Daemon(program, directory)
        daemon.call(CALL["name"], CALL["arguments"])
        give_up = threading.Timer(seconds + patience, daemon.process.kill)
        with lock_of(directory / "db", locked):
            give_up.start()
            try:
                for each in daemon.keep_calling(IN_FLIGHT, seconds, CALL):
                    took.append(each)
            except (Unexpected, BrokenPipeError):
                pass  # given up
        give_up.cancel()
        daemon.process.kill()
        daemon.process.communicate()
    took.sort()
    return len(took), took[int(0.99 * len(took))] if took else None


async def lateness(work):
    """How late, in seconds, a loop that wants to run every millisecond is at worst while a thread
    works.
    """
    worst, running = 0.0, asyncio.create_task(asyncio.to_thread(work))
    while not running.done():
        due = time.perf_counter() + 0.001
        await asyncio.sleep(0.001)
        worst = max(worst, time.perf_counter() - due)
    return worst


PROGRAMS = {
    "the module": ["-m", "sample_host"],
    "its twin in plain Python": ["-m", "bench.other_trackers", "plain"],
    "written through": ["-m", "bench.other_trackers", "write_through"],
}


def measure(quick, tracker):
    """Prints and returns the rows (name, 99th percentile, calls), and the lateness of a loop."""
    seconds, rows = 0.3 if quick else 8, []
    title = f"over stdio, {IN_FLIGHT} calls in flight for {seconds} s"
    print(f"\n{title:56} {'calls':>10} {'99 %':>10}")
    for name, program in PROGRAMS.items():
        for locked in (False, True):
            calls, percentile = calls_answered(program, locked, seconds)
            title = f"{name}, database {'locked' if locked else 'free'}"
            time_ms = f"{percentile * 1e3:7.1f} ms" if calls else f"more than {seconds * 1.5:g} s"
            print(f"{title:56} {calls:10} {time_ms}", flush=True)
            rows.append((title, percentile, calls))
    late = [("a summary of 1,000 x 5", asyncio.run(lateness(tracker.get_health_summary))),
            ("a flush of 1,000 x 5", asyncio.run(lateness(tracker.flush)))]
    for name, worst in late:
        print(f"{'event loop late by, during ' + name:56} {worst * 1e3:18.1f} ms")
    return rows, late
