# The module can not be told from plain Python: its functions, classes and records, the objects that
# it meets, the names that it looks up, and the stored forms.
#
# Each entry of a table is a case for both, see worlds.py. For example, where `_epoch` is replaced
# in the module, `_load` has to call what stands there now:
#
#     lambda health, tracker: (put(health, _epoch=lambda text: 7.0), tracker._load()),

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

from .worlds import ENTRY, KEY, NEW, OPERATIONS, TIME, TwinCase, put, source

METHODS = ("__init__ _load _load_usage record_call record_success record_error is_disabled flush"
           " get_health_summary _usage_rows _flush_usage _flush_health").split()
PROPERTIES = ["limits", "cooldown_s", "has_unsaved_changes"]
FUNCTIONS = ("_sqlite_time _epoch _known handle_get_tool_performance_stats"
             " thread_census_report").split()
# What Python knows of the functions, of the classes, of a record and of a tracker.
FACTS = [
    lambda health: (health._SQLITE_TIMESTAMP, health._TOOL_HEALTH_COLUMNS, health.TOOL_USAGE_KEY,
                    health._UsageKey),
    lambda world: [(it.__qualname__, it.__module__, it.__defaults__, it.__kwdefaults__, type(it),
                    it.__globals__ is vars(world.health)) for it in functions(world).values()],
    lambda world: [typing.get_type_hints(it) for it in functions(world).values()],
    lambda health, record, tracker_class: pickle.loads(pickle.dumps(
        [health._known, tracker_class, tracker_class.flush, record])),
    lambda health: [[(it.name, it.type, it.default, it.kw_only) for it in dataclasses.fields(kind)]
                    for kind in (health._ToolState, health._Usage)],
    lambda record: (dataclasses.replace(record), dataclasses.replace(record) == record),
    lambda tracker_class: (tracker_class.mro(), str(inspect.signature(tracker_class))),
    lambda tracker: (put(tracker, note=5), list(vars(tracker)), delattr(tracker, "note")),
]
# What is given by name, to each operation and with each number of arguments by position.
KEYWORDS = [
    {},
    {"tool_name": "a"},
    {"\N{LATIN SMALL LETTER E WITH ACUTE}": 1},
    {"alias_hit": True},
    {"alias_hit": True, "duration_ms": 2},
    {"outcome": "ok", "duration_ms": 2, "alias_hit": True},
    {"alias_hit": True, "duration_ms": 2, "more": 3},
    {"budget": 1, "census": None},
]
# Changed defaults, defaults that are false, and keywords that are not interned.
DEFAULTS = [
    lambda tracker: tracker.record_success(**{"".join(("tool", "_name")): "a"}),
    lambda tracker: tracker.record_success(**{Text("tool_name"): "a"}),
    lambda tracker_class, repository: tracker_class(repository, type("Falsy", (), {
        "__len__": int, "__repr__": lambda _: "Falsy"})()).limits,
    lambda health: (put(health._known, __defaults__=(None,)), health._known("a"), health._known()),
    lambda tracker, tracker_class: (put(tracker_class.record_call, __kwdefaults__={
        "duration_ms": 5}), tracker.record_call("a", None, "ok", alias_hit=True)),
]
# What is looked up when it is used: replaced, by whatever kind of object.
REPLACED = [
    lambda health, tracker: (put(health, _sqlite_time=lambda epoch: "late"),
                             tracker.get_health_summary(), tracker.flush()),
    lambda health, tracker: (put(health, _epoch=lambda text: 7.0), tracker._load()),
    lambda health, tracker: (put(health, _known=health._epoch), tracker._load_usage()),
    lambda health, tracker, copy: (put(copy, _SQLITE_TIMESTAMP="%Y"), put(
        health, _sqlite_time=copy._sqlite_time), tracker.get_health_summary()),
    lambda health, tracker, copy: (put(copy, TOOLS={}), put(
        health, _known=copy._known), tracker._load_usage()),
    lambda health, tracker: (put(health, timezone=Namespace(utc=FAR_EAST)), health._epoch(TIME),
                             health._sqlite_time(5.0), tracker.get_health_summary()),
    lambda health: (put(health, datetime=Namespace(strptime=time.strptime)), health._epoch(TIME)),
    lambda health: (put(health, _SQLITE_TIMESTAMP="%Y"), health._epoch("1999"),
                    health._sqlite_time(5)),
    lambda health, tracker, tracker_class: (put(tracker, _usage_rows=tracker_class(
        tracker._repo)._usage_rows), tracker._usage.clear(), tracker.get_health_summary()),
    lambda health, tracker: (put(health, time=Module("time")), put(
        health.time, time=lambda: 5.0), tracker.record_success("a")),
    lambda health, tracker: (put(health, time=put(OwnModule("time"), time=time.time)),
                             tracker.record_success("a")),
    lambda health, tracker: (put(health, time=Module("time")), tracker.record_success("a")),
    lambda health, tracker: (put(health, time=put(Module("time"), time=abs)),
                             tracker.record_success("a")),
    lambda health, db, tracker: (delattr(health, "_TOOL_HEALTH_COLUMNS"), db.answers.clear(),
                                 tracker.flush()),
    lambda health, tracker: (put(health, _TOOL_HEALTH_COLUMNS=5), tracker.flush(), tracker._load()),
    lambda health: (put(health, datetime=Namespace(fromtimestamp=lambda *_: 5)),
                    delattr(health, "_SQLITE_TIMESTAMP"), health._sqlite_time(5)),
    lambda world, health, tracker: (tracker._state.clear(), put(
        health, _ToolState=lambda: world.log.append("made")), tracker.get_health_summary()),
    lambda health, tracker: (put(health, _Usage=type("Own", (health._Usage,), {
        "__init__": lambda *_: None})), tracker._load_usage()),
    lambda health, tracker: (put(health, is_slow_call=lambda tool, action: type(tool)),
                             tracker._usage_rows(Text("a"))),
]
# What it meets: maps, numbers and texts that are not what the tracker puts there.
MET = [
    lambda health, census: [health.thread_census_report(budget, census) for budget in (11, 12)],
    lambda health, census: health.thread_census_report(type("Own", (int,), {
        "__format__": lambda *_: "\N{GREEK SMALL LETTER BETA}"})(1), census),
    lambda health, census: (put(census, python_threads=collections.OrderedDict(a=1, b=2)),
                            census.python_threads.move_to_end("a"),
                            health.thread_census_report(9, census)),
    lambda tracker: (put(tracker, _state=collections.OrderedDict(tracker._state)),
                     tracker._state.move_to_end("a", last=False), tracker.get_health_summary()),
    lambda tracker, counts: (put(tracker, _usage=collections.OrderedDict(tracker._usage)),
                             tracker._usage.update({("b", "", "", 0): counts}),
                             tracker._usage.move_to_end(KEY), tracker.get_health_summary(),
                             tracker._flush_usage()),
    lambda health, tracker: (put(health, _ToolState=mock.Mock(return_value=tracker._state["a"])),
                             tracker.record_error("x", "1"), tracker.record_error("y", "2")),
    lambda health, tracker: (put(
        tracker, _usage={("a", str(it % 7), "", it): health._Usage(it % 3) for it in range(40)},
        _state={f"tool {it}": health._ToolState(it % 2) for it in range(40)}),
        tracker.get_health_summary()),
    lambda health, counts, tracker: [(put(counts, timed_calls=timed, total_ms=total),
                                      tracker._usage_rows("a"), tracker._flush_usage())
                                     for timed in (0, 1, 3, 8) for total in TOTALS],
    lambda record, tracker: (put(record, error_count=10**30), tracker.get_health_summary()),
    lambda record, tracker: (put(record, disabled_at=0.0), tracker.get_health_summary()),
    lambda record, tracker, clock: (put(clock, now=160), put(record, disabled_at=100), put(
        tracker._limits, disable_cooldown_s=60), tracker.is_disabled("a")),
    lambda record, tracker: (delattr(record, "disabled_at"), tracker.is_disabled("a")),
    lambda counts, tracker: (delattr(counts, "total_ms"), tracker._flush_usage()),
    lambda tracker: tracker.record_call("a", 0, "ok", alias_hit=0, duration_ms=0),
    lambda health: (health._known("a", ""), health._known("c", "")),
    lambda tracker: (put(tracker, _usage_dirty=[], _dirty=set()), tracker.has_unsaved_changes,
                     tracker.flush()),
    lambda tracker: [(tracker.record_error("a", text), tracker.is_disabled("a")) for text in (
        "", None, 0, "x" * 501, "\N{GRINNING FACE}" * 501, "a\0b", ["x"] * 501, b"y" * 501)],
    lambda tracker: tracker.record_error("a", ValueError("boom")),
    lambda health: (health.thread_census_report(5, hosts.ThreadCensus(True, 5, [("pool", 1)])),
                    health.thread_census_report(5, hosts.ThreadCensus(6, 6, {})),
                    health.thread_census_report(True, hosts.ThreadCensus(0, 2, ()))),
    lambda health, world: (put(world, timings=failing(world.timings[0])),
                           health.handle_get_tool_performance_stats()),
    lambda tracker: (put(tracker, _usage=Namespace(items=lambda: failing((KEY, None)))),
                     tracker._flush_usage()),
    lambda tracker: (put(tracker, _usage=Namespace(items=lambda: [failing(KEY)])),
                     tracker._flush_usage()),
    lambda tracker, counts: (put(tracker, _usage=Namespace(items=lambda: failing((KEY, counts)))),
                             tracker._usage_rows("a")),
    lambda tracker: (put(tracker, _usage=failing(KEY)), tracker.get_health_summary()),
    lambda tracker, counts: (put(tracker, _usage={KEY[:3]: counts}), tracker._flush_usage()),
    lambda tracker: (put(tracker, __dict__=dict([*vars(tracker).items()][::-1])), tracker.flush()),
    lambda world, health, tracker, counts: (
        put(health, is_slow_call=lambda *call: world.log.append(call)),
        put(tracker, _usage={KEY: counts, ("z", ""): counts}), tracker.get_health_summary()),
    lambda health, tracker: (put(health, json=Namespace(loads=lambda text: failing(ENTRY))),
                             tracker._load_usage()),
]
# Objects that only the operation holds, and that look at the lock when they die.
LOOKING = [
    lambda world, health, tracker: (put(health, time=Namespace(
        time=lambda: looking(world, float)(5))), tracker.is_disabled("off")),
    lambda world, tracker: (put(tracker, _state=Namespace(get=lambda name: looking(
        world, Namespace)(**dict.fromkeys(FIELDS, 0)))),
        tracker.record_success("a"), tracker.record_error("a", ""), tracker.is_disabled("a")),
    lambda world, tracker: (put(tracker, _usage=Namespace(get=lambda key: looking(
        world, Namespace)(calls=0))), tracker.record_call("a", **NEW)),
]
# Steps of random programs, beside the operations.
STEPS = [
    lambda world, dice: put(world, tool=dice.choice(("a", "b", "c", "zz", "", None))),
    lambda world, dice: put(world, error=dice.choice(("boom", "", None, 5, "x" * 501))),
    lambda world, dice: put(world, duration_ms=dice.choice(NUMBERS)),
    lambda clock, dice: put(clock, now=clock.now + dice.choice((0.3, 1, 60, -5, 1e6))),
    lambda clock, dice: put(clock, now=dice.choice((5, float("nan"), None, OSError("clock")))),
    lambda limits, dice: put(limits, disable_after_errors=dice.choice((1, 2, 3, None))),
    lambda tracker, dice: put(dice.choice([*tracker._state.values()]), **{dice.choice((
        "call_count", "error_count", "disabled_at", "updated_at")): dice.choice(NUMBERS)}),
    lambda tracker, dice: put(dice.choice([*tracker._usage.values()]), **{dice.choice((
        "calls", "timed_calls", "total_ms")): dice.choice(NUMBERS)}),
    lambda db, dice: db.answers.update({dice.choice(("execute", "executemany")): dice.choice((
        None, OSError("broken"), KeyboardInterrupt("stop")))}),
]
NUMBERS = (0, 1, 3, -2, 0.5, 2.675, 0.0625, 1e300, -0.0, True, None, "7", float("nan"), 10**30)
# What may stand in the database, and what it may do.
STORED = [
    lambda health: [health._epoch(text) for text in TEXTS],
    lambda health: [health._sqlite_time(epoch) for epoch in (None, -0.5, 1.7e9 + 1 - 4e-7, -5e10)],
    lambda health: health._epoch(5),
    lambda health: health._sqlite_time(1e300),
]
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
    *((json.dumps(saved),) for saved in (5, None, "abc", {"a": 1}, [[]], [ENTRY | {"action": []}])),
    *((json.dumps([ENTRY, ENTRY | {"calls": calls}]),) for calls in (None, "1.5", float("inf"))),
    ("[",), (None,), (5,), (b"[",), (), 5, None, OSError("broken"), KeyboardInterrupt("stop"),
]
TOTALS = (0.0, 1, 2.675, 0.375, 0.1875, 12.3456, 1e16, 1.9560342718892493e17, 1e307, float("inf"),
          float("nan"), -0.0005, 0.0625, 2**40 / 100)
TEXTS = (None, "", 0, b"", TIME, "2023-1-5 3:4:5", "2023-11-14 \t\n22:13:20", "0001-01-01 00:00:00",
         "385-01-01 00:00:00", "0385-01-01 00:00:00", "2024-02-29 00:00:00", "2023-02-29 00:00:00",
         "\N{FULLWIDTH DIGIT TWO}023-11-14 22:13:20", "2023-11-14\N{NO-BREAK SPACE}22:13:20",
         "2023-11-14 24:00:00", "2023-11-14 22:13:60", "0000-01-01 00:00:00", TIME + " ", TIME[2:],
         "2023-11-14T22:13:20", "2023-11-14 22:13:2x", "2023-11-14 22:13:2;",
         (TIME * 2).encode().decode("utf-16-le"))  # so long as a time, and with the bytes of one
FIELDS = "call_count", "error_count", "consecutive_errors", "disabled_at", "last_error"
FAR_EAST = datetime.timezone(datetime.timedelta(hours=9))
Module, Namespace, Text = types.ModuleType, types.SimpleNamespace, type("Text", (str,), {})


# A module that finds its attributes in its own way.
class OwnModule(Module):
    def __getattribute__(self, name):
        return lambda: 7.0


# Gives these items, and then fails.
def failing(*items):
    yield from items
    raise OSError("broken half-way")


def looking(world, kind):
    return type("Looking", (kind,), {
        "__del__": lambda _: world.log.append(hosts.is_held(world.tracker._lock))})


# The operations: functions of the module and of the class, and those behind the properties.
def functions(world):
    members = vars(world.tracker_class)
    return {name: getattr(world.health, name) for name in FUNCTIONS} | {
        name: getattr(members[name], "fget", members[name]) for name in METHODS + PROPERTIES}


class LikePython(TwinCase):
    def test_arguments(self):
        names = FUNCTIONS + METHODS + PROPERTIES
        for name, count, keywords in itertools.product(names, range(8), KEYWORDS):
            def call(world, tracker):
                first = ["a"] if name in FUNCTIONS else [tracker]
                return functions(world)[name](*(first + ["a"] * 6)[:count], **keywords)
            self.assertSame(call, name=name, count=count, keywords=keywords)

    # Each name is looked up when it is used, in the module and then in the builtins.
    def test_late_binding(self):
        names = [name for name in vars(self.module.health) if not name.startswith("__")]
        for name, run in itertools.product(names, OPERATIONS):
            def without(world, health):
                vars(health).pop(name)
                return world.call(run)

            def in_builtins(world, health):
                with mock.patch.object(builtins, name, vars(health).pop(name), create=True):
                    return world.call(run)

            self.assertSame(without, in_builtins, name=name, operation=source(run))

    def test_tables(self):
        self.assertSame(*FACTS, *DEFAULTS, *REPLACED, *MET, *LOOKING, *STORED)

    def test_random_programs(self):
        for seed in range(200):
            def program(world):
                world.dice, told = random.Random(seed), []
                for _ in range(30):
                    step = world.dice.choice(world.dice.choice((OPERATIONS, STEPS)))
                    told.append((source(step), hosts.outcome(world.call, step)))
                return told
            self.assertSame(program, seed=seed)

    def test_history(self):
        for rows, document in itertools.product(ROWS, DOCUMENTS[:2]):
            self.assert_same_history(rows, document)
        for document in DOCUMENTS:
            self.assert_same_history(ROWS[1], document)

    def assert_same_history(self, rows, document):
        def load(world, repository, tracker_class):
            world.db.answers |= {"fetchall": rows, "fetchone": document}
            world.tracker = world.db.tracker = tracker_class.__new__(tracker_class)
            try:
                world.tracker.__init__(repository)
            finally:
                world.left = vars(world.tracker)["_usage_dirty"]
            return world.tracker.flush()
        self.assertSame(load, rows=rows, document=document)
