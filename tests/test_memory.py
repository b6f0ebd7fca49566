# Memory: every allocation of every operation fails once, and no operation leaves anything behind.
#
# An operation runs again and again, and memory gives out one allocation later every time: for good,
# or for a burst of allocations. For example, when the third allocation of
#
#     lambda tracker: tracker.record_success("new")
#
# fails, it has to raise MemoryError, with the lock free and no mark without a record; and with
# memory again it has to work.

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
import time
import types
import unittest
import weakref

from bench import hosts

from . import children, test_like_python
from .worlds import ENTRY, OPERATIONS, STATISTICS, TIME, World, source

TOOLS = [f"tool {number:02}" for number in range(12)]  # more than a new set or dictionary holds


def import_again(spec):
    _imp.exec_dynamic(_imp.create_dynamic(spec))


CONSTRUCTION = [
    lambda tracker_class, full: tracker_class(full),
    lambda tracker_class, bad_row: tracker_class(bad_row),
    lambda tracker_class, bad_document: tracker_class(bad_document),
]
FAILING_WRITES = [
    lambda tracker, break_executemany: break_executemany() or tracker.flush(),
    lambda tracker, break_execute: break_execute() or tracker.flush(),
]
SWEPT = [import_again, *CONSTRUCTION, *FAILING_WRITES, *(
    operation for operation in OPERATIONS  # but for those that need a database of the usual kind
    if "db" not in source(operation) and "repository" not in source(operation))]
# What may come out besides MemoryError, and the interpreter's own words where it has no memory for
# a lock or a traceback.
EXPECTED = (type(None), TypeError, ValueError)
INTERPRETERS_OWN = ("can't allocate lock", "error return without exception set")


# Services are builtin methods here: functions in Python have allocations of their own to fail.
class BuiltinServices(World):
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
        self.full = self.history(rows, ("good",))
        self.bad_row = self.history([("a", "x", 1, None, None, None)], None)
        self.bad_document = self.history([], ("bad",))
        self.tracker._repo = self.full
        for name in TOOLS:
            self.tracker.record_error(name, "boom")
            self.tracker.record_call(name, None, "ok", alias_hit=False, duration_ms=0.3)
        fail = operator.sub  # a text minus anything
        self.break_execute = functools.partial(setattr, self.full.db, "execute", fail)
        self.break_executemany = functools.partial(setattr, self.full.db, "executemany", fail)

    def history(self, rows, document):
        select = f"SELECT {self.health._TOOL_HEALTH_COLUMNS} FROM tool_health"
        return types.SimpleNamespace(db=types.SimpleNamespace(
            fetchall={select: rows}.get,
            fetchone={"SELECT value FROM schema_info WHERE key = ?": document}.get,
            execute=self.written.__setitem__, executemany=self.written.__setitem__))


# What an operation raises. Short: CPython 3.13 unwinds long code in circles when it has no memory.
def attempt(operation, arguments, first, last):
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


# What is wrong after an operation whose memory failed.
def faults(world, error):
    tracker = world.tracker
    if tracker._lock.locked():
        yield "the lock is held"
    if not isinstance(error, (MemoryError, *EXPECTED)) and str(error) not in INTERPRETERS_OWN:
        yield "odd"
    if not tracker._dirty <= set(tracker._state):
        yield "a mark without a record"


# Each operation, with a burst of so many failing allocations (0: all) that begins later every time.
# Prints what is wrong.
def sweep(burst):
    with BuiltinServices("swept", hosts.MODULE) as world:
        dataclasses.dataclass = plain_class
        for operation in CONSTRUCTION if burst > 1 else SWEPT:
            if burst and operation is import_again:
                continue  # CPython 3.13 itself crashes, in type_new after one failure
            clean, first = 0, 0
            while clean < 20:  # that many in a row: not just allocations that can be done without
                world.reset()
                arguments = world.arguments(operation)
                error = attempt(operation, arguments, first, burst and first + burst)
                for fault in faults(world, error):
                    print(source(operation), first, fault, repr(error))
                errors = error, *world.logged.values()
                clean = clean + 1 if all(isinstance(it, EXPECTED) for it in errors) else 0
                if operation in CONSTRUCTION:
                    gc.collect()  # looks at whatever a half-made tracker has left
                again = attempt(operation, arguments, 1 << 30, 0)
                if not isinstance(again, EXPECTED):
                    print(source(operation), first, "fails afterwards", repr(again))
                first += 1


# In the place of `dataclass`, which makes functions: CPython 3.13.0 crashes when it cannot.
def plain_class(slots):
    return same


def same(record):
    return record


# Executes a module that does not say which file it is from; its allocation number `first` fails.
def import_once(host, first):
    copy = _imp.create_dynamic(host.health.__spec__)
    vars(copy).pop("__file__", None)
    error = attempt(_imp.exec_dynamic, [copy], first, first + 1)
    if isinstance(error, MemoryError) or "__getattr__" in str(error):  # a traceback in typing
        return "out of memory"
    return repr(error)


# Imports, each in a process of its own, in which a later allocation fails every time. Prints what
# is wrong.
def import_without_memory():
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


@unittest.skipIf(hasattr(sys, "gettotalrefcount"), "a debug interpreter aborts without memory")
class Allocations(unittest.TestCase):
    def test_memory_gives_out(self):
        for run in (*(f"sweep({burst})" for burst in (0, 1, 2, 5, 1000)),
                    "import_without_memory()"):
            with self.subTest(run):
                children.check(self, f"from tests import test_memory; test_memory.{run}")


class Leaks(unittest.TestCase):
    # Many rounds leave no memory blocks and no references behind, but for what is allowed each.
    def assertSteady(self, run, rounds, allowed, *kinds):
        def held():
            while gc.collect():
                pass  # a class can go only after its last instance has gone
            references = getattr(sys, "gettotalrefcount", int)()
            return [sys.getallocatedblocks(), references, *map(sys.getrefcount, kinds)]

        for _ in range(5):  # more than once, for what the interpreter keeps of the first times
            before = held()
            for _ in range(rounds):
                run()
            grown = [after - then for after, then in zip(held(), before)]
            if max(grown) < rounds * allowed:
                return
        self.fail(grown)

    def test_operations(self):
        cases = OPERATIONS + test_like_python.MET + test_like_python.STORED
        with World("leaking", hosts.MODULE) as world:
            for operation in cases:
                def run():
                    world.reset()
                    with contextlib.suppress(Exception):
                        world.call(operation)

                with self.subTest(source(operation)):
                    self.assertSteady(run, 300, 0.5, *world.patched, keepsake_type(world.health))

    def test_imports_do_not_pile_up(self):
        def run():
            with hosts.Host(f"throwaway{next(number)}") as host:
                module, tracker = host.health, host.tracker()
                tracker.get_health_summary()
                dying[:] = map(weakref.ref, (module, tracker, module._ToolState, module._known,
                                             module.ToolHealthTracker, keepsake_type(module)))

        number, dying = itertools.count(), []
        self.assertSteady(run, 40, 8)  # the import system and logging keep a little of every name
        gc.collect()
        self.assertEqual([it() for it in dying], [None] * 6)


def keepsake_type(module):
    return type(module._known.__code__.co_consts[0])
