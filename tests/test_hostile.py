"""Foreign code that runs inside an operation and misbehaves there: the module does what plain
Python does.

Every place where an operation runs foreign code is combined with every mischief and every
operation, on the module and on its twin: what comes out, what is left in the tracker and whether
its lock is free must be the same.
"""

import functools
import itertools
import operator
import os
import re
import threading
import types
import unittest
from unittest import mock

from . import hosts

OPERATIONS = """t.record_call(NAME, 'text', 'ok', alias_hit=False, duration_ms=MS)
    t.record_call('a', 'text', 'new', alias_hit=True, duration_ms=None) | t.record_success(NAME)
    t.record_success('new') | t.record_error(NAME, TEXT) | t.is_disabled(NAME) | t.is_disabled('off')
    t.get_health_summary() | t._usage_rows(NAME) | t.has_unsaved_changes | t.cooldown_s | t.flush()
    t._flush_usage() | t._load() | t._load_usage() | t.__init__(t._repo)"""
# Where foreign code gets in. E(value) stands for the value, and is up to mischief whenever it is
# asked for anything.
PLACES = """t._state = {E('a'): t._state['a'], 'off': t._state['off']} | t._dirty = {E('a'), E('b')}
    t._usage = {('x', 'y', 'z', 1): U(1), (E('a'), 'text', 'ok', False): U(3, 2, 1.5), ('a', '', '', True): U(9)}
    t._usage = {('a', E('text'), E('ok'), E(False)): U(3, 2, 1.5), ('a', 'text', 'ok', True): U(3)}
    t._usage = {E(('a', 'text', 'ok', False)): U(3, 2, 1.5), ('a', 'text', '', False): U(4)}
    A.call_count = E(2) | A.error_count = E(2) | A.disabled_at = E(5.0)
    A.updated_at = E(7.0) | A.consecutive_errors = E(2) | t._state['a'] = E(A) | t._usage[KEY] = E(t._usage[KEY])
    t._usage[KEY].calls = E(4) | t._usage[KEY].timed_calls = E(2) | t._usage[KEY].total_ms = E(4.5)
    NAME = E('a') | MS = E(2.5) | TEXT = E('boom') | t._limits = E(t._limits) | h.time = E(clock)
    t._limits.disable_after_errors = E(1) | t._limits.disable_cooldown_s = E(1e12) | h.is_slow_call = E(h.is_slow_call)
    h.TOOLS = E(h.TOOLS) | h._known = E(h._known) | h._epoch = E(h._epoch) | h._sqlite_time = E(h._sqlite_time)
    h.json = E(h.json) | h.ToolsConfig = E(h.ToolsConfig) | h._ToolState = E(S) | h._Usage = E(U) | h.datetime = E(h.datetime)
    t._repo = E(t._repo) | db.rows = [E(db.rows[0]), db.rows[1]] | db.rows = E(db.rows)
    db.rows = [('a', E(1), E(2), E('x'), E('2023-11-14 22:13:20'), None), db.rows[1]]
    h.json = types.SimpleNamespace(loads=lambda text: [E(entry) for entry in json.loads(text)], dumps=json.dumps)
    h.json = types.SimpleNamespace(loads=lambda text: [dict(entry, action=E('text')) for entry in json.loads(text)], dumps=json.dumps)
    t._state = E(t._state) | t._usage = E(t._usage) | t._dirty = E(t._dirty) | t._usage_dirty = E(True) | t._lock = E(t._lock)
    A.last_error = Dying() | A.updated_at = Dying() | A.disabled_at = Dying(5.0) | t._usage_dirty = Dying(1)
    t._usage[KEY].total_ms = Dying(1.5) | A.call_count = Dying(1) | t._state['new'] = t._state['a'] = Dying(9)"""
# What it does there; after "again" the tracker's lock is one that its own thread may take twice.
MISCHIEF = """raise ValueError(NUMBER) | raise KeyboardInterrupt | t._state.clear() | t._usage.clear() | t._dirty.clear()
    t._state[NUMBER] = S(NUMBER) | t._usage['b', NUMBER, 'ok', False] = U(NUMBER) | vars(t).clear() | t.__dict__ = {}
    t.__dict__ = {**vars(t), '_state': {}, '_dirty': set(), '_usage': {}, '_usage_dirty': 0} | t._state = {}; t._usage = {}
    t._dirty = set() | t._state['a'] = S(70, 70, 'other', 3.0, 4.0, 70); t._usage[KEY] = U(70, 70, 70.0)
    t._state['a'] = t._usage[KEY] = None | del A.call_count, A.last_error, t._usage[KEY].calls | del t._dirty, t._usage
    del t._usage_dirty | A.disabled_at = None | C._dirty = property(lambda self: {5}, lambda *_: None)
    C._usage = property(lambda self: {} if E(1) else {}) | C.cooldown_s = 0 | C._usage_rows = lambda self, name: [name]
    S.call_count = property(lambda self: 7, lambda *_: None) | S.disabled_at = property(lambda self: 7.0) | U.calls = 3
    S.__setattr__ = lambda self, name, value: object.__setattr__(self, name, 8) | t.__class__ = Watched
    again t.record_error('a', 'again') | again t.record_success('z') | again t.flush() | again t.get_health_summary()
    again t._load(), t._load_usage() | t._lock.release() | h.time = h.is_slow_call = None
    del h._sqlite_time, h._ToolState, h._Usage | h._sqlite_time = [str, type][NUMBER % 2] | h.TOOLS = {} | gc.collect()"""
# A summary describes the instant at which it took the lock: what is done to the entries of the maps
# later is not in it.
NOT_IN_A_SUMMARY = {"t._usage.clear()", "t._usage['b', NUMBER, 'ok', False] = U(NUMBER)", "t._state['a'] = t._usage[KEY] = None",
                    "t._state['a'] = S(70, 70, 'other', 3.0, 4.0, 70); t._usage[KEY] = U(70, 70, 70.0)"}
# What a tracker's field is set to, or found to be.
WRONG = """del t.FIELD | t.FIELD = None | t.FIELD = 5 | t.FIELD = 'ab' | t.FIELD = [] | t.FIELD = ['ab', ('a', 'b', 'c', 'd')]
    t.FIELD = {} | t.FIELD = {'a': 5, 'off': None} | t.FIELD = {None: U(), 5: S()} | t.FIELD = {('a', 'text', 'ok', False): 5}
    t.FIELD = {('a', 'text', 'ok'): U()} | t.FIELD = {'abcd': U(1, 1)} | t.FIELD = {5} | t.FIELD = {'a', 5} | t.FIELD = frozenset('a')
    t.FIELD = Half() | t.FIELD = collections.defaultdict(S, a=S(5)) | t.FIELD = collections.OrderedDict(vars(t)['FIELD'])
    t.FIELD = types.MappingProxyType({'a': S(3)}) | t.FIELD = mock.MagicMock(**{'get.return_value': S(1)}, __repr__=lambda _: '')
    t.FIELD = threading.RLock() | t.FIELD = Lock(enter=OSError('enter')) | t.FIELD = Lock(exit=OSError('exit')) | t.FIELD = Lock(1)
    t.FIELD = Lock(0, __exit__=None) | t.FIELD = threading.Condition(t._lock) | t.FIELD = threading.Semaphore()
    C.FIELD = property(lambda self: (bool(E(1)), vars(self)['FIELD'])[1]) | C.FIELD = 5 | t.__class__ = Watched
    t.__class__ = Frozen; t.FIELD | t = Slots(repo, limits); t.FIELD | t.FIELD = type(t.FIELD)() | t._state = t.FIELD | t._usage = t.FIELD | t._dirty = t.FIELD"""
ENTRY = {"tool": "a", "action": "text", "outcome": "ok", "alias_hit": False, "calls": 5, "timed_calls": 2, "total_ms": 6.25}
UNARY = {"int": int, "float": float, "index": operator.index, "neg": operator.neg, "bool": bool, "str": str, "iter": iter, "len": len,
         "enter": lambda lock: type(lock).__enter__(lock), "hash": hash}
ADDRESS = re.compile(r"0x[0-9a-f]+|id='[0-9]+'")
BINARY = "add sub truediv iadd eq lt gt ge le getitem contains setitem call round exit format".split()
SWAPPED = {"radd": operator.add, "rsub": operator.sub, "rtruediv": operator.truediv}
SPECIAL = {"round": round, "format": format, "exit": lambda lock, *error: type(lock).__exit__(lock, *error)}


class Evil:
    """Stands for a value; asked for anything, it first does its mischief."""

    def __init__(self, act, value=None):
        object.__setattr__(self, "parts", (act, value))

    def __getattribute__(self, name):
        act, value = object.__getattribute__(self, "parts")
        act()
        return getattr(value, name)

    def __setattr__(self, name, new):
        act, value = object.__getattribute__(self, "parts")
        act()
        setattr(value, name, new)

    def __repr__(self):
        return f"E({hosts.typed(object.__getattribute__(self, 'parts')[1])})"


def forward(run):
    def method(self, *others, **named):
        act, value = object.__getattribute__(self, "parts")
        act()
        return run(value, *[object.__getattribute__(it, "parts")[1] if type(it) is Evil else it for it in others], **named)
    return method


for hook in BINARY:
    setattr(Evil, f"__{hook}__", forward(SPECIAL.get(hook) or getattr(operator, hook)))
for hook, run in UNARY.items():
    setattr(Evil, f"__{hook}__", forward(run))
for hook, run in SWAPPED.items():
    setattr(Evil, f"__{hook}__", forward(lambda value, other, run=run: run(other, value)))


class Lock:
    """A lock with a will of its own."""

    def __init__(self, verdict=None, enter=None, exit=None, **changes):
        self.verdict, self.errors, self.held = verdict, (enter, exit), 0
        if changes:
            self.__class__ = type("Odd", (Lock,), changes)

    def __enter__(self):
        if self.errors[0]:
            raise self.errors[0]
        self.held += 1

    def __exit__(self, *error):
        self.held -= 1
        if self.errors[1]:
            raise self.errors[1]
        return self.verdict


class World:
    """A host, and for each operation the names that its statements use, with a tracker that has a
    history.
    """

    def __init__(self, implementation):
        self.host = hosts.Host("hostile", implementation)
        health, cls = self.host.health, self.host.health.ToolHealthTracker
        watched = type("Watched", (cls,), {"__getattribute__": lambda self, name: object.__getattribute__(self, name)})
        frozen = type("Frozen", (cls,), {"__setattr__": lambda self, name, value: 1 // 0})
        slots = type("Slots", (cls,), {"__slots__": ("_state", "_lock")})
        self.names = {"h": health, "C": cls, "S": health._ToolState, "U": health._Usage, "Watched": watched, "Frozen": frozen,
                      "Slots": slots, "Lock": Lock, "Half": type("Half", (), {"__enter__": 5, "__repr__": lambda _: "Half"}), "KEY": ("a", "text", "ok", False),
                      "mock": mock, "types": types, "threading": threading}
        self.kept = {space: dict(vars(space)) for space in (health, cls, health._ToolState, health._Usage)}
        self.names |= {name: __import__(name) for name in ("json", "gc", "collections")}

    def restore(self):
        for space, kept in self.kept.items():
            for name in {*vars(space), *kept}:
                if vars(space).get(name) is not kept.get(name):
                    setattr(space, name, kept[name]) if name in kept else delattr(space, name)

    def run(self, place, mischief, operation):
        names, depth, count = dict(self.names), [1], itertools.count(1)
        health, clock = self.host.health, hosts.Clock()

        def act():
            if not depth:  # only during the operation, and not inside itself
                depth.append(1)
                try:
                    names["NUMBER"] = next(count)
                    if names["NUMBER"] < 9:
                        exec(code, names)
                finally:
                    depth.clear()

        class Dying(float):
            def __del__(self):
                try:
                    act()
                except BaseException:
                    pass

        db = types.SimpleNamespace(rows=[("a", 1, 0, None, None, None), ("b", 2, 2, "x", None, "2023-11-14 22:13:20")])
        db.fetchall, db.fetchone = lambda sql: db.rows, lambda sql, key: (names["json"].dumps([ENTRY, ENTRY | {"tool": "gone"}]),)
        db.execute = db.executemany = lambda sql, rows: written.append(repr(rows))
        repo, limits, written = types.SimpleNamespace(db=db), hosts.ToolsConfig(1, 1e12), []
        health.time, code = clock, compile(mischief.removeprefix("again "), "mischief", "exec")
        if mischief.startswith("again "):
            health.threading = types.SimpleNamespace(Lock=threading.RLock)
        names |= dict(db=db, clock=clock, repo=repo, limits=limits, t=names["C"](repo, limits), E=lambda value: Evil(act, value),
                      Dying=Dying, NAME="a", MS=2.5, TEXT="boom")
        tracker = names["t"]
        tracker.record_error("off", "boom")
        tracker.record_error("a", "boom")
        names["A"] = tracker._state["a"]
        self.host.warnings.clear()
        result = [hosts.outcome(exec, place, names)]
        tracker, lock = names["t"], vars(names["t"]).get("_lock")
        depth.clear()
        names["answer"] = None
        result.append(hosts.outcome(exec, f"answer = {operation}", names))
        depth.append(1)
        warnings = [(text, repr(arguments)) for text, arguments in self.host.warnings]
        left = vars(tracker).items() if type(tracker).__dict__.get("__slots__") is None else ()
        self.restore()
        done = next(count) - 1
        return done, ADDRESS.sub("", repr((result, hosts.typed(names.pop("answer", None)), done, clock.reads, written, warnings, held(lock),
                     [(name, hosts.typed(value)) for name, value in left if name not in ("_repo", "_limits", "_lock")])))


def held(lock):
    lock = object.__getattribute__(lock, "parts")[1] if type(lock) is Evil else lock
    return str(lock._is_owned() if hasattr(lock, "_is_owned") else lock.held if isinstance(lock, Lock) else getattr(lock, "locked", bool)())


def split(table):
    return [row.strip() for row in table.replace("\n", "|").split("|")]


class Hostile(unittest.TestCase):
    def compare(self, place, operations, *mischiefs):
        """The mischiefs at this place in these operations, on the module and on the twin: which
        operations ran one.
        """
        told = {}
        for implementation in (hosts.MODULE, hosts.PLAIN):
            world = World(implementation)
            with world.host:
                for mischief, operation in itertools.product(mischiefs, operations):
                    if operation == "t.get_health_summary()" and mischief in NOT_IN_A_SUMMARY:
                        continue
                    told.setdefault((mischief, operation), []).append(world.run(place, mischief, operation))
        for (mischief, operation), ((_, module), (_, plain)) in told.items():
            with self.subTest(place, mischief=mischief, operation=operation):
                self.assertEqual(module, plain)
        return {operation for (_, operation), (_, (count, _)) in told.items() if count}

    def test_mischief(self):
        for place in split(PLACES):
            reached = self.compare(place, split(OPERATIONS), "pass")
            with self.subTest(place):
                self.assertTrue(reached)
            self.compare(place, reached, *split(MISCHIEF))

    def test_wrong_fields(self):
        fields = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
        for wrong, field in itertools.product(split(WRONG), fields):
            self.compare(wrong.replace("FIELD", field), split(OPERATIONS), "pass")


class Recursion(unittest.TestCase):
    # Calls that lead back into the module without a line of Python.
    ENDLESS = """t._limits = type('Own', (), {'disable_cooldown_s': C.cooldown_s})(); t._limits._limits = t._limits / t.cooldown_s
        h.get_timing_collector = h.handle_get_tool_performance_stats / h.get_timing_collector()
        h.thread_census = partial(h.thread_census_report, 5) / h.thread_census()
        t._flush_health = t.flush / t.flush()
        C._load = staticmethod(partial(C, t._repo)) / C(t._repo)
        h.TOOLS = Space(get=partial(h._known, action=None)) / h._known('a', None)
        t._usage = Space(items=partial(t._usage_rows, 'a')) / t._usage_rows('a')
        t._lock, t._state = threading.RLock(), Space(get=t.is_disabled) / t.is_disabled('a')
        t._lock, t._dirty = threading.RLock(), Space(add=t.record_success) / t.record_success('a')"""

    def test_endless_recursion(self):
        if "ASAN_OPTIONS" in os.environ:  # whose frames are larger than what Python's limit was set for
            self.addCleanup(threading.stack_size, threading.stack_size(1 << 28))
        for row in self.ENDLESS.splitlines():
            with self.subTest(row.strip()), hosts.Host("endless") as host:
                patch, call = row.strip().split(" / ")
                names, told = {"h": host.health, "C": host.health.ToolHealthTracker, "t": host.tracker(), "threading": threading,
                               "partial": functools.partial, "Space": types.SimpleNamespace}, []
                exec(patch, names)
                thread = threading.Thread(target=lambda: told.append(hosts.outcome(eval, call, names)))
                thread.start()
                thread.join()
                self.assertEqual(told[0][:2], ("raised", "RecursionError"))
                self.assertEqual(held(names["t"]._lock), "False")
