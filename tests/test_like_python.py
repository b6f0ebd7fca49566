"""The module can not be told from plain Python: its functions, classes and records, the objects
that it meets, the names that it looks up, and the stored forms.

Each entry of a table is a case for both worlds, by its name.
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

METHODS = ("__init__ _load _load_usage record_call record_success record_error is_disabled flush"
           " get_health_summary _usage_rows _flush_usage _flush_health").split()
PROPERTIES = ["limits", "cooldown_s", "has_unsaved_changes"]
FUNCTIONS = ("_sqlite_time _epoch _known handle_get_tool_performance_stats"
             " thread_census_report").split()
TOTALS = (0.0, 1, 2.675, 0.375, 0.1875, 12.3456, 1e16, 1.9560342718892493e17, 1e307, float("inf"),
          float("nan"), -0.0005, 0.0625, 2**40 / 100)
TEXTS = (None, "", 0, 5, b"", TIME,
         "2023-1-5 3:4:5", "2023-11-14 \t\n22:13:20", "0001-01-01 00:00:00",
         "385-01-01 00:00:00", "0385-01-01 00:00:00", "2024-02-29 00:00:00", "2023-02-29 00:00:00",
         "\N{FULLWIDTH DIGIT TWO}023-11-14 22:13:20", "2023-11-14\N{NO-BREAK SPACE}22:13:20",
         "2023-11-14 24:00:00", "2023-11-14 22:13:60", "0000-01-01 00:00:00", TIME + " ", TIME[2:],
         "2023-11-14T22:13:20", "2023-11-14 22:13:2x", "2023-11-14 22:13:2;",
         (TIME * 2).encode().decode("utf-16-le"))  # so long as a time, and with the bytes of one
FIELDS = "call_count", "error_count", "consecutive_errors", "disabled_at", "last_error"
FAR_EAST = datetime.timezone(datetime.timedelta(hours=9))
Module, Namespace, Text = types.ModuleType, types.SimpleNamespace, type("Text", (str,), {})
Ornate = type("Ornate", (int,), {"__format__": lambda *_: "\N{GREEK SMALL LETTER BETA}"})
Falsy = type("Falsy", (), {"__len__": int, "__repr__": lambda _: "Falsy"})


class OwnModule(Module):
    """Finds its attributes in its own way."""

    def __getattribute__(self, name):
        return lambda: 7.0

    __repr__ = object.__repr__


def failing(*items):
    """Gives these items, and then fails."""
    yield from items
    raise OSError("broken half-way")


def looking(world, kind):
    return type("Looking", (kind,), {
        "__del__": lambda _: world.log.append(hosts.is_held(world.tracker._lock))})


def reordered(values):
    """The values with the first one last, in a map whose memory has them in the old order."""
    values = collections.OrderedDict(values)
    values.move_to_end(next(iter(values)))
    return values


FACTS = {
    "constants": lambda health: (health._SQLITE_TIMESTAMP, health._TOOL_HEALTH_COLUMNS,
                                 health.TOOL_USAGE_KEY, health._UsageKey),
    "functions": lambda world: [
        (it.__qualname__, it.__module__, it.__defaults__, it.__kwdefaults__, type(it),
         it.__globals__ is vars(world.health)) for it in functions(world).values()],
    "annotations": lambda world: [typing.get_type_hints(it) for it in functions(world).values()],
    "pickled": lambda health, record, tracker_class: pickle.loads(pickle.dumps(
        [health._known, tracker_class, tracker_class.flush, record])),
    "fields": lambda health: [
        [(it.name, it.type, it.default, it.kw_only) for it in dataclasses.fields(kind)]
        for kind in (health._ToolState, health._Usage)],
    "a record": lambda record: (dataclasses.replace(record), dataclasses.replace(record) == record),
    "class": lambda tracker_class: (tracker_class.mro(), str(inspect.signature(tracker_class))),
    "attributes": lambda tracker: (with_attributes(tracker, note=5), list(vars(tracker)),
                                   delattr(tracker, "note")),
}
# What is given by name, to each operation and with each number of arguments by position.
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
}
# What an operation looks up when it is used: replaced.
REPLACED = [
    ("summary", {"health._sqlite_time": Made(
        lambda copy: with_attributes(copy, _SQLITE_TIMESTAMP="%Y")._sqlite_time)}),
    ("_load_usage", {"health._known": Made(lambda copy: with_attributes(copy, TOOLS={})._known)}),
    *(("summary", {"health._sqlite_time": no_function}) for no_function in (len, str)),
    ("_epoch _sqlite_time summary", {"health.timezone": Namespace(utc=FAR_EAST)}),
    ("_epoch", {"health.datetime": Namespace(strptime=time.strptime)}),
    ("_epoch _sqlite_time", {"health._SQLITE_TIMESTAMP": "%Y", "world.text": "1999"}),
    ("summary", {"tracker._usage": {}, "tracker._usage_rows": Made(
        lambda tracker_class, repository: tracker_class(repository)._usage_rows)}),
    *(("record_success", {"health.time": clock}) for clock in (
        with_attributes(Module("time"), time=lambda: 5.0), Module("time"),
        with_attributes(Module("time"), time=abs),
        with_attributes(OwnModule("time"), time=time.time))),
    ("_load flush", {"health._TOOL_HEALTH_COLUMNS": ABSENT, "db.answers": {}}),
    ("flush _load", {"health._TOOL_HEALTH_COLUMNS": 5}),
    ("_sqlite_time", {"health._SQLITE_TIMESTAMP": ABSENT, "health.datetime": Namespace(
        fromtimestamp=lambda *_: 5)}),
    ("summary", {"tracker._state": {}, "health._ToolState": Made(
        lambda world: lambda: world.log.append("made"))}),
    ("_load_usage", {"health._Usage": Made(
        lambda health: type("Own", (health._Usage,), {"__init__": lambda *_: None}))}),
    ("_usage_rows", {"health.is_slow_call": lambda tool, action: type(tool),
                     "world.tool": Text("a")}),
]
# Maps, numbers and texts that are not what the tracker puts there.
UNUSUAL_INPUTS = [
    *(("census", {"world.budget": budget}) for budget in (11, 12, Ornate(1))),
    *(("census", {"world.census": hosts.ThreadCensus(*counts)}) for counts in (
        (True, 5, [("pool", 1)]), (6, 6, {}), (0, 2, ()), (9, 9, reordered({"a": 1, "b": 2})))),
    ("summary", {"tracker._state": Made(lambda tracker: reordered(tracker._state))}),
    ("summary flush", {"tracker._usage": Made(
        lambda tracker, counts: reordered(tracker._usage | {("b", "", "", 0): counts}))}),
    ("record_success record_error", {
        "tracker._state": {}, "health._ToolState": Made(lambda record: lambda: record)}),
    ("summary", {"tracker._state": Made(lambda health: {
        f"tool {it}": health._ToolState(it % 2) for it in range(40)}),
        "tracker._usage": Made(lambda health: {("a", str(it % 7), str(it % 2), it): health._Usage(
            it % 3) for it in range(40, 0, -1)})}),
    *(("_usage_rows flush", {"counts.timed_calls": timed, "counts.total_ms": total})
      for timed in (0, 1, 3, 8) for total in TOTALS),
    ("summary", {"record.error_count": 10**30}),
    ("summary", {"record.disabled_at": 0.0}),
    ("is_disabled", {
        "clock.now": 160, "record.disabled_at": 100, "limits.disable_cooldown_s": 60}),
    ("is_disabled", {"record.disabled_at": ABSENT}),
    ("flush", {"counts.total_ms": ABSENT}),
    ("has_unsaved_changes flush", {"tracker._usage_dirty": [], "tracker._dirty": set()}),
    *(("record_error is_disabled", {"world.error": error}) for error in (
        "", None, 0, "x" * 501, "\N{GRINNING FACE}" * 501, "a\0b", ["x"] * 501, ValueError("x"))),
    ("statistics", {"world.timings": Made(lambda world: failing(world.timings[0]))}),
    ("flush", {"tracker._usage": Namespace(items=lambda: failing((KEY, None)))}),
    ("flush", {"tracker._usage": Namespace(items=lambda: [failing(KEY)])}),
    ("_usage_rows", {"tracker._usage": Made(
        lambda counts: Namespace(items=lambda: failing((KEY, counts))))}),
    ("summary", {"tracker._usage": Made(lambda: failing(KEY))}),
    ("flush", {"tracker._usage": Made(lambda counts: {KEY[:3]: counts})}),
    ("summary", {"tracker._usage": Made(lambda counts: {KEY: counts, ("z", ""): counts}),
                 "health.is_slow_call": Made(lambda world: lambda *call: world.log.append(call))}),
    ("flush", {"tracker.__dict__": Made(lambda tracker: dict([*vars(tracker).items()][::-1]))}),
    ("_load_usage", {"health.json": Namespace(loads=lambda text: failing(ENTRY))}),
    *(("_epoch", {"world.text": text}) for text in TEXTS),
    *(("_sqlite_time", {"world.epoch": epoch}) for epoch in (
        None, -0.5, 1.7e9 + 1 - 4e-7, -5e10, 1e300)),
]
# Objects that only the operation holds, and that look at the lock when they die.
DESTRUCTOR_CASES = [
    ("is_off_disabled", {"health.time": Made(
        lambda world: Namespace(time=lambda: looking(world, float)(5)))}),
    ("record_success record_error is_disabled", {"tracker._state": Made(
        lambda world: Namespace(get=lambda name: looking(world, Namespace)(
            **dict.fromkeys(FIELDS, 0))))}),
    ("record_call", {"tracker._usage": Made(
        lambda world: Namespace(get=lambda key: looking(world, Namespace)(calls=0)))}),
]
CASES = FACTS | CALLS | {
    f"{operations} after {changes}": after(changes, operations)
    for operations, changes in REPLACED + UNUSUAL_INPUTS + DESTRUCTOR_CASES}
# What random programs change, and to what.
STEPS = {
    "world.tool": ("a", "b", "c", "zz", "", None),
    "world.error": ("boom", "", None, "x" * 501),
    "clock.now": (1.7e9, 1.7e9 + 0.3, 1.7e9 + 60, 1.7e9 - 5, 5, None, OSError("clock")),
    "limits.disable_after_errors": (1, 2, 3, None),
    "limits.disable_cooldown_s": (0, 60),
    "db.fail_at": (1, 5, 20),
} | dict.fromkeys(
    ("world.duration_ms record.call_count record.error_count record.disabled_at record.updated_at"
     " counts.calls counts.timed_calls counts.total_ms").split(),
    (0, 1, 3, -2, 0.5, 2.675, 0.0625, 1e300, -0.0, True, None, "7", float("nan"), 10**30))
# What may stand in the database, and what it may do.
ROWS = [
    [],
    [("b", 2, 0, None, "garbage", None), ["a", 3.9, " 7 ", "x", TIME, TIME]],
    [("a", 1, 1, None, None, None), ("gone", 1, 1, None, None, None), ("z", *"12345")],
    [("c", True, "", 5, 0, "")],
    [("a", "x", 1, None, None, None)], [("a", 1, 1, None, 5, None)],
    [("a", 1)], [("a", *range(7))], [()],
    None, OSError("broken"), KeyboardInterrupt("stop"),
]
DOCUMENTS = [
    (json.dumps([ENTRY, ENTRY | {"action": None}, ENTRY | {"calls": 9}]),),
    (json.dumps([ENTRY | {"tool": "gone"}, ENTRY, ENTRY | {"action": "no"}]),),
    (json.dumps([ENTRY | {"tool": 5}, ENTRY | {"outcome": 5, "alias_hit": [0], "calls": 2.9,
                                               "timed_calls": " 7 ", "total_ms": "1e3"}]),),
    *((json.dumps([{name: 1 for name in ENTRY if name != lost}]),) for lost in ENTRY),
    *((json.dumps(saved),) for saved in (
        5, None, "abc", {"a": 1}, [[]], [{}], [{"tool": "a", "calls": 1}], [ENTRY | {"action": []}],
        *([ENTRY, ENTRY | {"calls": calls}] for calls in (None, "1.5", float("inf"))))),
    ("[",), (None,), (5,), (b"[",), (), 5, None, OSError("broken"), KeyboardInterrupt("stop"),
]


def functions(world):
    """The operations: functions of the module and of the class, and those behind the properties."""
    members = vars(world.tracker_class)
    return {name: getattr(world.health, name) for name in FUNCTIONS} | {
        name: getattr(members[name], "fget", members[name]) for name in METHODS + PROPERTIES}


class LikePython(TwinCase):
    def test_tables(self):
        for name, run in CASES.items():
            self.assertSame(run, name)

    def test_arguments(self):
        names = FUNCTIONS + METHODS + PROPERTIES
        for name, count, keywords in itertools.product(names, range(8), KEYWORDS):
            def call(world, tracker):
                first = ["a"] if name in FUNCTIONS else [tracker]
                return functions(world)[name](*(first + ["a"] * 6)[:count], **keywords)
            self.assertSame(call, name, f"{count} arguments", keywords)

    def test_late_binding(self):
        """Each name is looked up when it is used, in the module and then in the builtins."""
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
        operations = list(OPERATIONS.values())
        for seed in range(200):
            def program(world):
                world.dice, told = random.Random(seed), []
                for _ in range(30):
                    told.append(hosts.outcome(world.call, world.dice.choice(operations)))
                    path = world.dice.choice(list(STEPS))
                    world.change({path: world.dice.choice(STEPS[path])})
                return told
            self.assertSame(program, "seed", seed)

    def test_history(self):
        rows_and_documents = *itertools.product(ROWS, DOCUMENTS[:2]), *itertools.product(
            ROWS[1:2], DOCUMENTS)
        for rows, document in rows_and_documents:
            def load(world, repository, tracker_class):
                world.db.answers |= {"fetchall": rows, "fetchone": document}
                world.tracker = world.db.tracker = tracker_class.__new__(tracker_class)
                try:
                    world.tracker.__init__(repository)
                finally:
                    world.log.append(vars(world.tracker)["_usage_dirty"])
                return world.tracker.flush()
            self.assertSame(load, rows, document)
