# The edges: what the module is not promised to follow, and what once crashed or lost an error.
#
# Outside the line that docs/integration.md draws ("Where it is not like Python code") an answer may
# differ from plain Python's. But nothing crashes, no error is lost, and the lock is free. For
# example, an operation whose code object was exchanged no longer runs the module's body:
#
#     ToolHealthTracker.is_disabled.__code__ = ToolHealthTracker.flush.__code__
#     tracker.is_disabled("a")    # AssertionError or TypeError, never memory that is not the call's

import builtins
import collections
import functools
import gc
import os
import sys
import threading
import types
import unittest
import weakref
from unittest import mock

from bench import hosts

from . import HealthCase
from .worlds import ENTRY, KEY, World, put, source


class OutsideTheLine(HealthCase):
    # Other code in an operation, of whatever shape, is the interpreter's business.
    def test_code_of_an_operation(self):
        cls, tracker = self.health.ToolHealthTracker, self.host.tracker()
        operation = cls.record_call
        own, counted = operation.__code__, {"alias_hit": True, "duration_ms": None}
        positional = tracker, "a", None, "ok"
        for code in (
                own.replace(co_varnames=own.co_varnames[:5], co_nlocals=5, co_kwonlyargcount=1),
                own.replace(co_varnames=(*own.co_varnames, "z"), co_nlocals=7, co_kwonlyargcount=3),
                cls.record_error.__code__,
                cls.flush.__code__,
                (lambda *args, **named: None).__code__):
            operation.__code__ = code
            for count, named in ((4, {"alias_hit": True}), (4, counted), (4, counted | {"z": 1}),
                                 (3, counted | {"outcome": "ok"}), (3, {}), (0, {})):
                hosts.outcome(operation, *positional[:count], **named)
                self.assertFalse(tracker._lock.locked())
        self.assertEqual(tracker._usage, {})
        without_parameters = self.health.handle_get_tool_performance_stats
        without_parameters.__code__ = without_parameters.__code__.replace(co_name="other")
        self.assertRaises(AssertionError, without_parameters)
        operation.__code__ = own.replace(co_consts=())
        self.assertRaises(AssertionError, operation, *positional, **counted)
        operation.__code__ = own
        operation(*positional, **counted)
        self.assertEqual(list(tracker._usage), [("a", None, "ok", True)])

    # A summary lists the tools and rows of the instant at which it took the lock.
    def test_entries_exchanged_during_a_summary(self):
        for change in (
                lambda tracker: tracker._usage.update([tracker._usage.popitem()]),
                lambda tracker: tracker._usage.update({("z", None, "", 0): self.health._Usage(1)}),
                lambda tracker: tracker._state.clear(),
                lambda tracker: tracker._usage.update(dict.fromkeys(tracker._usage))):
            tracker = self.host.tracker()
            for tool, action in (("a", "1"), ("b", "2"), ("a", "3")):
                tracker.record_call(tool, action, "ok", alias_hit=False, duration_ms=None)
                tracker.record_success(tool)
            expected = tracker.get_health_summary()
            is_slow_call = mock.Mock(side_effect=lambda *_: change(tracker) and False)
            with mock.patch.object(self.health, "is_slow_call", is_slow_call):
                seen = tracker.get_health_summary()
            for record in (*expected, *seen):
                for row in record["usage"]:
                    del row["slow"]
            with self.subTest(source(change)):
                self.assertEqual(seen, expected)

    # The map of loaded counts and the list of ranked pairs, found by gc and given other contents.
    def test_dug_out_through_the_collector(self):
        def spoil(kind, first, fill):
            for found in gc.get_objects():
                if type(found) is kind and found and next(iter(found)) == first:
                    found.clear()
                    fill(found)

        class Registry(dict):
            def get(self, name):
                spoil(dict, KEY, lambda found: found.update({KEY: 1, short: 2}))
                return super().get(name)

        class Spoiler(self.health.ToolHealthTracker):
            def _usage_rows(self, name):
                spoil(list, pair, lambda found: found.extend([(), 5, None, ("a",)] * 9))

        tracker, pair = self.host.tracker(cls=Spoiler), ("a", self.health._ToolState())
        other = "b", self.health._ToolState()
        tracker._state = collections.OrderedDict([pair, other])  # no plain map: ranked pairs
        self.assertEqual(hosts.outcome(tracker.get_health_summary)[0], "raised")
        self.assertFalse(tracker._lock.locked())
        entries = [ENTRY, ENTRY | {"action": ""}]
        self.health.json = types.SimpleNamespace(loads=lambda text: entries)
        self.health.TOOLS, tracker._repo.db.answers["fetchone"] = Registry(self.health.TOOLS), ("",)
        for short in ((), (1,), 5, None, "ab"):
            hosts.outcome(tracker._load_usage)
            self.assertFalse(tracker._lock.locked())


# Calls that lead back into the module without a line of Python: what prepares one, and the call.
ENDLESS = [
    (lambda tracker, tracker_class: (
        put(tracker, _limits=type("Own", (), {"disable_cooldown_s": tracker_class.cooldown_s})()),
        put(tracker.limits, _limits=tracker.limits)),
     lambda tracker: tracker.cooldown_s),
    (lambda health: put(health, get_timing_collector=health.handle_get_tool_performance_stats),
     lambda health: health.get_timing_collector()),
    (lambda health: put(health, TOOLS=Namespace(get=functools.partial(health._known, action=None))),
     lambda health: health._known("a", None)),
    (lambda tracker: put(
        tracker, _lock=threading.RLock(), _dirty=Namespace(add=tracker.record_success)),
     lambda tracker: tracker.record_success("a")),
    (lambda health, tracker: (put(tracker, _lock=threading.RLock()), put(
        health, is_slow_call=lambda *_: tracker.get_health_summary())),
     lambda tracker: tracker.get_health_summary()),
    *((lambda tracker, tracker_class, field=field: put(tracker, _lock=threading.RLock()) and put(
        tracker_class, **{field: property(tracker_class.get_health_summary)}),
       lambda tracker: tracker.get_health_summary()) for field in ("_state", "_usage")),
]
Namespace = types.SimpleNamespace


class Recursion(unittest.TestCase):
    # Ends in RecursionError, again and again: a depth that is not given back would tell on the way.
    def test_endless_recursion(self):
        # Frames of a build that is not optimised are larger than what plain Python needs.
        is_optimised = "ASAN_OPTIONS" not in os.environ and not hasattr(sys, "gettotalrefcount")
        stack = threading.stack_size(1 << 20 if is_optimised else 1 << 28)
        self.addCleanup(threading.stack_size, stack)
        world = self.enterContext(World("endless", hosts.MODULE))
        for prepare, call in ENDLESS:
            with self.subTest(source(prepare)):
                world.reset()
                world.call(prepare)
                seen = []

                def run():
                    for _ in range(50):
                        seen.append(hosts.outcome(world.call, call)[:2])
                    seen.append(hosts.outcome(world.health._known, "z", None))

                thread = threading.Thread(target=run)
                thread.start()
                thread.join()
                self.assertEqual(seen[:-1], [("raised", "RecursionError")] * 50)
                self.assertFalse(hosts.is_held(world.tracker._lock))

    # An operation counts like a function under Python's own limit.
    def test_recursion_limit(self):
        world = self.enterContext(World("limited", hosts.MODULE))
        world.reset()
        tracker, asked = put(world.tracker, _lock=threading.RLock()), []
        world.health.is_slow_call = lambda *_: (asked.append(1), tracker.get_health_summary())
        self.addCleanup(sys.setrecursionlimit, sys.getrecursionlimit())
        sys.setrecursionlimit(400)
        self.assertEqual(hosts.outcome(world.tracker.get_health_summary)[1], "RecursionError")
        self.assertLess(len(asked), 200)


class Errors(HealthCase):
    def test_key_of_the_namespace_that_raises(self):
        class Interrupting(str):
            def __eq__(self, other):
                raise KeyboardInterrupt(other)

            __hash__ = str.__hash__

        tracker = self.host.tracker()
        tracker._usage[KEY] = self.health._Usage(1, 8, 1.0)  # a tie, which `round` has to settle
        for name, run in (
                ("datetime", lambda: self.health._epoch("2023-11-14 22:13:20")),
                ("_ToolState", tracker.get_health_summary),
                ("round", lambda: tracker._usage_rows("a"))):
            names = vars(self.health)
            with self.subTest(name), mock.patch.dict(names):
                names.pop(name, None)
                names[Interrupting(name)] = None
                self.assertEqual(hosts.outcome(run), ("raised", "KeyboardInterrupt", name))
                self.assertFalse(tracker._lock.locked())

    # A copy of the module is collected though `round` was a Python function when it was imported.
    def test_round_in_python(self):
        usual, known = round, []

        def rounding(*args, known=known):
            return usual(*args)

        with mock.patch.object(builtins, "round", rounding), hosts.Host("rounding") as host:
            known.append(host.health)
            dying = weakref.ref(host.health), weakref.ref(host.health.ToolHealthTracker)
        del host, known, rounding
        gc.collect()
        self.assertEqual([reference() for reference in dying], [None, None])
