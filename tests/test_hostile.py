# Foreign code that runs inside an operation and misbehaves there: the module does what plain Python
# does.
#
# Every place where an operation runs foreign code is combined with every mischief and every
# operation that gets there. For example, the call count of a record is a number of somebody's own
# (the place), which clears the tracker's state when one is added to it (the mischief) in
# `record_success` (the operation): what comes out, what is left in the tracker, what was asked for
# in which order, with the lock held or not, must be the same as with plain Python.

import functools
import itertools
import json
import operator
import threading
import types
from unittest import mock

from bench import hosts

from .worlds import ENTRY, KEY, OPERATIONS, TIME, TwinCase, bare, put, source

FIELDS = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
# What is replaced by an object that is up to mischief, by what holds it.
PLACES = {
    "tracker": FIELDS,
    "record": "call_count error_count disabled_at updated_at consecutive_errors".split(),
    "counts": "calls timed_calls total_ms".split(),
    "limits": ("disable_after_errors", "disable_cooldown_s"),
    "health": "time TOOLS ToolsConfig is_slow_call json datetime timezone threading _known"
              " _epoch _sqlite_time _ToolState _Usage".split(),
    "world": "tool error duration_ms rows row text epoch budget census timings".split(),
    "census": ("os_threads", "python_total", "python_threads"),
    "repository": ("db",),
}
# Where the object is part of something else. `evil(value)` stands for the value.
INNER_PLACES = [
    lambda tracker, evil: put(tracker, _state={evil("a"): tracker._state["a"], "off": None}),
    lambda tracker, evil: put(tracker, _dirty={evil("a"), evil("b")}),
    lambda tracker, evil, counts: put(tracker, _usage={
        ("x", "y", "z", 1): counts, (evil("a"), "text", "ok", False): counts}),
    lambda tracker, evil, health: put(tracker, _usage={
        ("a", evil("text"), evil("ok"), evil(False)): health._Usage(3, 2, 1.5),
        ("a", "text", "ok", True): health._Usage(3)}),
    lambda tracker, evil, counts: put(tracker, _usage={evil(KEY): counts}),
    lambda tracker, evil, record: tracker._state.update(a=evil(record)),
    lambda tracker, evil, counts: tracker._usage.update({KEY: evil(counts)}),
    lambda record, dying: put(record, last_error=dying(9)),
    lambda tracker, dying: tracker._state.update(a=dying(9), new=dying(9)),
    lambda tracker, dying: tracker._usage.update({KEY: dying(9)}),
    lambda tracker, dying: put(tracker, _usage_dirty=dying(1)),
    lambda world, evil: put(world, rows=[evil(world.rows[0]), world.rows[1]]),
    lambda world, evil: put(world, row=(evil(world.row[0]),)),
    lambda world, evil: put(world, timings=[evil(world.timings[0]), world.timings[1]]),
    lambda world, evil: put(world, rows=[("a", evil(1), evil(2), evil("x"), evil(TIME), None)]),
    lambda world, health, evil: (put(world, row=5), put(health, logger=evil(health.logger))),
    lambda health, evil: put(health, json=types.SimpleNamespace(
        dumps=json.dumps, loads=lambda text: [
            evil(ENTRY), ENTRY | {"action": evil("text"), "outcome": evil("ok")}])),
]
# What the object does when it is asked for anything; `number` tells how often that was. The first
# are not tried in a summary: that describes the instant at which it took the lock.
TO_ENTRIES = [
    lambda tracker: tracker._usage.clear(),
    lambda tracker, health, number: tracker._usage.update({("b", number, "", 0): health._Usage(1)}),
    lambda tracker, health: tracker._usage.update({KEY: health._Usage(70, 70, 70.0)}),
    lambda tracker: (tracker._state.update(a=None), tracker._usage.update({KEY: None})),
]
MISCHIEF = [
    lambda number: raise_it(ValueError(number)),
    lambda: raise_it(KeyboardInterrupt()),
    lambda tracker: tracker._state.clear(),
    lambda tracker: tracker._dirty.clear(),
    lambda tracker, health, number: tracker._state.update({number: health._ToolState(number)}),
    lambda tracker: vars(tracker).clear(),
    lambda tracker: put(tracker, __dict__=vars(tracker) | {
        "_state": {}, "_dirty": set(), "_usage": {}, "_usage_dirty": 0}),
    lambda tracker: put(tracker, _state={}, _usage={}),
    lambda tracker, health: tracker._state.update(a=health._ToolState(7, 7, "other", 3.0, 4.0, 7)),
    lambda record, counts: (delattr(record, "call_count"), delattr(counts, "calls")),
    lambda tracker: [delattr(tracker, field) for field in ("_dirty", "_usage", "_usage_dirty")],
    lambda record: put(record, disabled_at=None, last_error=None),
    lambda tracker_class: put(tracker_class, _dirty=property(lambda _: {5}, lambda *_: None)),
    lambda tracker_class, evil: put(tracker_class, _usage=property(lambda _: evil(1) and {})),
    lambda tracker_class: put(tracker_class, cooldown_s=0, _usage_rows=lambda self, name: [name]),
    lambda health: put(health._ToolState, call_count=property(lambda _: 7, lambda *_: None)),
    lambda health: put(health._ToolState, __setattr__=lambda record, name, value:
                       object.__setattr__(record, name, 8)),
    lambda world, tracker: put(tracker, __class__=reading(world)),
    lambda world, tracker: put(tracker, __class__=writing(world)),
    lambda tracker: delattr(tracker, "__dict__"),
    lambda tracker: tracker._lock.release(),
    lambda health: put(health, time=None, is_slow_call=None, TOOLS={}),
    lambda health: [vars(health).pop(name) for name in ("_sqlite_time", "_ToolState", "_Usage")],
    lambda health, number: put(health, _sqlite_time=(str, type)[number % 2]),
]
# For a lock that its thread may take again: an operation inside an operation.
AGAIN = [
    lambda tracker: tracker.record_success("z"),
    lambda tracker: tracker.flush(),
    lambda tracker: tracker.get_health_summary(),
    lambda tracker: (tracker._load(), tracker._load_usage()),
]
# What stands in one of the tracker's fields.
WRONG = [
    lambda: None,
    lambda: {"a": 5, "off": None, KEY: 5, KEY[:3]: 5},
    lambda health: types.MappingProxyType({"a": health._ToolState(3)}),
    lambda: type("OnlyEnters", (), {"__enter__": 5, "__repr__": lambda _: "OnlyEnters"})(),
]


def raise_it(error):
    raise error


# Subclasses that tell what is read, and read it twice; and that tell what is written.
def reading(world):
    def read(tracker, name):
        world.log.append(name)
        return [object.__getattribute__(tracker, name) for _ in range(2)][1]
    return type("Reading", (world.tracker_class,), {"__getattribute__": read})


def writing(world):
    def write(tracker, name, value):
        world.log.append((name, hosts.typed(value)))
    return type("Writing", (world.tracker_class,), {"__setattr__": write})


# A lock that fails, or swallows what is raised while it is held.
def make_lock(**will):
    return mock.MagicMock(**will, __repr__=lambda _: "lock")


LOCKS = [  # and the mischiefs that are tried with a lock of that kind
    (threading.Lock, TO_ENTRIES + MISCHIEF),
    (threading.RLock, AGAIN),
    (lambda: make_lock(**{"__exit__.return_value": True}), MISCHIEF[:2]),
    (lambda: make_lock(**{"__exit__.side_effect": OSError("exit")}), MISCHIEF[:2]),
]


# Stands for a value; asked for anything, it first does its mischief.
class Evil:
    def __init__(self, act, value):
        object.__setattr__(self, "act", act)
        object.__setattr__(self, "stands_for", value)

    def __getattribute__(self, name):
        object.__getattribute__(self, "act")(name)
        return getattr(bare(self), name)

    def __setattr__(self, name, new):
        object.__getattribute__(self, "act")(name)
        setattr(bare(self), name, new)

    def __repr__(self):
        return f"Evil({hosts.typed(bare(self))})"


def evil_method(name, run):
    def method(evil, *others, **named):
        object.__getattribute__(evil, "act")(name)
        return run(bare(evil), *map(bare, others), **named)
    return method


RUN = {run.__name__: run for run in (int, float, bool, str, iter, len, hash, round, format)}
RUN |= {name: getattr(operator, name) for name in (
    "index neg add sub truediv iadd eq lt gt ge le getitem contains setitem call".split())}
RUN |= {"radd": lambda right, left: left + right, "rsub": lambda right, left: left - right,
        "rtruediv": lambda right, left: left / right,
        "enter": lambda lock: type(lock).__enter__(lock),
        "exit": lambda lock, *error: type(lock).__exit__(lock, *error)}
for name, run in RUN.items():
    setattr(Evil, f"__{name}__", evil_method(name, run))


# A subclass of a builtin class with methods of its own: each first does its mischief.
@functools.cache
def evil_subclass(kind):
    def overriding(name):
        def method(value, *others, **named):
            value.act(name)
            return getattr(kind, name)(value, *others, **named)
        return method

    own = {name for name, value in vars(kind).items() if callable(value)}
    own -= {"__new__", "__init__", "__repr__", "__getattribute__", "__setattr__"}
    return type(f"Evil{kind.__name__}", (kind,), {name: overriding(name) for name in own})


# The value as an instance of such a subclass.
def evil_value(act, value):
    if type(value) not in (dict, set, list, tuple, str, int, float):
        raise TypeError("only for values of builtin classes")
    return put(evil_subclass(type(value))(value), act=act)


class Hostile(TwinCase):
    # A case in which `place` prepares the world, and then evil objects do mischief in the
    # operation.
    def case(self, place, mischief, operation, kind, lock):
        def run(world, health):
            is_on = False  # of this case: an object that dies later does nothing to the next one

            def act(asked):
                nonlocal is_on
                if not is_on:
                    return  # before and after the operation, and inside itself
                lock = bare(vars(world.tracker).get("_lock"))
                world.log.append((asked, hosts.is_held(lock)))
                is_on, world.number = False, len(world.log)
                try:
                    if world.number < 9:
                        world.call(mischief)
                finally:
                    is_on = True

            class Dying(float):
                def __del__(self):
                    try:
                        act("del")
                    except BaseException:
                        pass

            if lock is not threading.Lock:
                world.tracker._lock = lock()
                health.threading = types.SimpleNamespace(Lock=lock)
            world.evil, world.dying = functools.partial(kind, act), Dying
            prepared = hosts.outcome(lambda: world.call(place) and None)
            is_on = True
            try:
                return prepared, world.call(operation)
            finally:
                is_on = False
        return run

    # The same in these operations; returns those in which an evil object was asked.
    def assertSameIn(self, operations, place, mischief, kind=Evil, lock=threading.Lock, **about):
        reached = []
        for operation in operations:
            if mischief in TO_ENTRIES and "get_health_summary" in source(operation):
                continue
            about |= {"mischief": source(mischief), "operation": source(operation)}
            self.assertSame(self.case(place, mischief, operation, kind, lock), **about)
            if self.module.log:
                reached.append(operation)
        return reached

    # Every place by a name: a function that puts an evil object there.
    def places(self):
        for holder, names in PLACES.items():
            for name in names:
                def place(world, evil, holder=holder, name=name):
                    thing = getattr(world, holder)
                    put(thing, **{name: evil(getattr(thing, name))})

                def dying_place(world, dying, holder=holder, name=name):
                    put(getattr(world, holder), **{name: dying(5)})

                yield f"{holder}.{name}", place
                if holder in ("record", "counts"):
                    yield f"dying {name}", dying_place
        for place in INNER_PLACES:
            yield source(place), place

    def test_mischief(self):
        for kind, (name, place) in itertools.product((Evil, evil_value), self.places()):
            about = {"kind": kind, "at": name}
            reached = self.assertSameIn(OPERATIONS, place, lambda: None, **about)
            with self.subTest(name):
                self.assertTrue(reached or kind is evil_value)
            for lock, mischiefs in LOCKS:
                for mischief in mischiefs:
                    self.assertSameIn(reached, place, mischief, lock=lock, **about)

    # What is asked in which order, where everything is somebody's own.
    def test_everything_at_once(self):
        def everything(world):
            for name, place in self.places():
                if "." in name:
                    world.call(place)

        reached = self.assertSameIn(OPERATIONS, everything, lambda: None)
        self.assertEqual(reached, OPERATIONS)

    def test_wrong_fields(self):
        for field, value in itertools.product(FIELDS, WRONG):
            self.assertSameIn(OPERATIONS, lambda world: put(world.tracker, **{
                field: world.call(value)}), lambda: None, field=field, value=source(value))
