"""Memory: each allocation of every operation fails in turn, alone or with those that follow, and no
operation leaves anything behind.
"""

import _imp
import dataclasses
import functools
import gc
import itertools
import operator
import sys
import time
import types
import unittest
import weakref

from bench import hosts

from . import children
from .test_like_python import CALLS, VALUES
from .worlds import ENTRY, OPERATIONS, STATISTICS, TIME, World

TOOLS = [f"tool {number:02}" for number in range(12)]  # more than a new set or dictionary holds
CONSTRUCTION = {
    "construction": lambda tracker_class, full: tracker_class(full),
    "construction from a bad row": lambda tracker_class, bad_row: tracker_class(bad_row),
    "construction from a bad document": lambda tracker_class, bad: tracker_class(bad),
}
USE = {name: run for name, run in OPERATIONS.items() if name != "construction"}
IMPORT = {"import": lambda spec: _imp.exec_dynamic(_imp.create_dynamic(spec))}
EXPECTED = (type(None), TypeError, ValueError)  # with memory
# The interpreter's own words where it has no memory for a lock or a traceback.
INTERPRETERS_OWN = ("can't allocate lock", "error return without exception set")


class BuiltinServices(World):
    """Services are builtin methods: functions in Python have allocations of their own."""

    def reset(self):
        super().reset()
        self.written, self.logged, health = {}, {}, self.health
        health.time, health.is_slow_call = types.SimpleNamespace(time=time.time), operator.eq
        health.logger = types.SimpleNamespace(warning=self.logged.__setitem__)
        health.json = types.SimpleNamespace(dumps="{}".format, loads={
            "good": [ENTRY, ENTRY | {"tool": "gone"}], "bad": [5]}.get)
        collector = types.SimpleNamespace(get_all_stats=[dict.fromkeys(STATISTICS, 1)].copy)
        health.get_timing_collector = functools.partial({"it": collector}.get, "it")
        self.spec = health.__spec__
        rows = [(name, 3, 2, "boom", None, TIME) for name in ("a", "b", "gone")]
        self.full = self.repository = self.history(rows, ("good",))
        self.bad_row = self.history([("a", "x", 1, None, None, None)], None)
        self.bad = self.history([], ("bad",))
        self.tracker._repo = self.full
        for name in TOOLS:
            self.tracker.record_error(name, "boom")
            self.tracker.record_call(name, None, "ok", alias_hit=False, duration_ms=0.3)

    def fail(self, number):
        method = ("executemany", "execute")[number - 1]
        setattr(self.full.db, method, operator.sub)  # a text minus anything fails

    def history(self, rows, document):
        select = f"SELECT {self.health._TOOL_HEALTH_COLUMNS} FROM tool_health"
        return types.SimpleNamespace(db=types.SimpleNamespace(
            fetchall={select: rows}.get,
            fetchone={"SELECT value FROM schema_info WHERE key = ?": document}.get,
            execute=self.written.__setitem__, executemany=self.written.__setitem__))


def same(record):
    return record


def attempt(operation, arguments, first, last):
    """What it raises. Short: CPython 3.13 unwinds long code in circles without memory."""
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


def faults(tracker, error):
    if tracker._lock.locked():
        yield "the lock is held"
    if not isinstance(error, (MemoryError, *EXPECTED)) and str(error) not in INTERPRETERS_OWN:
        yield "it raises something else"
    if not tracker._dirty <= set(tracker._state):
        yield "a mark without a record"


def sweep(operations, burst):
    """Each operation, with so many failing allocations (0: all) that begin one later every time; it
    succeeds or raises MemoryError, and works again with memory. Prints what is wrong.
    """
    with BuiltinServices("swept", hosts.MODULE) as world:
        # The usual one makes functions: CPython 3.13.0 crashes when it cannot.
        dataclasses.dataclass = lambda slots: same
        for name, operation in operations.items():
            clean, first = 0, 0
            while clean < 20:  # in a row: some allocations can be done without
                world.reset()
                arguments = world.arguments(operation)
                error = attempt(operation, arguments, first, burst and first + burst)
                wrong = [*faults(world.tracker, error)]
                errors = error, *world.logged.values()
                clean = clean + 1 if all(isinstance(it, EXPECTED) for it in errors) else 0
                gc.collect(0)  # looks at what a half-made tracker has left
                again = attempt(operation, arguments, 1 << 30, 0)
                if not isinstance(again, EXPECTED):
                    wrong.append(f"it fails afterwards: {again!r}")
                if wrong:
                    print(name, "without allocation", first, error, wrong)
                first += 1


@unittest.skipIf(hasattr(sys, "gettotalrefcount"), "a debug interpreter aborts without memory")
class Allocations(unittest.TestCase):
    def test_memory_gives_out(self):
        """CPython 3.13 itself crashes in an import when just one allocation fails."""
        for burst, operations in (
                (0, "IMPORT | CONSTRUCTION | USE"), (1, "CONSTRUCTION | USE"),
                (2, "CONSTRUCTION"), (5, "CONSTRUCTION"), (1000, "CONSTRUCTION")):
            with self.subTest(operations, burst=burst):
                children.check(self, "from tests.test_memory import *;"
                               f" sweep({operations}, {burst})")


class Leaks(unittest.TestCase):
    def assertSteady(self, run, rounds, allowed, *kinds):
        """Rounds leave no memory blocks and references behind but what each is allowed."""
        def held():
            while gc.collect():
                pass  # a class can go only after its last instance has gone
            references = getattr(sys, "gettotalrefcount", int)()
            return [sys.getallocatedblocks(), references, *map(sys.getrefcount, kinds)]

        for _ in range(30):  # more than once, for what the interpreter keeps of the first times
            before = held()
            for _ in range(rounds):
                run()
            grown = [after - then for after, then in zip(held(), before)]
            if max(grown) < rounds * allowed:
                return
        self.fail(f"blocks, references and those of the classes grew by {grown}")

    def test_operations(self):
        cases = {place: (OPERATIONS, [{place: value} for value in values])
                 for place, values in VALUES.items()} | {"calls": (CALLS, [{}])}
        with World("leaking", hosts.MODULE) as world:
            for name, (operations, all_changes) in cases.items():
                def run():
                    for changes in all_changes:
                        world.reset()
                        world.change(changes)
                        for operation in operations.values():
                            hosts.outcome(world.call, operation)

                with self.subTest(name):
                    self.assertSteady(run, 60, 0.9, *world.classes, state_type(world.health))

    def test_imports_do_not_pile_up(self):
        def run():
            with hosts.Host(f"throwaway{next(number)}") as host:
                module, tracker = host.health, host.tracker()
                tracker.get_health_summary()
                dying[:] = map(weakref.ref, (module, tracker, module._ToolState, module._known,
                                             module.ToolHealthTracker, state_type(module)))

        number, dying = itertools.count(), []
        self.assertSteady(run, 40, 8)  # the import system and logging keep a little of every name
        gc.collect()
        self.assertEqual([it() for it in dying], [None] * 6)


def state_type(module):
    """The type of the link from an operation to the state of its module."""
    return type(module._known.__code__.co_consts[0])
