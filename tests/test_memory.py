"""Memory: every allocation of every operation fails once, and nothing is left behind by any
operation.
"""

import _imp
import contextlib
import dataclasses
import functools
import gc
import itertools
import operator
import sys
import types
import unittest
import weakref
from types import NoneType

from . import children, hosts

TOOLS = [f"tool {number:02}" for number in range(12)]  # more than a set or a dictionary has room for at first
OPERATIONS = """None | exec_dynamic(create_dynamic(spec)) | C(empty) | C(full) | t.record_call('a', 'text', 'ok', alias_hit=False, duration_ms=2.5)
    t.record_call('new', None, 'ok', alias_hit=True, duration_ms=7) | t.record_success('a') | t.record_success('new')
    t.record_error('a', 'boom') | t.record_error('new', 'x' * 600) | t.is_disabled('a') | t.is_disabled('off')
    due() or t.is_disabled('off') | t.get_health_summary() | t.has_unsaved_changes, t.limits, t.cooldown_s | t.flush()
    fail('executemany', broken)() or t.flush()
    fail('execute', broken)() or t.flush() | m._known('a', 'text') | m.thread_census_report(5)
    m.handle_get_tool_performance_stats()"""
ERRORS = """t.record_call('a') | t.record_call([], None, 'ok', alias_hit=0, duration_ms=1) | t.record_success([])
    t.record_call('a', 'text', 'ok', alias_hit=False, duration_ms='x') | t.record_error('a', 5) | t.record_error(5)
    t.is_disabled([]) | t._state.update(a=5) or t.record_success('a') | t._state.update(a=5) or t.get_health_summary()
    t._usage.update(b=5) or t.get_health_summary() | t._usage.update(b=5) or t.flush() | t._dirty.add(5) or t.flush()
    delattr(t, '_lock') or t.flush() | setattr(t, '_lock', 5) or t.record_success('a') | C(5) | C(full, 1, 2) | C(None)
    C(repository([('a', 'x', 1, None, None, None)], None)) | C(repository([('a',)], ('[5]',))) | m._sqlite_time(1e300)
    m._epoch(5) | m._epoch('2023-02-30 00:00:00') | m._known([], None) | m.thread_census_report(5, 5) | m._known(1, 2, 3)"""


def split(table):
    rows = [row.strip() for row in table.replace("\n", "|").split("|")]
    return [(row, compile(row, row, "eval")) for row in rows]


class Setting:
    """What the operations name. Services are builtin methods: functions in Python have allocations
    of their own to fail.
    """

    def __init__(self, host):
        self.host, self.module, self.written = host, host.health, {}
        entry = {"tool": "a", "action": "text", "outcome": "ok", "alias_hit": False, "calls": 2, "timed_calls": 1, "total_ms": 2.5}
        rows = [(name, 3, 2, "boom", None, "2023-11-14 22:13:20") for name in ("a", "b", "gone")]
        self.empty, self.full = self.repository([], None), self.repository(rows, ("entries",))
        stats = dict.fromkeys(("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors"), 1)
        ready = types.SimpleNamespace(timings=types.SimpleNamespace(get_all_stats=[stats].copy), census=hosts.ThreadCensus(7, 3, {}))
        self.module.json = types.SimpleNamespace(loads={"entries": [entry, entry | {"tool": "gone"}]}.get, dumps="{}".format)
        self.module.is_slow_call = operator.eq
        self.module.get_timing_collector = functools.partial(getattr, ready, "timings")
        self.module.thread_census = functools.partial(getattr, ready, "census")

    def repository(self, rows, document):
        select = f"SELECT {self.module._TOOL_HEALTH_COLUMNS} FROM tool_health"
        return types.SimpleNamespace(db=types.SimpleNamespace(
            fetchall={select: rows}.get, fetchone={"SELECT value FROM schema_info WHERE key = ?": document}.get,
            execute=self.written.__setitem__, executemany=self.written.__setitem__))

    def names(self):
        """For one operation, with a tracker that has more than one of everything."""
        db, limits = self.full.db, hosts.ToolsConfig(2, 1e9)
        db.execute = db.executemany = self.written.__setitem__
        tracker = self.module.ToolHealthTracker(self.full, limits)
        for name in (*TOOLS, "off", "off"):
            tracker.record_error(name, "boom")
            tracker.record_call(name, None, "ok", alias_hit=False, duration_ms=0.3)
        self.written.clear()
        self.host.warnings.clear()
        return {"t": tracker, "C": self.module.ToolHealthTracker, "m": self.module, "spec": self.module.__spec__,
                "create_dynamic": _imp.create_dynamic, "exec_dynamic": _imp.exec_dynamic, "empty": self.empty,
                "full": self.full, "repository": self.repository, "due": functools.partial(setattr, limits, "disable_cooldown_s", 0),
                "fail": functools.partial(functools.partial, setattr, db), "broken": operator.sub}  # text minus anything


def same(record):
    return record


def plain_class(slots):
    return same


def attempt(code, names, first, last):
    """What the operation gives and raises. Short: CPython 3.13 unwinds long code in circles when it
    has no memory.
    """
    import _testcapi
    result = error = None
    _testcapi.set_nomemory(first, last)
    try:
        result = eval(code, names)
    except Exception as caught:
        error = caught
    finally:
        _testcapi.remove_mem_hooks()
    return result, error


def sweep(only_one):
    """Each operation again and again, where memory gives out one allocation later every time: for
    good, or once.
    """
    told = []
    with hosts.Host("swept") as host:
        setting = Setting(host)
        dataclasses.dataclass = plain_class  # the real one makes functions, and CPython 3.13.0 crashes when it cannot
        for row, code in split(OPERATIONS):
            if "spec" in row and only_one:
                continue  # CPython 3.13 itself crashes, in type_new after one failure
            clean = 0
            for first in itertools.count():
                if clean > 20:  # that many in a row: not just allocations that can be done without
                    break
                names = setting.names()
                tracker = names["t"]
                pending = set(tracker._dirty)
                result, error = attempt(code, names, first, only_one and first + 1)
                written = " ".join(setting.written)
                known = [MemoryError, NoneType] + [TypeError] * ("broken" in row) + [RuntimeError] * ("C(" in row)
                for what, wrong in {
                        "the lock is held": tracker._lock.locked(),
                        # The interpreter's words for a traceback that found no memory.
                        "odd": type(error) not in known and str(error) != "error return without exception set",
                        "a mark without a record": not tracker._dirty <= set(tracker._state),
                        # With no memory at all some can not be put back, and MemoryError says so.
                        "marks are lost": not pending <= tracker._dirty and "INTO tool_health" not in written
                                          and (only_one or not isinstance(error, MemoryError)),
                        "usage mark lost": not tracker._usage_dirty and "INTO schema_info" not in written}.items():
                    if wrong:
                        told.append((row, first, what, repr(error), len(tracker._dirty)))
                if told[-1:] and told[-1][0] == row:
                    break
                clean = 0 if host.warnings or isinstance(error, (MemoryError, RuntimeError, SystemError)) else clean + 1
                again = hosts.outcome(eval, code, names)
                if ("raised" in again) != ("broken" in row) or "MemoryError" in again:
                    told.append((row, first, "fails afterwards", again))
    print("\n".join(map(str, told)), end="")


def mark_many():
    """A set of marks that may not grow gets full; it takes marks again as soon as there is memory."""
    import _testcapi
    with hosts.Host("full") as host:
        tracker, names = host.tracker(), [f"tool{i}" for i in range(12)]
        record = tracker.record_success
        tracker._state.update((name, host.health._ToolState()) for name in names)
        for name in names:
            list(map(float, range(90)))  # the clock's reading takes one of those
            _testcapi.set_nomemory(0, 0)
            try:
                record(name)
            except MemoryError:
                pass
            finally:
                _testcapi.remove_mem_hooks()
        for name in names:
            record(name)
        assert tracker._dirty == {*names}, tracker._dirty


@unittest.skipIf(hasattr(sys, "gettotalrefcount"), "a debug interpreter aborts in its own code when memory gives out")
class Allocations(unittest.TestCase):
    def test_memory_gives_out(self):
        children.check(self, "from tests import test_memory; test_memory.sweep(0)")

    def test_marks_without_memory(self):
        children.check(self, "from tests import test_memory; test_memory.mark_many()", timeout=30)

    def test_one_allocation_fails(self):
        children.check(self, "from tests import test_memory; test_memory.sweep(1)")


class Leaks(unittest.TestCase):
    def assertSteady(self, run, rounds, allowed, *kinds):
        """Many rounds leave no memory blocks and no references behind, but for what is ``allowed``
        for each round.
        """
        def held():
            while gc.collect():
                pass  # a class can go only after its last instance has gone
            return [sys.getallocatedblocks(), getattr(sys, "gettotalrefcount", int)(), *map(sys.getrefcount, kinds)]

        for _ in range(20):
            run()
        before = held()
        for _ in range(rounds):
            run()
        grown = [after - then for after, then in zip(held(), before)]
        self.assertLess(max(grown), rounds * allowed, grown)

    def test_operations(self):
        with hosts.Host("leaking") as host:
            setting, module = Setting(host), host.health
            kinds = [module.ToolHealthTracker, module._ToolState, module._Usage, type(module._known.__code__.co_consts[0])]

            def run():
                with contextlib.suppress(Exception):
                    eval(code, setting.names())

            for row, code in split(OPERATIONS) + split(ERRORS):
                with self.subTest(row):
                    self.assertSteady(run, *((50, 5) if "spec" in row else (1000, 0.5)), *kinds)

    def test_cycles_are_collected(self):
        with hosts.Host("cyclic") as host:
            repository = Setting(host).full
            repository.tracker = host.health.ToolHealthTracker(repository)
            dying = weakref.ref(repository.tracker), weakref.ref(repository.db.fetchall)
            del repository
            gc.collect()
            self.assertEqual([it() for it in dying], [None, None])

    def test_imports_do_not_pile_up(self):
        def run():
            with hosts.Host(f"throwaway{next(number)}") as host:
                module = host.health
                tracker = module.ToolHealthTracker(Setting(host).full)
                tracker.get_health_summary()
                dying[:] = map(weakref.ref, (module, tracker, module._ToolState, module.ToolHealthTracker, module._known,
                                             module.ToolHealthTracker.flush, type(module._known.__code__.co_consts[0])))

        number, dying = itertools.count(), []
        self.assertSteady(run, 40, 8)  # the import system and logging keep a little of every name
        self.assertEqual([it() for it in dying], [None] * 7)
