"""The cost of the operations beside plain Python, both measured interleaved in one process.

    script/bench [--quick] [--runs N] [--json FILE] [--svg FILE] [--tables FILE]

Every time in the table is the median over paired rounds, and the ratio the median of the rounds'
own ratios; several runs, each in a process of its own, give the median of those and their spread.
What a round times is a loop as a host would write it, loop included. The file names of the modules
come in HEALTH_MODULE and FLOOR_MODULE.
"""

import argparse
import gc
import importlib.util
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import timeit
import tracemalloc
from pathlib import Path
from types import SimpleNamespace

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from bench import daemon  # noqa: E402  (the checkout has to be importable first)
from bench.hosts import PLAIN, Host, ThreadCensus, Tool, differences, parts  # noqa: E402
from bench.report import draw, tables  # noqa: E402

ACTIONS = 5
SUMMARY_SIZES = [(20, 3), (200, 10), (1000, 5)]
# Tools of 5 keys each, and whether plain Python is timed.
GROWTH = [(20, True), (100, True), (500, True), (5000, False)]


class NullDatabase:
    """A repository's database that does nothing, or answers with a stored history."""

    def __init__(self, rows=(), document=None):
        self.rows, self.document = rows, document

    def fetchall(self, sql):
        return self.rows

    def fetchone(self, sql, params):
        return self.document and (self.document,)

    def execute(self, sql, params):
        self.document = params[1]

    def executemany(self, sql, rows):
        self.rows = rows


class Side:
    """One of the two implementations in a host of its own."""

    def __init__(self, name, implementation):
        self.host = Host(name, implementation)
        self.health = self.host.health
        actions = [f"action{j}" for j in range(ACTIONS * 2)]
        self.health.TOOLS = {f"tool{i}": Tool(actions) for i in range(5000)}
        times = {"avg_ms": 1.5, "p95_ms": 2.5, "min_ms": 0.5, "max_ms": 9.5}
        self.host.timings[:] = [
            {"name": f"tool{i}", "count": i, **times, "errors": 0} for i in range(20)]

    def tracker(self, db=None):
        return self.health.ToolHealthTracker(SimpleNamespace(db=db or NullDatabase()))

    def filled(self, tools, keys, db=None):
        """A tracker that has seen so many tools with so many usage keys each."""
        tracker = self.tracker(db)
        for i in range(tools):
            if i % 3 == 0:
                tracker.record_error(f"tool{i}", "it broke")
            else:
                tracker.record_success(f"tool{i}")
            for j in range(keys):
                milliseconds = 1.25 * j + i
                tracker.record_call(
                    f"tool{i}", f"action{j}", "ok", alias_hit=False, duration_ms=milliseconds)
        return tracker

    def busy(self):
        """A tracker with a healthy and a disabled tool, and one known usage key."""
        tracker = self.tracker()
        tracker.record_success("healthy")
        for _ in range(3):
            tracker.record_error("failing", "it broke")
        tracker.record_call("healthy", "text", "ok", alias_hit=False, duration_ms=2.0)
        return tracker


def seconds(statement, number, **names):
    return timeit.Timer(statement, globals=names).timeit(number) / number


def paired(plain, module, rounds):
    """Medians of two measuring functions called in turn, and the median of the ratios."""
    plain(), module()  # warm up
    pairs = [(plain(), module()) for _ in range(rounds)]
    ratio = statistics.median(slow / fast for slow, fast in pairs)
    return statistics.median(p for p, _ in pairs), statistics.median(m for _, m in pairs), ratio


def in_threads(tracker, number, count=4):
    """Seconds per call while so many threads ask and report at once, over many switch intervals."""
    def work():
        barrier.wait()
        for _ in range(number):
            tracker.is_disabled("healthy")
            tracker.record_success("healthy")

    barrier = threading.Barrier(count + 1)
    threads = [threading.Thread(target=work) for _ in range(count)]
    for thread in threads:
        thread.start()
    barrier.wait()
    start = time.perf_counter()
    for thread in threads:
        thread.join()
    return (time.perf_counter() - start) / (number * count * 2)


def flush_seconds(side):
    tracker = side.filled(1000, ACTIONS)
    start = time.perf_counter()
    tracker.flush()
    return time.perf_counter() - start


def memory_of(side):
    gc.collect()
    tracemalloc.start()
    tracker = side.filled(1000, ACTIONS)
    size, _ = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    del tracker
    return size


def check_equal(sides):
    """Both implementations give the same answers to the same calls."""
    answers = []
    for side in sides:
        db = NullDatabase()
        side.health.time = SimpleNamespace(time=lambda: 1_700_000_000.75)
        tracker = side.busy()
        filled = side.filled(30, ACTIONS, db)
        answers.append([*parts("answers", [
            *map(tracker.is_disabled, ("healthy", "failing", "unknown")),
            tracker.has_unsaved_changes, filled.get_health_summary(), filled.flush(),
            filled.has_unsaved_changes, db.rows, db.document,
            side.tracker(NullDatabase(db.rows, db.document)).get_health_summary(),
            side.health.thread_census_report(1), side.health.handle_get_tool_performance_stats(),
        ])])
        side.health.time = time
    told = [*differences(*reversed(answers))]
    if told:
        raise SystemExit("\n".join(["the two implementations differ:", *told]))


class Bench:
    def __init__(self, sides, floor, quick):
        self.plain, self.module = sides
        self.floor, self.quick = floor, quick
        self.rows, self.scaling = [], []

    def rounds(self, count):
        return 3 if self.quick else count

    def add(self, name, plain, module, rounds):
        row = name, *paired(plain, module, self.rounds(rounds))
        self.rows.append(row)
        scale, label = (1e9, "ns") if row[1] < 5e-6 else (1e3, "ms")
        print(f"{name:44} {row[1] * scale:10.3g} {row[2] * scale:10.3g} {label}  {row[3]:6.2f}",
              flush=True)

    def add_scaling(self, name, one, other, rounds):
        """How many times as long the one takes as the other."""
        row = name, *paired(one, other, self.rounds(rounds))
        self.scaling.append(row)
        print(f"{name:56} {row[3]:17.2f} times the time", flush=True)

    def calls(self):
        number = 2_000 if self.quick else 50_000
        trackers = self.plain.busy(), self.module.busy()
        for name, statement in {
            "is_disabled, healthy tool": "tracker.is_disabled('healthy')",
            "is_disabled, unknown tool": "tracker.is_disabled('unknown')",
            "is_disabled, disabled tool": "tracker.is_disabled('failing')",
            "record_success": "tracker.record_success('healthy')",
            "record_error": "tracker.record_error('failing', 'it broke')",
            "record_call, known key, timed":
                "tracker.record_call('healthy', 'text', 'ok', alias_hit=False, duration_ms=2.0)",
            "has_unsaved_changes": "tracker.has_unsaved_changes",
        }.items():
            runs = (lambda t=t: seconds(statement, number, tracker=t) for t in trackers)
            self.add(name, *runs, 25)
        for name, statement in {
            "thread_census_report": "report(100, census)",
            "thread_census_report, with a warning": "report(50, census)",
            "handle_get_tool_performance_stats, 20 tools": "stats()",
        }.items():
            census = ThreadCensus(90, 12, {"MainThread": 1, "pool": 11})
            runs = (lambda h=s.health: seconds(
                        statement, number // 10, report=h.thread_census_report, census=census,
                        stats=h.handle_get_tool_performance_stats)
                    for s in (self.plain, self.module))
            self.add(name, *runs, 25)
        if self.floor:
            self.floors(trackers[1], number)
        self.convoy(trackers, number)

    def floors(self, tracker, number):
        """The module beside an empty operation and one that only locks, interleaved as well."""
        operations = {"empty": self.floor.empty, "lock_only": self.floor.lock_only}
        floor = type("Floor", (), operations)()
        floor._lock = threading.Lock()
        for name, statement in (("does nothing", "floor.empty('healthy')"),
                                ("only locks", "floor.lock_only('healthy')")):
            self.add_scaling(
                f"is_disabled, healthy tool, beside an operation that {name}",
                lambda: seconds("tracker.is_disabled('healthy')", number, tracker=tracker),
                lambda: seconds(statement, number, floor=floor), 25)

    def convoy(self, trackers, number):
        for label, tracker in zip(("plain Python", "module"), trackers):
            self.add_scaling(f"a call of four threads at once beside one thread's, {label}",
                             lambda: in_threads(tracker, number),
                             lambda: in_threads(tracker, number, 1), 9)

    def summaries(self):
        """Returns (tools, plain seconds, module seconds) for the picture."""
        for tools, keys in [(20, 3)] if self.quick else SUMMARY_SIZES:
            number = max(1, 400 // tools)
            self.add(f"get_health_summary, {tools:,} tools x {keys} keys",
                     *(lambda t=s.filled(tools, keys): seconds(
                         "t.get_health_summary()", number, t=t)
                       for s in (self.plain, self.module)), 5 if tools > 200 else 15)
        if self.quick:
            return []
        growth = [self.module.filled(tools, ACTIONS) for tools, _ in GROWTH]
        self.add_scaling("get_health_summary, 5,000 tools x 5 keys beside 500 x 5, module",
                         *(lambda t=t: seconds("t.get_health_summary()", 3, t=t)
                           for t in (growth[-1], growth[-2])), 15)
        plain = [self.plain.filled(tools, ACTIONS) if timed else None for tools, timed in GROWTH]

        def best(tracker, runs):
            return min(seconds("t.get_health_summary()", 1, t=tracker) for _ in range(runs))

        return [(tools, slow and best(slow, 5), best(fast, 9))
                for (tools, _), slow, fast in zip(GROWTH, plain, growth)]

    def history(self):
        sides = self.plain, self.module
        self.add("flush, 1,000 rows and 5,000 entries",
                 *(lambda s=s: flush_seconds(s) for s in sides), 15)
        source = NullDatabase()
        self.plain.filled(1000, ACTIONS, source).flush()
        stored = NullDatabase(source.rows, source.document)
        self.add("construction from that history",
                 *(lambda s=s: seconds("f(db)", 1, f=s.tracker, db=stored) for s in sides), 15)

    def memory(self):
        plain, module = memory_of(self.plain), memory_of(self.module)
        name = "memory of 1,000 tools and 5,000 keys beside plain Python's, module"
        self.scaling.append((name, module, plain, module / plain))
        print(f"{name:66} {module / plain:7.2f} ({module / 1024:,.0f} KiB)")


def load_floor():
    """The floor module, which only a release build has; None otherwise."""
    if "FLOOR_MODULE" not in os.environ:
        return None
    spec = importlib.util.spec_from_file_location("floor", os.environ["FLOOR_MODULE"])
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def measure(quick):
    """The figures of one run, which are also printed."""
    sides = Side("plainhost", PLAIN), Side("modulehost", None)
    check_equal(sides)
    print(f"{'per call':44} {'plain':>10} {'module':>10}      ratio")
    bench = Bench(sides, load_floor(), quick)
    bench.calls()
    points = bench.summaries()
    bench.history()
    bench.memory()
    served, late = daemon.measure(quick, bench.module.filled(1000, ACTIONS))
    return {"rows": bench.rows, "scaling": bench.scaling, "summary": points, "served": served,
            "late": late}


def combine(runs):
    """The median of the runs' figures, each row with the lowest and highest of its last one."""
    def middle(rows, spread):
        for same in zip(*rows):
            name, *figures = zip(*same)
            known = [statistics.median(it) if None not in it else None for it in figures]
            last = [figure for figure in figures[-1] if figure is not None]
            yield [name[0], *known, *([min(last), max(last)] if spread else [])]

    return {kind: list(middle([run[kind] for run in runs], kind != "summary")) for kind in runs[0]}


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true",
                        help="few rounds: the check that both sides agree, mostly")
    parser.add_argument("--runs", type=int, default=1, help="measure so often (%(default)s)")
    parser.add_argument("--json", type=Path, help="write the figures to this file")
    parser.add_argument("--svg", type=Path, help="draw the picture into this file, with gnuplot")
    parser.add_argument("--tables", type=Path, help="write the tables of the figures to this file")
    options = parser.parse_args()
    machine = f"Python {platform.python_version()}, {os.cpu_count()} x {platform.machine()}"
    print(f"{machine}\n")
    if options.runs > 1:
        runs = []
        for number in range(options.runs):
            print(f"run {number + 1} of {options.runs}", flush=True)
            with tempfile.NamedTemporaryFile("r") as file:
                quick = ["--quick"] * options.quick
                command = [sys.executable, __file__, "--json", file.name, *quick]
                subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
                runs.append(json.load(file))
    else:
        runs = [measure(options.quick)]
    figures = combine(runs)
    if options.runs > 1:
        print(tables(figures))
    if options.json:
        options.json.write_text(json.dumps(runs[0] if options.runs == 1 else figures, indent=1))
    if options.tables:
        options.tables.write_text(tables(figures))
    if options.svg:
        draw(options.svg, figures)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
