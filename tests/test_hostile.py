"""Foreign code that runs inside an operation and misbehaves there: the module does what plain
Python does.

Every place where an operation runs foreign code is combined with every mischief and every operation
that gets there. For example, a record's call count is an object (the place) that clears the
tracker's state (the mischief) when `record_success` (the operation) adds one to it.
"""

import functools
import itertools
import json
import operator
import threading
import traceback
import types

from bench import hosts

from .worlds import ABSENT, ENTRY, KEY, OPERATIONS, TIME, Made, TwinCase, unwrap, with_attributes

# What is replaced by an object that is up to mischief, which stands for what was there.
NUMBERS = """record.call_count record.error_count record.disabled_at record.updated_at
    record.consecutive_errors counts.calls counts.timed_calls counts.total_ms""".split()
WHOLE_PLACES = [{name: Made(lambda world, evil, name=name: evil(operator.attrgetter(name)(world)))}
                for name in NUMBERS + """
    tracker._repo tracker._limits tracker._lock tracker._state tracker._dirty tracker._usage
    tracker._usage_dirty limits.disable_after_errors limits.disable_cooldown_s repository.db
    health.time health.TOOLS health.ToolsConfig health.is_slow_call health.json health.datetime
    health.timezone health.threading health._known health._epoch health._sqlite_time
    health._ToolState health._Usage world.tool world.error world.duration_ms world.rows world.row
    world.text world.epoch world.budget world.census world.timings census.os_threads
    census.python_total census.python_threads""".split()]
# Where it is part of something else.
INNER_PLACES = [
    {"tracker._state": Made(lambda tracker, evil: {evil("a"): tracker._state["a"], "off": None})},
    {"tracker._dirty": Made(lambda evil: {evil("a"), evil("b")})},
    {"tracker._usage": Made(lambda evil, counts: {
        ("x", "y", "z", 1): counts, (evil("a"), "text", "ok", False): counts})},
    {"tracker._usage": Made(lambda evil, health: {
        ("a", evil("text"), evil("ok"), evil(False)): health._Usage(3, 2, 1.5),
        ("a", "text", "ok", True): health._Usage(3)})},
    {"tracker._usage": Made(lambda evil, counts: {evil(KEY): counts})},
    {"tracker._state": Made(lambda tracker, evil, record: tracker._state | {"a": evil(record)})},
    {"tracker._usage": Made(lambda evil, counts: {KEY: evil(counts)})},
    {"record.last_error": Made(lambda dying: dying(9))},
    {"tracker._state": Made(lambda tracker, dying: tracker._state | {"a": dying(9), "": dying(9)})},
    {"tracker._usage": Made(lambda dying: {KEY: dying(9)})},
    {"tracker._usage_dirty": Made(lambda dying: dying(1))},
    {"world.rows": Made(lambda world, evil: [evil(world.rows[0]), world.rows[1]])},
    {"world.row": Made(lambda world, evil: (evil(world.row[0]),))},
    {"world.timings": Made(lambda world, evil: [evil(world.timings[0]), world.timings[1]])},
    {"world.rows": Made(lambda evil: [("a", evil(1), evil(2), evil("x"), evil(TIME), None)])},
    {"world.row": 5, "health.logger": Made(lambda health, evil: evil(health.logger))},
    {"health.json": Made(lambda evil: types.SimpleNamespace(dumps=json.dumps, loads=lambda text: [
        evil(ENTRY), ENTRY | {"action": evil("text"), "outcome": evil("ok")}]))},
    *({name: Made(lambda dying: dying(5))} for name in NUMBERS),
]
# What the object does, or changes, when it is asked for anything, for the time of that `number`.
# These are not tried in a summary: it describes the instant at which it took the lock.
TO_ENTRIES = {
    "clear the counts": lambda tracker: tracker._usage.clear(),
    "add counts": lambda tracker, health, number: tracker._usage.update({
        ("b", number, "", 0): health._Usage(1)}),
    "replace the counts": lambda tracker, health: tracker._usage.update({
        KEY: health._Usage(70, 70, 70.0)}),
    "spoil entries": lambda tracker: (
        tracker._state.update(a=None), tracker._usage.update({KEY: None})),
}
RAISING = {
    "raise": lambda number: raise_it(ValueError(number)),
    "interrupt": lambda: raise_it(KeyboardInterrupt()),
}
MISCHIEF = {
    "clear the states": lambda tracker: tracker._state.clear(),
    "clear the marks": lambda tracker: tracker._dirty.clear(),
    "add a state": lambda tracker, health, number: tracker._state.update({
        number: health._ToolState(number)}),
    "replace the state": lambda tracker, health: tracker._state.update(
        a=health._ToolState(7, 7, "other", 3.0, 4.0, 7)),
    "clear the fields": lambda tracker: vars(tracker).clear(),
    "release the lock": lambda tracker: tracker._lock.release(),
    **{str(changes): changes for changes in (
        {"tracker.__dict__": Made(lambda tracker: vars(tracker) | {
            "_state": {}, "_dirty": set(), "_usage": {}, "_usage_dirty": 0})},
        {"tracker.__dict__": ABSENT},
        {"tracker._state": {}, "tracker._usage": {}},
        {"tracker._dirty": ABSENT, "tracker._usage": ABSENT, "tracker._usage_dirty": ABSENT},
        {"record.call_count": ABSENT, "counts.calls": ABSENT},
        {"record.disabled_at": None, "record.last_error": None},
        {"tracker_class._dirty": property(lambda _: {5}, lambda *_: None)},
        {"tracker_class._usage": Made(lambda evil: property(lambda _: evil(1) and {}))},
        {"tracker_class.cooldown_s": 0, "tracker_class._usage_rows": lambda self, name: [name]},
        {"health._ToolState.call_count": property(lambda _: 7, lambda *_: None)},
        {"health._ToolState.__setattr__": lambda record, name, value:
            object.__setattr__(record, name, 8)},
        {"tracker.__class__": Made(lambda world: reading(world))},
        {"tracker.__class__": Made(lambda world: writing(world))},
        {"health.time": None, "health.is_slow_call": None, "health.TOOLS": {}},
        {"health._sqlite_time": ABSENT, "health._ToolState": ABSENT, "health._Usage": ABSENT},
        {"health._sqlite_time": Made(lambda number: (str, type)[number % 2])})},
}
# For a lock that its thread may take again: an operation inside an operation.
AGAIN = {name: OPERATIONS[name] for name in (
    "record_new_success", "flush", "summary", "_load", "_load_usage")}


def raise_it(error):
    raise error


def reading(world):
    """A subclass that tells what is read, and reads it once more."""
    def read(tracker, name):
        world.log.append(name)
        return [object.__getattribute__(tracker, name) for _ in range(2)][1]
    return type("Reading", (world.tracker_class,), {"__getattribute__": read})


def writing(world):
    """A subclass that tells what would be written."""
    def write(tracker, name, value):
        world.log.append((name, [*hosts.parts("", value)]))
    return type("Writing", (world.tracker_class,), {"__setattr__": write})


class OddLock:
    """Answers or fails in its own way when it is left, and notes with which error, and whether the
    traceback leads to where that was raised.
    """

    def __init__(self, answer):
        self.answer, self.log = answer, []

    def __enter__(self):
        return self

    def __exit__(self, kind, error, where):
        names = [frame.f_code.co_name for frame, _ in traceback.walk_tb(where)]
        self.log.append(("left", error, "raise_it" in names))
        return self.answer()


LOCKS = [  # and the mischiefs for each kind
    (threading.Lock, TO_ENTRIES | RAISING | MISCHIEF),
    (threading.RLock, AGAIN),
    (lambda: OddLock(lambda: 1), RAISING),
    (lambda: OddLock(lambda: raise_it(OSError("left"))), RAISING),
]


class Evil:
    """Stands for a value; does its mischief before it is asked for anything."""

    def __init__(self, act, value):
        object.__setattr__(self, "act", act)
        object.__setattr__(self, "stands_for", value)

    def __getattribute__(self, name):
        object.__getattribute__(self, "act")(name)
        return getattr(unwrap(self), name)

    def __setattr__(self, name, new):
        object.__getattribute__(self, "act")(name)
        setattr(unwrap(self), name, new)

    def __repr__(self):
        return f"Evil({[*hosts.parts('', unwrap(self))]})"


def evil_method(name, run):
    def method(evil, *others, **named):
        object.__getattribute__(evil, "act")(name)
        return run(unwrap(evil), *map(unwrap, others), **named)
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


@functools.cache
def evil_subclass(kind):
    """A builtin class with methods of its own: each first does its mischief."""
    def overriding(name):
        def method(value, *others, **named):
            value.act(name)
            return getattr(kind, name)(value, *others, **named)
        return method

    own = {name for name, value in vars(kind).items() if callable(value)} - {
        "__new__", "__init__", "__repr__", "__getattribute__", "__setattr__"}
    return type(f"Evil{kind.__name__}", (kind,), {name: overriding(name) for name in own})


def evil_value(act, value):
    if type(value) not in (dict, set, list, tuple, str, int, float):
        raise TypeError("only for values of builtin classes")
    return with_attributes(evil_subclass(type(value))(value), act=act)


def case(place, mischief, operation, kind=Evil, lock=threading.Lock):
    """A place that prepares the world, and then evil objects do mischief in the operation."""
    def run(world, health):
        is_on = False  # of this case: an object that dies later does nothing to the next one

        def act(asked):
            nonlocal is_on
            if not is_on:
                return  # before and after the operation, and inside itself
            lock = unwrap(vars(world.tracker).get("_lock"))
            world.log.append((asked, hosts.is_held(lock)))
            is_on, world.number = False, len(world.log)
            try:
                if world.number < 9:
                    world.change(mischief) if isinstance(mischief, dict) else world.call(mischief)
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
            world.log = getattr(world.tracker._lock, "log", world.log)
        world.evil, world.dying = functools.partial(kind, act), Dying
        prepared = hosts.outcome(world.change, place)
        is_on = True
        try:
            return prepared, world.call(OPERATIONS[operation])
        finally:
            is_on = False
    return run


class Hostile(TwinCase):
    def assertSameIn(self, operations, place, name, mischief, **kind):
        """Returns the operations in which an evil object was asked."""
        reached = []
        for operation in operations:
            if name not in TO_ENTRIES or operation != "summary":
                run = case(place, mischief, operation, **kind)
                self.assertSame(run, operation, "where", place, "will", name, kind)
                if self.module.log:
                    reached.append(operation)
        return reached

    def test_mischief(self):
        for kind, place in itertools.product((Evil, evil_value), WHOLE_PLACES + INNER_PLACES):
            reached = self.assertSameIn(OPERATIONS, place, "do nothing", {}, kind=kind)
            with self.subTest(place):
                self.assertTrue(reached or kind is evil_value, "nothing reaches it")
            for lock, mischiefs in LOCKS:
                for name, mischief in mischiefs.items():
                    self.assertSameIn(reached, place, name, mischief, kind=kind, lock=lock)

    def test_everything_at_once(self):
        """What is asked in which order, where everything is an evil object."""
        everywhere = functools.reduce(operator.or_, WHOLE_PLACES)
        reached = self.assertSameIn(OPERATIONS, everywhere, "do nothing", {})
        self.assertEqual(reached, [*OPERATIONS])
