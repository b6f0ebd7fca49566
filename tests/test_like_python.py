"""The module can not be told from plain Python: its functions, classes and records, whatever values
it meets in whatever place, and the names that it looks up.
"""

import builtins
import collections
import dataclasses
import datetime
import inspect
import itertools
import json
import pickle
import random
import time
import types
import typing
from unittest import mock

from bench import hosts

from .worlds import (
    ABSENT, ENTRY, KEY, OPERATIONS, TIME, Made, TwinCase, after, with_attributes)

FIELDS = "call_count", "error_count", "consecutive_errors", "disabled_at", "last_error"
FAR_EAST = datetime.timezone(datetime.timedelta(hours=9))
Module, Namespace, Text = types.ModuleType, types.SimpleNamespace, type("Text", (str,), {})
Ornate = type("Ornate", (int,), {"__format__": lambda *_: "\N{GREEK SMALL LETTER BETA}"})
Opinion = type("Opinion", (int,), {"__eq__": lambda own, other: own > 0, "__hash__": int.__hash__})
Falsy = type("Falsy", (), {"__len__": int, "__repr__": lambda _: "Falsy"})
OnlyEnters = type("OnlyEnters", (), {"__enter__": 5, "__repr__": lambda _: "OnlyEnters"})
OwnModule = type("OwnModule", (Module,), {"__getattribute__": lambda *_: lambda: 7.0,
                                          "__repr__": object.__repr__})


def failing(*items):
    yield from items
    raise OSError("broken half-way")


def looking(world, kind):
    """A class of things that look at the lock when they die; only the operation holds them."""
    log, lock = world.log, world.tracker._lock
    return type("Looking", (kind,), {"__del__": lambda _: log.append(hosts.is_held(lock))})


def reordered(values):
    """The first one is last, though in memory it still is the first."""
    values = collections.OrderedDict(values)
    values.move_to_end(next(iter(values)))
    return values


FACTS = {
    "constants": lambda health: (health._SQLITE_TIMESTAMP, health._TOOL_HEALTH_COLUMNS,
                                 health.TOOL_USAGE_KEY, health._UsageKey),
    "functions": lambda world: [
        (it.__qualname__, it.__module__, it.__defaults__, it.__kwdefaults__, type(it),
         it.__globals__ is vars(world.health), typing.get_type_hints(it))
        for it in functions(world).values()],
    "pickled": lambda tracker_class, record: pickle.loads(pickle.dumps(
        [tracker_class.flush, record])),
    "fields": lambda health: [
        [(it.name, it.type, it.default, it.kw_only) for it in dataclasses.fields(kind)]
        for kind in (health._ToolState, health._Usage)],
    "a record": lambda record: dataclasses.replace(record) == record,
    "class": lambda tracker_class: (tracker_class.mro(), str(inspect.signature(tracker_class))),
    "attributes": lambda tracker: [*vars(with_attributes(tracker, note=5))],
}
# Given to each function, after each number of arguments by position.
KEYWORDS = [
    {},
    {"tool_name": "a"},
    {"\N{LATIN SMALL LETTER E WITH ACUTE}": 1},
    {"alias_hit": True},
    {"outcome": "ok", "duration_ms": 2, "alias_hit": True},
    {"alias_hit": True, "duration_ms": 2, "more": 3},
    {"budget": 1, "census": None},
]
CALLS = {
    "keyword not interned": lambda tracker: tracker.record_success(**{"".join("tool_name"): "a"}),
    "keyword of a subclass": lambda tracker: tracker.record_success(**{Text("tool_name"): "a"}),
    "false limits": lambda tracker_class, repository: tracker_class(repository, Falsy()).limits,
    "other defaults": lambda health: (with_attributes(health._known, __defaults__=(None,)),
                                      health._known("a"), health._known()),
    "other defaults by name": lambda tracker, tracker_class: (
        with_attributes(tracker_class.record_call, __kwdefaults__={"duration_ms": 5}),
        tracker.record_call("a", None, "ok", alias_hit=True)),
    "default that dies": lambda tracker_class, repository: type("Own", (tracker_class,), {
        "__init__": with_attributes(tracker_class.__init__, __defaults__=(Falsy(),)),
        "__setattr__": lambda tracker, name, value: (
            with_attributes(tracker_class.__init__, __defaults__=(5,)),
            object.__setattr__(tracker, name, value))})(repository).limits,
    "numbers for texts": lambda tracker: tracker.record_call(
        "a", 0, "ok", alias_hit=0, duration_ms=0),
    "empty actions": lambda health: (health._known("a", ""), health._known("c", "")),
    "the census's own map": lambda health, census: [
        it is census.python_threads for it in health.thread_census_report(5, census).values()],
}
NUMBERS = (0, 1, 3, -2, 0.5, 2.675, 0.0625, 1e300, -0.0, True, None, "7", float("nan"), 10**30,
           ABSENT)
TOTALS = (0.0, 1, 2.675, 0.375, 0.1875, 12.3456, 1e16, 1.9560342718892493e17, 1e307, float("inf"),
          float("nan"), -0.0005, 0.0625, 2**40 / 100)
WRONG = (ABSENT, None, [], {"a": 5, "off": None, KEY: 5, KEY[:3]: 5}, frozenset("a"), OnlyEnters(),
         Made(lambda health: types.MappingProxyType({"a": health._ToolState(3)})))
# What is put into each place before each operation: data, and parts of the tracker and the module.
DATA = {
    "world.tool": ("b", "c", "zz", "", None, Text("a")),
    "world.error": ("", None, 0, "x" * 501, "\N{GRINNING FACE}" * 501, "a\0b", ["x"] * 501,
                    ValueError("x")),
    "world.text": (
        None, "", 0, b"", "2023-1-5 3:4:5", "2023-11-14 \t\n22:13:20", "0001-01-01 00:00:00",
        "385-01-01 00:00:00", "0385-01-01 00:00:00", "2024-02-29 00:00:00", "2023-02-29 00:00:00",
        "\N{FULLWIDTH DIGIT TWO}023-11-14 22:13:20", "2023-11-14\N{NO-BREAK SPACE}22:13:20",
        "2023-11-14 24:00:00", "2023-11-14 22:13:60", "0000-01-01 00:00:00", TIME + " ", TIME[2:],
        "2023-11-14T22:13:20", "2023-11-14 22:13:2x", "2023-11-14 22:13:2;",
        (TIME * 2).encode().decode("utf-16-le")),  # as long as a time, and with the bytes of one
    "world.epoch": (None, -0.5, 1.7e9 + 1 - 4e-7, -5e10, 1e300),
    "world.budget": (11, 12, Ornate(1)),
    "world.census": [hosts.ThreadCensus(*counts) for counts in (
        (True, 5, [("pool", 1)]), (6, 6, {}), (0, 2, ()), (9, 9, reordered({"a": 1, "b": 2})))],
    "world.timings": [Made(lambda world: failing(world.timings[0]))],
    "world.rows": (
        [], [("b", 2, 0, None, "garbage", None), ["a", 3.9, " 7 ", "x", TIME, TIME]],
        [("a", 1, 1, None, None, None), ("gone", 1, 1, None, None, None), ("z", *"12345")],
        [("c", True, "", 5, 0, "")], [("a", "x", 1, None, None, None)],
        [("a", 1, 1, None, 5, None)], [("a", 1)], [("a", *range(7))], [()],
        None, OSError("broken"), KeyboardInterrupt("stop")),
    "world.row": [
        *((json.dumps(saved),) for saved in (
            [ENTRY, ENTRY | {"action": None}, ENTRY | {"calls": 9}],
            [ENTRY | {"tool": "gone"}, ENTRY, ENTRY | {"action": "no"}],
            [ENTRY | {"tool": 5}, ENTRY | {"outcome": 5, "alias_hit": [0], "calls": 2.9,
                                           "timed_calls": " 7 ", "total_ms": "1e3"}],
            *([{name: 1 for name in ENTRY if name != lost}] for lost in ENTRY),
            *([ENTRY, ENTRY | {"calls": calls}] for calls in (None, "1.5", float("inf"))),
            5, None, "abc", {"a": 1}, [[]], [{}], [ENTRY | {"action": []}],
            [{"tool": "a", "calls": 1}])),
        ("[",), (None,), (5,), (b"[",), (), 5, None, OSError("broken"), KeyboardInterrupt("stop")],
    "clock.now": (1.7e9, 1.7e9 + 0.3, 1.7e9 + 60, 1.7e9 - 5, 5, None, OSError("clock")),
    "limits.disable_after_errors": (1, 2, 3, None),
    "limits.disable_cooldown_s": (0, 60),
    "db.fail_at": (1, 2, 5),
    **dict.fromkeys(("world.duration_ms record.call_count record.error_count record.updated_at"
                     " record.disabled_at counts.calls counts.timed_calls counts.total_ms").split(),
                    NUMBERS),
}
VALUES = DATA | {
    **dict.fromkeys("tracker._repo tracker._limits tracker._lock tracker._dirty"
                    " tracker._usage_dirty".split(), WRONG),
    "tracker._state": (
        *WRONG, Made(lambda tracker: reordered(tracker._state)),
        Made(lambda health: {f"tool {it}": health._ToolState(it % 2) for it in range(40)}),
        Made(lambda world: Namespace(get=lambda name: looking(world, Namespace)(
            **dict.fromkeys(FIELDS, 0))))),
    "tracker._usage": (
        *WRONG,
        Made(lambda health: {("a", str(it % 7), str(it % 2), it): health._Usage(it % 3)
                             for it in range(40, 0, -1)}),
        *(Namespace(items=items) for items in (
            lambda: failing((KEY, None)), lambda: [failing(KEY)])),
        Made(lambda counts: Namespace(items=lambda: failing((KEY, counts)))),
        Made(lambda tracker, counts: reordered(tracker._usage | {("b", "", "", 0): counts})),
        Made(lambda: failing(KEY)), Made(lambda counts: {KEY[:3]: counts}),
        Made(lambda counts: {KEY: counts, ("z", ""): counts}),
        Made(lambda world: Namespace(get=lambda key: looking(world, Namespace)(calls=0)))),
    "tracker.__dict__": [Made(lambda tracker: dict([*vars(tracker).items()][::-1]))],
    "health.time": [Made(lambda world: Namespace(time=lambda: looking(world, float)(5))), *(
        with_attributes(Module("time"), time=clock) for clock in (lambda: 5.0, abs)),
        Module("time"), with_attributes(OwnModule("time"), time=time.time)],
    "health.datetime": [Namespace(strptime=strptime) for strptime in (
        time.strptime, lambda *_: 9.0 ** 999)],
    "health.timezone": [Namespace(utc=FAR_EAST)],
    "health._sqlite_time": (len, str, Made(
        lambda copy: with_attributes(copy, _SQLITE_TIMESTAMP="%Y")._sqlite_time)),
    "health._SQLITE_TIMESTAMP": ("%Y", "1999"),
    "health._TOOL_HEALTH_COLUMNS": [5],
    "health._known": [Made(lambda copy: with_attributes(copy, TOOLS={})._known)],
    "health._ToolState": (Made(lambda record: lambda: record),
                          Made(lambda world: lambda: world.log.append("made"))),
    "health._Usage": [Made(
        lambda health: type("Own", (health._Usage,), {"__init__": lambda *_: None}))],
    "health.is_slow_call": (lambda tool, action: type(tool),
                            Made(lambda world: lambda *call: world.log.append(call))),
    "health.json": [Namespace(loads=lambda text: failing(ENTRY))],
}
TOGETHER = [
    *({"counts.timed_calls": timed, "counts.total_ms": total}
      for timed in (0, 1, 3, 8) for total in TOTALS),
    {"clock.now": 160, "record.disabled_at": 100, "limits.disable_cooldown_s": 60},
    {"tracker._usage_dirty": [], "tracker._dirty": set()},
    {"health._SQLITE_TIMESTAMP": "%Y", "world.text": "1999"},
    {"world.tool": Opinion(0), "tracker._usage": Made(
        lambda counts: {(Opinion(1), None, "ok", True): counts})},
    {"health._SQLITE_TIMESTAMP": ABSENT, "health.datetime": Namespace(fromtimestamp=lambda *_: 5)},
    {"health._TOOL_HEALTH_COLUMNS": ABSENT, "db.answers": {}},
    {"health.is_slow_call": lambda tool, action: type(tool), "world.tool": Text("a")},
    {"tracker._usage": {}, "tracker._usage_rows": Made(
        lambda tracker_class, repository: tracker_class(repository)._usage_rows)},
    *({"tracker._state": {}, "health._ToolState": value} for value in VALUES["health._ToolState"]),
    {"tracker._usage": VALUES["tracker._usage"][-2],
     "health.is_slow_call": VALUES["health.is_slow_call"][-1]},
]
CHANGES = TOGETHER + [{place: value} for place, values in VALUES.items() for value in values]


def functions(world):
    """Those of the module and of its class, also behind properties."""
    found = [getattr(it, "fget", it) for it in (
        *vars(world.health).values(), *vars(world.tracker_class).values())]
    return {it.__name__: it for it in found
            if inspect.isfunction(it) and it.__module__ == world.health.__name__}


class LikePython(TwinCase):
    def test_facts_and_calls(self):
        for name, run in (FACTS | CALLS).items():
            self.assertSame(run, name)

    def test_values(self):
        """Each in its place in each operation."""
        for changes, operation in itertools.product(CHANGES, OPERATIONS):
            self.assertSame(after(changes, operation), operation, changes)

    def test_arguments(self):
        names = functions(self.plain)
        self.assertEqual(len(names), 20)
        for name, count, keywords in itertools.product(names, range(8), KEYWORDS):
            def call(world, tracker):
                function = functions(world)[name]
                first = tracker if "." in function.__qualname__ else "a"
                return function(*[first, *"aaaaaa"][:count], **keywords)
            self.assertSame(call, name, f"{count} arguments", keywords)

    def test_late_binding(self):
        """In the module, and then in the builtins."""
        names = [name for name in vars(self.module.health) if not name.startswith("__")]
        for name, (operation, run) in itertools.product(names, OPERATIONS.items()):
            def without(world, health):
                vars(health).pop(name)
                return world.call(run)

            def in_builtins(world, health):
                with mock.patch.object(builtins, name, vars(health).pop(name), create=True):
                    return world.call(run)

            self.assertSame(without, operation, "without", name)
            self.assertSame(in_builtins, operation, "in the builtins", name)

    def test_random_programs(self):
        operations, places = list(OPERATIONS.values()), list(DATA)
        for seed in range(300):
            def program(world):
                world.dice, told = random.Random(seed), []
                for _ in range(30):
                    told.append(hosts.outcome(world.call, world.dice.choice(operations)))
                    place = world.dice.choice(places)
                    told.append(hosts.outcome(
                        world.change, {place: world.dice.choice(DATA[place])}))
                return told
            self.assertSame(program, "seed", seed)
