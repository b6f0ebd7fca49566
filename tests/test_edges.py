"""The edges: what the module is not promised to follow, and what once crashed or lost an error.

Outside the line that docs/integration.md draws ("Where it is not like Python code") an answer may
differ from plain Python's. But nothing crashes, no error is lost, and the lock is free. For
example, an operation whose code object was exchanged no longer runs the module's body:

    ToolHealthTracker.is_disabled.__code__ = ToolHealthTracker.flush.__code__
    tracker.is_disabled("a")    # AssertionError or TypeError, never memory that is not the call's

Whatever may end the process runs in a child process.
"""

import builtins
import collections
import dataclasses
import faulthandler
import gc
import itertools
import os
import sys
import threading
import timeit
import types
import unittest
import weakref
from unittest import mock

from . import HealthCase, children, hosts
from .test_memory import plain_class

GOOD_ROW = ("a", 3, 1, "boom", None, "2023-11-14 22:13:20")
GOOD_ENTRY = {
    "tool": "a",
    "action": "text",
    "outcome": "ok",
    "alias_hit": False,
    "calls": 2,
    "timed_calls": 1,
    "total_ms": 2.5,
}
HISTORIES = {  # rows of the table, and entries of the usage document
    "good": ([GOOD_ROW] * 3, [GOOD_ENTRY]),
    "bad row": ([("a", "x", 1, None, None, None)], []),
    "bad document": ([GOOD_ROW], [5]),
}


def construct_without_memory():
    """Constructs trackers while allocations fail: one after the other, and in bursts. Prints what
    is odd.
    """
    import _testcapi

    with hosts.Host("starved") as host:
        host.health.logger.disabled = True
        for history, (rows, entries) in HISTORIES.items():
            database = types.SimpleNamespace(
                fetchall=lambda sql: rows, fetchone=lambda *_: ("document",)
            )
            repository = types.SimpleNamespace(db=database)
            # Not the real one: CPython 3.13.0 crashes in its own decoder when it has no memory.
            host.health.json = types.SimpleNamespace(loads=lambda text: entries)
            for burst, first in itertools.product((1, 2, 5, 1000), range(120)):
                _testcapi.set_nomemory(first, first + burst)
                try:
                    host.health.ToolHealthTracker(repository)
                except (MemoryError, ValueError):
                    pass
                except BaseException as error:
                    if (
                        str(error) != "can't allocate lock"
                    ):  # the interpreter's own words for no memory
                        print(history, burst, first, repr(error))
                finally:
                    _testcapi.remove_mem_hooks()
                gc.collect()


def import_once(host, first):
    """Executes a module that does not say which file it is from; its allocation number ``first``
    fails.
    """
    import _imp
    import _testcapi

    copy = _imp.create_dynamic(host.health.__spec__)
    vars(copy).pop("__file__", None)
    _testcapi.set_nomemory(first, first + 1)
    try:
        _imp.exec_dynamic(copy)
    except MemoryError:
        return "out of memory"
    except BaseException as error:
        # The interpreter's own words, for a traceback in typing that found no memory.
        return "out of memory" if "__getattr__" in str(error) else repr(error)
    finally:
        _testcapi.remove_mem_hooks()
    return "imported"


def import_without_memory():
    """Imports, each in a process of its own, in which a later allocation fails every time. Prints
    what is odd.
    """
    crashes, imported = 0, 0
    faulthandler.disable()
    with hosts.Host("starved") as host:
        dataclasses.dataclass = (
            plain_class  # the real one crashes CPython 3.13.0 when it has no memory
        )
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
            imported = imported + 1 if result == "imported" else 0
            if result not in ("", "imported", "out of memory"):
                print(first, result)
            if imported > 20:  # that many in a row: not just allocations that can be done without
                break
    if crashes > 3:  # CPython 3.13.0 itself crashes once for each class that it cannot make
        print(crashes, "crashes")


@unittest.skipIf(
    hasattr(sys, "gettotalrefcount"), "a debug interpreter aborts in its own code without memory"
)
class NoMemory(unittest.TestCase):
    def test_construction(self):
        children.check(self, "from tests import test_edges; test_edges.construct_without_memory()")

    def test_import(self):
        children.check(self, "from tests import test_edges; test_edges.import_without_memory()")


class OutsideTheLine(HealthCase):
    def test_code_of_an_operation(self):
        """Other code in an operation, of whatever shape, is the interpreter's business."""
        cls, tracker = self.health.ToolHealthTracker, self.host.tracker()
        operation = cls.record_call
        own = operation.__code__
        call = {
            "tool_name": "a",
            "action": None,
            "outcome": "ok",
            "alias_hit": True,
            "duration_ms": None,
        }
        for code in (
            own.replace(co_varnames=own.co_varnames[:5], co_nlocals=5, co_kwonlyargcount=1),
            own.replace(co_varnames=(*own.co_varnames, "more"), co_nlocals=7, co_kwonlyargcount=3),
            own.replace(co_name="copy"),
            cls.record_error.__code__,
            cls.flush.__code__,
            (lambda *args, **named: None).__code__,
        ):
            operation.__code__ = code
            for args, named in (
                ((tracker, "a", None, "ok"), {"alias_hit": True}),
                ((tracker, "a", None, "ok"), {"alias_hit": True, "duration_ms": None}),
                ((tracker, "a", None, "ok"), {"alias_hit": True, "duration_ms": None, "more": 1}),
                ((tracker,), call),
                ((tracker, "a", "b"), {}),
                ((tracker,), {}),
                ((), {}),
            ):
                hosts.outcome(operation, *args, **named)
                self.assertFalse(tracker._lock.locked())
        self.assertEqual(tracker._usage, {})
        operation.__code__ = own
        tracker.record_call(**call)
        self.assertEqual(list(tracker._usage), [("a", None, "ok", True)])

    def test_changed_property(self):
        tracker, read = self.host.tracker(), self.health.ToolHealthTracker.__dict__["cooldown_s"]
        tracker.record_error("a", "boom")
        read.__init__(lambda self: -1)
        self.assertEqual((tracker.cooldown_s, tracker._lock.locked()), (-1, False))

    def test_entries_exchanged_during_a_summary(self):
        """A summary lists the tools and rows of the instant at which it took the lock."""

        def exchange(tracker):
            usage = tracker._usage
            return (
                usage.clear,
                lambda: usage.update([usage.popitem()]),
                usage.popitem,
                lambda: usage.update({("new", None, "ok", False): self.health._Usage(1)}),
                tracker._state.clear,
                lambda: usage.update(dict.fromkeys(usage)),
            )

        for case in range(6):
            tracker = self.host.tracker()
            for tool, action in (("a", "1"), ("b", "2"), ("a", "3")):
                tracker.record_call(tool, action, "ok", alias_hit=False, duration_ms=None)
                tracker.record_success(tool)
            expected = tracker.get_health_summary()
            change = exchange(tracker)[case]
            with mock.patch.object(
                self.health, "is_slow_call", lambda tool, action: bool(change()) and False
            ):
                seen = tracker.get_health_summary()
            for record in (*expected, *seen):
                for row in record["usage"]:
                    del row["slow"]
            self.assertEqual(seen, expected)

    def test_dug_out_through_the_collector(self):
        """The map of loaded counts and the list of ranked pairs, found by gc and given other
        contents.
        """

        def spoil(kind, first, new):
            for found in gc.get_objects():
                if type(found) is kind and found and next(iter(found)) == first:
                    found.clear()
                    new(found)

        key = ("a", "text", "ok", False)

        class Registry(dict):
            def get(self, name):
                for short in ((), (1,), 5, None, "ab"):
                    spoil(dict, key, lambda found: found.update({short: 1, key: 2}))
                return super().get(name)

        database = self.host.database()
        database.answers["fetchone"] = ("document",)
        self.health.json = types.SimpleNamespace(
            loads=lambda text: [GOOD_ENTRY, GOOD_ENTRY | {"action": ""}]
        )
        self.health.TOOLS = Registry(self.health.TOOLS)
        hosts.outcome(self.host.tracker, database)
        self.assertFalse(database.tracker._lock.locked())

        class Spoiler(self.health.ToolHealthTracker):
            def _usage_rows(self, name):
                spoil(list, pair, lambda found: found.extend([(), 5, None, ("a",)] * 9))

        tracker = self.host.tracker(cls=Spoiler)
        pair = ("a", self.health._ToolState())
        tracker._state = collections.OrderedDict(
            [pair, ("b", self.health._ToolState())]
        )  # no plain map: ranked pairs
        self.assertEqual(hosts.outcome(tracker.get_health_summary)[0], "raised")
        self.assertFalse(tracker._lock.locked())


class Recursion(HealthCase):
    def test_through_a_property_of_the_class(self):
        """Endless recursion that never passes through bytecode ends in RecursionError, again and
        again.
        """
        cls = self.health.ToolHealthTracker
        for field in ("_state", "_usage"):
            endless = type("Endless", (cls,), {})
            tracker = self.host.tracker(cls=endless)
            tracker._lock = threading.RLock()
            setattr(endless, field, property(cls.get_health_summary))
            seen = []

            def run():
                for _ in range(50):  # a depth that is not given back would tell on the way
                    seen.append(hosts.outcome(tracker.get_health_summary))
                seen.append(hosts.outcome(self.host.tracker().flush))

            with self.subTest(field):
                thread = threading.Thread(target=run)
                thread.start()
                thread.join()
                endless_recursion = "raised", "RecursionError", "maximum recursion depth exceeded"
                self.assertEqual(seen, [endless_recursion] * 50 + [("int", "0")])


class Errors(HealthCase):
    def test_interrupted_import(self):
        """KeyboardInterrupt out of an overridden import leaves ours, whichever import it is."""
        usual = builtins.__import__

        def load(interrupted_at):
            def counting(*args):
                imports.append(args[0])
                if len(imports) == interrupted_at:
                    raise KeyboardInterrupt
                return usual(*args)

            imports = []
            with hosts.Host("interrupted", load=False) as host:
                with mock.patch.object(builtins, "__import__", counting):
                    return hosts.outcome(host.load), imports

        _, imports = load(None)
        for at, name in enumerate(imports, 1):
            with self.subTest(name):
                self.assertEqual(load(at)[0][:2], ("raised", "KeyboardInterrupt"))

    def test_key_of_the_namespace_that_raises(self):
        class Interrupting(str):
            def __eq__(self, other):
                raise KeyboardInterrupt(other)

            __hash__ = str.__hash__

        tracker = self.host.tracker()
        tracker._usage["a", None, "ok", False] = self.health._Usage(
            1, 8, 1.0
        )  # a tie, which `round` has to settle
        for name, run in (
            ("datetime", lambda: self.health._epoch("2023-11-14 22:13:20")),
            ("timezone", lambda: self.health._sqlite_time(5.0)),
            ("_SQLITE_TIMESTAMP", lambda: self.health._sqlite_time(5.0)),
            ("_ToolState", tracker.get_health_summary),
            ("round", lambda: tracker._usage_rows("a")),
        ):
            space = vars(self.health)
            with self.subTest(name), mock.patch.dict(space):
                space.pop(name, None)
                space[Interrupting(name)] = None
                self.assertEqual(hosts.outcome(run), ("raised", "KeyboardInterrupt", name))
                self.assertFalse(tracker._lock.locked())

    def test_round_in_python(self):
        """A copy of the module is collected though `round` was a Python function when it was
        imported.
        """
        usual, known = round, []

        def rounding(*args, known=known):
            return usual(*args)

        with mock.patch.object(builtins, "round", rounding), hosts.Host("rounding") as host:
            known.append(host.health)
            dying = weakref.ref(host.health), weakref.ref(host.health.ToolHealthTracker)
        del host, known, rounding
        gc.collect()
        self.assertEqual([reference() for reference in dying], [None, None])

    def test_loaded_by_path(self):
        """Without an entry in sys.modules the module loads, and leaves none behind; nor does a
        failed load.
        """
        host = self.enterContext(hosts.Host("by.path", load=False))
        module = host.load(enter=False)
        self.assertEqual((module._Usage(3).calls, host.full_name in sys.modules), (3, False))
        with mock.patch("dataclasses.dataclass", side_effect=OSError("no")):
            self.assertRaises(OSError, host.load, enter=False)
        self.assertNotIn(host.full_name, sys.modules)


@unittest.skipIf(
    "ASAN_OPTIONS" in os.environ or hasattr(sys, "gettotalrefcount"), "times of a build for users"
)
class Times(HealthCase):
    """Each a cliff of a factor of five and more; the least of several tries is hardly disturbed by
    other work.
    """

    def least(self, *cases):
        """The shortest time of each case, a statement and its names; measured in turn."""
        timers = [timeit.Timer(statement, globals=names) for statement, names in cases]
        rounds = [[timer.timeit(1000) for timer in timers] for _ in range(60)]
        return map(min, zip(*rounds))

    def test_class_without_a_version_tag(self):
        tracker, patched = self.host.tracker(), self.host.load().ToolHealthTracker
        other = self.host.tracker(cls=patched)
        for _ in range(1100):  # CPython gives a class about a thousand
            patched.record_error = patched.record_success
            other.is_disabled("a")
        question = "tracker.has_unsaved_changes"
        usual, without = self.least(
            (question, {"tracker": tracker}), (question, {"tracker": other})
        )
        self.assertLess(without, 2.5 * usual)

    def test_two_classes_in_turn(self):
        first, second = (
            self.host.tracker(cls=type("Own", (self.health.ToolHealthTracker,), {}))
            for _ in range(2)
        )
        call = "first.is_disabled('a'); second.is_disabled('a')"
        one, two = self.least(
            (call, {"first": first, "second": first}), (call, {"first": first, "second": second})
        )
        self.assertLess(two, 3 * one)

    def test_census_warning(self):
        census = hosts.ThreadCensus(90, 12, {"MainThread": 1, "pool": 11})
        plain = self.enterContext(hosts.Host("plain", hosts.PLAIN))
        module, python = self.least(
            *(
                (
                    "report(50, census)",
                    {"report": host.health.thread_census_report, "census": census},
                )
                for host in (self.host, plain)
            )
        )
        self.assertLess(module, python)
