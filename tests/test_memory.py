# Memory: every allocation of every operation fails once, and no operation leaves anything behind.
#
# An operation runs again and again, and memory gives out one allocation later every time: for good,
# or for a burst of allocations. For example, when the third allocation of
#
#     lambda tracker: tracker.record_error("new", "boom")
#
# fails, it has to raise MemoryError, with the lock free and no mark without a record; and with
# memory again it has to work. Services are builtin methods: functions in Python have allocations of
# their own to fail.

import _imp
import contextlib
import dataclasses
import faulthandler
import functools
import gc
import itertools
import operator
import os
import sys
import types
import unittest
import weakref

from . import HealthCase, children, hosts
from .worlds import ENTRY, STATISTICS, TIME

TOOLS = [f"tool {number:02}" for number in range(12)]  # more than a new set or dictionary has room for
IMPORT = lambda spec: _imp.exec_dynamic(_imp.create_dynamic(spec))
OPERATIONS = [
    lambda: None,
    IMPORT,
    lambda tracker_class, empty: tracker_class(empty),
    lambda tracker_class, full: tracker_class(full),
    lambda tracker_class, bad_document: tracker_class(bad_document),
    lambda tracker: tracker.record_call("a", "text", "ok", alias_hit=False, duration_ms=2.5),
    lambda tracker: tracker.record_call("new", None, "ok", alias_hit=True, duration_ms=7),
    lambda tracker: tracker.record_success("a"),
    lambda tracker: tracker.record_success("new"),
    lambda tracker: tracker.record_error("a", "boom"),
    lambda tracker: tracker.record_error("new", "x" * 600),
    lambda tracker: tracker.is_disabled("a"),
    lambda tracker: tracker.is_disabled("off"),
    lambda tracker, enable: enable() or tracker.is_disabled("off"),
    lambda tracker: tracker.get_health_summary(),
    lambda tracker: (tracker.has_unsaved_changes, tracker.limits, tracker.cooldown_s),
    lambda tracker: tracker.flush(),
    lambda module: module._known("a", "text"),
    lambda module: module.thread_census_report(5),
    lambda module: module.handle_get_tool_performance_stats(),
]
FAILING = [
    lambda tracker_class, bad_row: tracker_class(bad_row),
    lambda tracker, break_executemany: break_executemany() or tracker.flush(),
    lambda tracker, break_execute: break_execute() or tracker.flush(),
]
ERRORS = [
    lambda tracker: tracker.record_call("a"),
    lambda tracker: tracker.record_call([], None, "ok", alias_hit=0, duration_ms=1),
    lambda tracker: tracker.record_call("a", "text", "ok", alias_hit=False, duration_ms="x"),
    lambda tracker: tracker.record_success([]),
    lambda tracker: tracker.record_error("a", 5),
    lambda tracker: tracker.is_disabled([]),
    lambda tracker: tracker._state.update(a=5) or tracker.record_success("a"),
    lambda tracker: tracker._state.update(a=5) or tracker.get_health_summary(),
    lambda tracker: tracker._usage.update(b=5) or tracker.get_health_summary(),
    lambda tracker: tracker._usage.update(b=5) or tracker.flush(),
    lambda tracker: tracker._dirty.add(5) or tracker.flush(),
    lambda tracker: delattr(tracker, "_lock") or tracker.flush(),
    lambda tracker: setattr(tracker, "_lock", 5) or tracker.record_success("a"),
    lambda tracker_class: tracker_class(None),
    lambda tracker_class, full: tracker_class(full, 1, 2),
    lambda module: module._sqlite_time(1e300),
    lambda module: module._epoch(5),
    lambda module: module._epoch("2023-02-30 00:00:00"),
    lambda module: module._known([], None),
    lambda module: module.thread_census_report(5, 5),
]
# What may come out besides MemoryError, and the interpreter's own words where it has no memory for a
# lock or a traceback.
EXPECTED = (type(None), TypeError, ValueError)
INTERPRETERS_OWN = ("can't allocate lock", "error return without exception set")


class Setting:
    """What the operations name."""

    def __init__(self, host):
        self.module, self.written, self.logged = host.health, {}, {}
        self.module.logger = types.SimpleNamespace(warning=self.logged.__setitem__)
        self.spec, self.tracker_class = self.module.__spec__, self.module.ToolHealthTracker
        rows = [(name, 3, 2, "boom", None, TIME) for name in ("a", "b", "gone")]
        self.empty, self.full = self.repository([], None), self.repository(rows, ("good",))
        self.bad_row = self.repository([("a", "x", 1, None, None, None)], None)
        self.bad_document = self.repository([], ("bad",))
        ready = types.SimpleNamespace(census=hosts.ThreadCensus(7, 3, {}), timings=types.SimpleNamespace(
            get_all_stats=[dict.fromkeys(STATISTICS, 1)].copy))
        documents = {"good": [ENTRY, ENTRY | {"tool": "gone"}], "bad": [5]}
        fail = operator.sub  # a text minus anything
        self.break_execute = functools.partial(setattr, self.full.db, "execute", fail)
        self.break_executemany = functools.partial(setattr, self.full.db, "executemany", fail)
        self.module.json = types.SimpleNamespace(loads=documents.get, dumps="{}".format)
        self.module.is_slow_call = operator.eq
        self.module.get_timing_collector = functools.partial(getattr, ready, "timings")
        self.module.thread_census = functools.partial(getattr, ready, "census")

    def repository(self, rows, document):
        select = f"SELECT {self.module._TOOL_HEALTH_COLUMNS} FROM tool_health"
        return types.SimpleNamespace(db=types.SimpleNamespace(
            fetchall={select: rows}.get,
            fetchone={"SELECT value FROM schema_info WHERE key = ?": document}.get,
            execute=self.written.__setitem__, executemany=self.written.__setitem__))

    def arguments_of(self, operation):
        """For one operation, with a tracker that has more than one of everything."""
        db, limits = self.full.db, hosts.ToolsConfig(2, 1e9)
        db.execute = db.executemany = self.written.__setitem__
        self.enable = functools.partial(setattr, limits, "disable_cooldown_s", 0)
        self.tracker = self.tracker_class(self.full, limits)
        for name in (*TOOLS, "off", "off"):
            self.tracker.record_error(name, "boom")
            self.tracker.record_call(name, None, "ok", alias_hit=False, duration_ms=0.3)
        self.written.clear()
        self.logged.clear()
        names = operation.__code__.co_varnames[:operation.__code__.co_argcount]
        return [getattr(self, name) for name in names]


def attempt(operation, arguments, first, last):
    """What the operation raises. Short: CPython 3.13 unwinds long code in circles when it has no
    memory."""
    import _testcapi
    error = None
    _testcapi.set_nomemory(first, last)
    try:
        operation(*arguments)
    except Exception as caught:
        error = caught
    finally:
        _testcapi.remove_mem_hooks()
    return error


def faults(setting, pending, error, burst):
    """What is wrong after an operation."""
    tracker, written = setting.tracker, " ".join(setting.written)
    if tracker._lock.locked():
        yield "the lock is held"
    if not isinstance(error, (MemoryError, *EXPECTED)) and str(error) not in INTERPRETERS_OWN:
        yield "odd"
    if not tracker._dirty <= set(tracker._state):
        yield "a mark without a record"
    # With no memory at all some marks can not be put back, and MemoryError says so.
    is_said = isinstance(error, MemoryError) and not burst
    if not pending <= tracker._dirty and "INTO tool_health" not in written and not is_said:
        yield "marks are lost"
    if not tracker._usage_dirty and "INTO schema_info" not in written:
        yield "the mark of the usage counts is lost"


# In the place of `dataclass`, which makes functions: CPython 3.13.0 crashes when it cannot.
def plain_class(slots):
    return same


def same(record):
    return record


def sweep(burst):
    """Each operation, with a burst of so many failing allocations (0: all) that begins later every
    time. Prints what is wrong."""
    with hosts.Host("swept") as host:
        setting = Setting(host)
        dataclasses.dataclass = plain_class
        for operation in OPERATIONS + FAILING:
            constructs = "tracker_class" in operation.__code__.co_varnames
            if burst > 1 and not constructs or burst and operation is IMPORT:
                continue  # CPython 3.13 itself fails, and for an import crashes
            clean = 0
            for first in itertools.count():
                arguments = setting.arguments_of(operation)
                pending = set(setting.tracker._dirty)
                error = attempt(operation, arguments, first, burst and first + burst)
                for fault in faults(setting, pending, error, burst):
                    print(operation.__code__.co_firstlineno, first, fault, repr(error))
                errors = error, *setting.logged.values()
                clean = clean + 1 if all(isinstance(it, EXPECTED) for it in errors) else 0
                if clean > 20:  # that many in a row: not just allocations that can be done without
                    break
                if constructs:
                    gc.collect()  # looks at whatever a half-made tracker has left
                again = attempt(operation, arguments, 1 << 30, 0)
                if not isinstance(again, EXPECTED) or (operation in FAILING) != bool(again):
                    print(operation.__code__.co_firstlineno, first, "fails afterwards", repr(again))


def import_once(host, first):
    """Executes a module that does not say which file it is from; its allocation number `first`
    fails."""
    copy = _imp.create_dynamic(host.health.__spec__)
    vars(copy).pop("__file__", None)
    error = attempt(_imp.exec_dynamic, [copy], first, first + 1)
    if isinstance(error, MemoryError) or "__getattr__" in str(error):  # a traceback in typing
        return "out of memory"
    return repr(error)


def import_without_memory():
    """Imports, each in a process of its own, in which a later allocation fails every time. Prints
    what is wrong."""
    crashes, imported = 0, 0
    faulthandler.disable()
    with hosts.Host("starved") as host:
        dataclasses.dataclass = plain_class
        for first in itertools.count():
            reading, writing = os.pipe()
            if not (child := os.fork()):
                os.close(2)  # where the interpreter's crash would be told
                os.write(writing, import_once(host, first).encode())
                os._exit(0)
            os.close(writing)
            with open(reading) as told:
                result = told.read()
            crashes += os.waitpid(child, 0)[1] != 0
            imported = imported + 1 if result == "None" else 0
            if result not in ("", "None", "out of memory"):
                print(first, result)
            if imported > 20:
                break
    if crashes > 3:  # CPython 3.13.0 itself crashes once for each class that it cannot make
        print(crashes, "crashes")


def mark_many():
    """A set of marks that may not grow gets full; it takes marks again as soon as there is memory."""
    with hosts.Host("full") as host:
        tracker = host.tracker()
        tracker._state |= {name: host.health._ToolState() for name in TOOLS}
        for name in TOOLS:
            list(map(float, range(90)))  # the clock's reading takes one of those
            attempt(tracker.record_success, [name], 0, 0)
        for name in TOOLS:
            tracker.record_success(name)
        assert tracker._dirty == {*TOOLS}, tracker._dirty


@unittest.skipIf(hasattr(sys, "gettotalrefcount"), "a debug interpreter aborts without memory")
class Allocations(unittest.TestCase):
    def test_memory_gives_out(self):
        for run in (*(f"sweep({burst})" for burst in (0, 1, 2, 5, 1000)), "mark_many()",
                    "import_without_memory()"):
            with self.subTest(run):
                children.check(self, f"from tests import test_memory; test_memory.{run}")


class PutBack(HealthCase):
    def test_mark_without_memory(self):
        """The marks that can be put back are, and MemoryError says that one could not."""
        class Name(str):
            def __hash__(self):
                if is_broken:
                    raise MemoryError
                return str.__hash__(self)

        def fail(*_):
            nonlocal is_broken
            is_broken = True
            raise OSError("broken")

        is_broken, tracker = False, self.host.tracker()
        for name in ("a", Name("b"), "c"):
            tracker.record_success(name)
        tracker._repo.db.answers["executemany"] = fail
        self.assertRaises(MemoryError, tracker.flush)
        self.assertEqual(sorted(tracker._dirty), ["a", "c"])


class Leaks(unittest.TestCase):
    def assertSteady(self, run, rounds, allowed, *kinds):
        """Many rounds leave no memory blocks and no references behind, but for what is allowed for
        each round."""
        def held():
            while gc.collect():
                pass  # a class can go only after its last instance has gone
            references = getattr(sys, "gettotalrefcount", int)()
            return [sys.getallocatedblocks(), references, *map(sys.getrefcount, kinds)]

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
            kinds = (module.ToolHealthTracker, module._ToolState, module._Usage, keepsake_type(module))
            for operation in OPERATIONS + FAILING + ERRORS:
                def run():
                    with contextlib.suppress(Exception):
                        operation(*setting.arguments_of(operation))

                with self.subTest(line=operation.__code__.co_firstlineno):
                    rounds = (50, 5) if operation is IMPORT else (1000, 0.5)
                    self.assertSteady(run, *rounds, *kinds)

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
                dying[:] = map(weakref.ref, (module, tracker, module._ToolState, module._known,
                                             module.ToolHealthTracker, keepsake_type(module)))

        number, dying = itertools.count(), []
        self.assertSteady(run, 40, 8)  # the import system and logging keep a little of every name
        self.assertEqual([it() for it in dying], [None] * 6)


def keepsake_type(module):
    return type(module._known.__code__.co_consts[0])
