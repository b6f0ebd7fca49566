"""Outside the line that docs/integration.md draws ("Where it is not like Python code") an answer
may differ from plain Python's, but nothing crashes, no error is lost, and the lock is free.
"""

import functools
import itertools
import os
import sys
import threading
import types
import unittest
from unittest import mock

from bench import hosts

from . import HealthCase
from .worlds import KEY, OPERATIONS, Made, World, with_attributes


class OutsideTheLine(HealthCase):
    def test_code_of_an_operation(self):
        """Other code in an operation, of whatever shape, is the interpreter's business."""
        cls, tracker = self.health.ToolHealthTracker, self.host.tracker()
        operation, counted = cls.record_call, {"alias_hit": True, "duration_ms": None}
        own, positional = operation.__code__, (tracker, "a", None, "ok")
        codes = {
            "one variable less": own.replace(
                co_varnames=own.co_varnames[:5], co_nlocals=5, co_kwonlyargcount=1),
            "one more": own.replace(
                co_varnames=(*own.co_varnames, "z"), co_nlocals=7, co_kwonlyargcount=3),
            "no constants": own.replace(co_consts=()), "a name": own.replace(co_name="other"),
            "another operation's": cls.flush.__code__,
            "any arguments": (lambda *args, **named: None).__code__}
        for name, count, named in itertools.product(
                codes, (4, 3, 0), ({}, counted, counted | {"z": 1})):
            with self.subTest(name, count=count, named=named):
                operation.__code__ = codes[name]
                hosts.outcome(operation, *positional[:count], **named)
                self.assertFalse(tracker._lock.locked())
        self.assertEqual(tracker._usage, {}, "somebody else's code has counted")
        operation.__code__ = own
        operation(*positional, **counted)
        self.assertEqual(list(tracker._usage), [("a", None, "ok", True)])
        without_parameters = self.health.handle_get_tool_performance_stats
        without_parameters.__code__ = without_parameters.__code__.replace(co_name="other")
        self.assertRaises(AssertionError, without_parameters)

    def test_entries_exchanged_during_a_summary(self):
        """It lists the tools and rows of the instant at which it took the lock."""
        for name, change in {
                "added": lambda tracker: tracker._usage.update({
                    ("z", None, "", 0): self.health._Usage(1)}),
                "cleared": lambda tracker: tracker._state.clear(),
                "spoilt": lambda tracker: tracker._usage.update(dict.fromkeys(tracker._usage)),
                }.items():
            tracker, seen = self.host.tracker(), []
            for tool, action in (("a", "1"), ("b", "2"), ("a", "3")):
                tracker.record_call(tool, action, "ok", alias_hit=False, duration_ms=None)
                tracker.record_success(tool)
            for side_effect in (None, lambda *_: change(tracker)):
                with mock.patch.object(self.health, "is_slow_call", side_effect=side_effect):
                    for record in tracker.get_health_summary():
                        rows = [row | {"slow": None} for row in record["usage"]]
                        seen.append(record | {"usage": rows})
            with self.subTest(name):
                self.assertEqual(seen[:2], seen[2:])

    def test_key_of_the_namespace_that_raises(self):
        class Interrupting(str):
            def __eq__(self, other):
                raise KeyboardInterrupt(other)

            __hash__ = str.__hash__

        tracker, names = self.host.tracker(), vars(self.health)
        tracker._usage[KEY] = self.health._Usage(1, 8, 1.0)  # a tie, which `round` has to settle
        for name, run in {
                "datetime": lambda: self.health._epoch("2023-11-14 22:13:20"),
                "_ToolState": tracker.get_health_summary,
                "round": lambda: tracker._usage_rows("a")}.items():
            with self.subTest(name), mock.patch.dict(names):
                names.pop(name, None)
                names[Interrupting(name)] = None
                self.assertEqual(hosts.outcome(run), [f"raised: KeyboardInterrupt: {name}"])
                self.assertFalse(tracker._lock.locked())


Namespace, AGAIN = types.SimpleNamespace, {"tracker._lock": Made(lambda: threading.RLock())}
# Operations that lead back into themselves without a line of Python.
ENDLESS = [
    ("settings", {"tracker._limits": Made(lambda tracker_class: with_attributes(
        own := type("Own", (), {"disable_cooldown_s": tracker_class.cooldown_s})(), _limits=own))}),
    ("statistics", {"health.get_timing_collector": Made(
        lambda health: health.handle_get_tool_performance_stats)}),
    ("_known", {"health.TOOLS": Made(
        lambda health: Namespace(get=functools.partial(health._known, action=None)))}),
    ("record_success", AGAIN | {"tracker._dirty": Made(
        lambda tracker: Namespace(add=tracker.record_success))}),
    ("summary", AGAIN | {"health.is_slow_call": Made(
        lambda tracker: lambda *_: tracker.get_health_summary())}),
    *(("summary", AGAIN | {f"tracker_class.{field}": Made(
        lambda tracker_class: property(tracker_class.get_health_summary))})
      for field in ("_state", "_usage")),
]


class Recursion(unittest.TestCase):
    def test_endless_recursion(self):
        """Ends in RecursionError, again and again: each depth is given back."""
        # Frames of a build that is not optimised are larger than what plain Python needs.
        is_optimised = "ASAN_OPTIONS" not in os.environ and not hasattr(sys, "gettotalrefcount")
        stack = threading.stack_size(1 << 20 if is_optimised else 1 << 28)
        self.addCleanup(threading.stack_size, stack)
        world = self.enterContext(World("endless", hosts.MODULE))
        for operation, changes in ENDLESS:
            def run():
                for _ in range(50):
                    (told, *_) = hosts.outcome(world.call, OPERATIONS[operation])
                    seen.append(told.split(": ")[1])

            with self.subTest(operation, after=changes):
                world.reset()
                world.change(changes)
                seen, thread = [], threading.Thread(target=run)
                thread.start()
                thread.join()
                self.assertEqual(seen, ["RecursionError"] * 50)
                self.assertFalse(hosts.is_held(world.tracker._lock))

    def test_recursion_limit(self):
        """An operation counts like a function under Python's own limit."""
        world = self.enterContext(World("limited", hosts.MODULE))
        world.reset()
        world.change(AGAIN)
        asked, summary = [], world.tracker.get_health_summary
        world.health.is_slow_call = lambda *_: (asked.append(1), summary())
        self.addCleanup(sys.setrecursionlimit, sys.getrecursionlimit())
        sys.setrecursionlimit(400)
        self.assertRaises(RecursionError, summary)
        self.assertLess(len(asked), 200)
