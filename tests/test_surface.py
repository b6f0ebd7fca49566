"""The module as Python code sees it: its names, its operations as functions, its class and its
imports.

Where the question is what Python itself would do, the plain-Python twin answers it.
"""

import builtins
import functools
import inspect
import itertools
import json
import sys
import types
import unittest
from unittest import mock

from . import HealthCase, hosts

MEMBERS = """__init__ limits _load _load_usage record_call record_success record_error cooldown_s is_disabled
    get_health_summary _usage_rows has_unsaved_changes flush _flush_usage _flush_health""".split()
P = {"limits", "cooldown_s", "has_unsaved_changes"}  # the properties
FUNCTIONS = "_sqlite_time _epoch _known handle_get_tool_performance_stats thread_census_report".split()
FIELDS = "_repo _limits _lock _state _dirty _usage _usage_dirty".split()
# Expressions about each operation f, then about the whole, that come to the same as on plain
# Python.
FUNCTION_FACTS = """f.__name__, f.__qualname__, f.__code__.co_name, f.__module__ == h.__name__, callable(f)
    f.__annotations__, f.__defaults__, f.__kwdefaults__; set(map(type, f.__annotations__.values()))
    str(inspect.signature(f)); str(inspect.signature(f, eval_str=True)); typing.get_type_hints(f)
    f.__globals__ is vars(h), inspect.isroutine(f); pydoc.plaintext.document(f).partition(')')[0]
    copy.deepcopy(f) is f; f.__name__ in P or pickle.loads(pickle.dumps(f)) is f; f(**{1: 2})"""
FACTS = """h._SQLITE_TIMESTAMP, h._TOOL_HEALTH_COLUMNS, h.TOOL_USAGE_KEY, h._UsageKey, h.TYPE_CHECKING
    S(), S(9), S(1, 2, '3', 4.0, 5.0, 6), S(consecutive_errors=7), U(1, 2, 3.5), repr(S()), repr(U())
    S(9) == dataclasses.replace(S(), call_count=9), S() == S(1), S() == U(), U(5) == U(5); hash(U())
    [(f.name, f.type, f.default, f.kw_only) for f in dataclasses.fields(S) + dataclasses.fields(U)]
    dataclasses.asdict(S(9)), dataclasses.astuple(U(9)), S.__annotations__, U.__match_args__; S(x=1)
    str(inspect.signature(S)), S.__module__ == h.__name__, pickle.loads(pickle.dumps(S(9))); S() < S()
    C.__name__, C.__qualname__, C.__module__ == h.__name__, C.__bases__, type(C); C.nonsense; t.nonsense
    str(inspect.signature(C)), str(inspect.signature(t.record_call)), pickle.loads(pickle.dumps(C)) is C
    [(p.fset, p.fdel, type(p)) for p in map(vars(C).get, P)]; setattr(t, 'limits', 1); delattr(t, 'limits')
    setattr(t, 'note', 5), t.note, list(vars(t)), delattr(t, 'note'), hasattr(t, 'note'), vars(t)['_state']
    delattr(t, '_state'), '_state' in vars(t), setattr(t, '_state', 1), vars(t)['_state'], t._state
    delattr(t, '_repo'), t._repo; [delattr(t, '_repo') for _ in '12']; delattr(t, '_lock'), t.is_disabled('a')
    C.__new__(C).limits; C.__init__(t, t._repo, None), t.limits; C.is_disabled(5, 'a'); C.flush(None)
    C.is_disabled(duck, 'a'), duck; C.record_error(duck, 'a', 'boom'), duck; C.flush(duck)
    t.flush.__self__ is t, t.flush.__func__ is C.flush, t.flush == t.flush, weakref.ref(t)() is t
    list(vars(type('D', (C, hosts.Clock), {'__slots__': ('x',)})(t._repo))), h._known.__get__('a')('text')
    C(t._repo, falsy).limits is falsy, [n + '(' in pydoc.plaintext.document(h) for n in ('flush', '_known')]
    setattr(C, '_usage_rows', lambda self, name: [name]), t.get_health_summary()
    setattr(t, '_usage_rows', lambda name: [name]), t.get_health_summary()
    type('D', (C,), {'_usage_rows': lambda self, name: [name]})(t._repo).get_health_summary()
    setattr(C, 'cooldown_s', 0), t.is_disabled('off')
    [delattr(h, name) for name in unused], t.record_call(*key, alias_hit=False, duration_ms=2), \
        t.record_success('a'), delattr(h, 'time'), t.is_disabled('a'), t.is_disabled('nobody')"""
# What each operation looks up when it runs; after "|" the names whose loss a loader reports as a
# warning.
LATE_BOUND = """h._sqlite_time(5.0) / datetime timezone _SQLITE_TIMESTAMP
    h._epoch('2023-11-14 22:13:20') / datetime timezone _SQLITE_TIMESTAMP
    h._known('a', 'text') / TOOLS
    C(repo)._usage / ToolsConfig threading _ToolState _epoch _known | TOOL_USAGE_KEY json _Usage
    C(broken)._usage / logger | TOOLS _TOOL_HEALTH_COLUMNS
    t.record_call('new', None, 'ok', alias_hit=False, duration_ms=None) / _Usage
    t.record_success('new') / _ToolState time
    t.record_error('new', 'boom') / _ToolState time
    t.is_disabled('off') / time
    t.get_health_summary() / _ToolState _sqlite_time is_slow_call
    t.flush() / _sqlite_time _TOOL_HEALTH_COLUMNS json TOOL_USAGE_KEY
    h.handle_get_tool_performance_stats() / get_timing_collector
    h.thread_census_report(1) / thread_census"""
# A warm call site, and what is done half-way that must show at once.
HOT = """t.is_disabled('a') / t._state['a'].disabled_at = 9e9
    t.is_disabled(tool_name='a') / C.is_disabled = lambda self, tool_name: tool_name
    t.is_disabled(*['a']) / t.is_disabled = lambda tool_name: 5
    t.is_disabled(**{'tool_name': 'a'}) / t = type('D', (C,), {'is_disabled': lambda *a, **k: 6})(repo)
    C.is_disabled(t, 'a') / t._state = {'a': S(disabled_at=9e9)}
    C.is_disabled(tool_name='a', self=t) / t._lock.acquire(); t = other; t._state['a'] = S(disabled_at=9e9)
    partial() / t._state['a'].disabled_at = 9e9
    t.limits.disable_after_errors / t._limits = other._limits
    t.cooldown_s / C.cooldown_s = 8
    t.is_disabled('off') / C.cooldown_s = property(lambda self: -9)
    t.is_disabled('off') / vars(t)['cooldown_s'] = -9; t._limits.disable_cooldown_s = 0
    t.has_unsaved_changes / t = other; t._usage_dirty = 5
    t.flush() / t._flush_usage = lambda: 7
    (t.record_success('a'), t._state['a'].call_count - i) / t.record_success = len
    (C.record_success(t, tool_name='a'), t._state['a'].updated_at) / h.time = hosts.Clock(5)
    (t.record_error('a', error='x'), t._state['a'].error_count - i) / t._state['a'] = S(1)
    (t.record_call('a', None, 'ok', alias_hit=0, duration_ms=None), len(t._usage)) / t._usage = {1: 2}
    t.record_call(*key, **{'duration_ms': 1.5, 'alias_hit': True}) / C.record_call = int
    t.get_health_summary() / h._sqlite_time = str
    h._known(action=None, tool='a') / h.TOOLS = {}
    h._epoch('2023-11-14 22:13:20') / h._SQLITE_TIMESTAMP = '%Y'
    h.thread_census_report(4)['python'] / h.thread_census = lambda: hosts.ThreadCensus(1, 2, ())"""


def operations(module):
    """Every operation by its qualified name; a property by the function that reads it."""
    members, functions = vars(module.ToolHealthTracker), FUNCTIONS
    return {name: getattr(module, name) for name in functions} | {
        f"ToolHealthTracker.{name}": members[name].fget if name in P else members[name] for name in MEMBERS}


def world(host):
    """What an expression may name."""
    health = host.health
    health.time = hosts.Clock()
    db, broken = host.database(), host.database()
    entry = {"tool": "a", "action": "text", "outcome": "ok", "alias_hit": 0, "calls": 1, "timed_calls": 0}
    db.answers["fetchall"] = broken.answers["fetchall"] = [("a", 1, 0, None, None, "2023-11-14 22:13:20")]
    db.answers["fetchone"] = (json.dumps([entry | {"total_ms": 0}]),)
    broken.answers["fetchone"] = OSError("broken")
    tracker = host.tracker(db)
    tracker.record_call("usage only", None, "ok", alias_hit=False, duration_ms=None)
    for _ in range(3):
        tracker.record_error("off", "boom")
    duck = types.SimpleNamespace(
        _state={"a": health._ToolState(disabled_at=5.0, last_error="old")}, _dirty=set(), cooldown_s=1e12,
        _lock=mock.MagicMock(__repr__=lambda _: "lock"), _limits=hosts.ToolsConfig())
    host.warnings.clear()
    names = "copy dataclasses inspect pickle pydoc typing weakref".split()
    return {name: __import__(name) for name in names} | {
        "h": health, "C": health.ToolHealthTracker, "S": health._ToolState, "U": health._Usage, "t": tracker,
        "repo": tracker._repo, "broken": types.SimpleNamespace(db=broken), "duck": duck, "hosts": hosts,
        "partial": functools.partial(tracker.is_disabled, "a"), "falsy": type("F", (), {"__len__": int})(),
        "other": host.tracker(limits=hosts.ToolsConfig(7)), "key": ("usage only", None, "ok"), "P": P,
        "unused": ("_ToolState", "_Usage", "json", "logger", "threading", "ToolsConfig", "TOOLS")}


class Surface(HealthCase):
    def compare(self, run):
        """What ``run`` comes to in the world of a fresh copy of the module: the same as in the
        twin's.
        """
        seen = []
        for implementation in (hosts.MODULE, hosts.PLAIN):
            with hosts.Host("fresh", implementation) as host:
                seen.append(hosts.outcome(run, world(host)))
        self.assertEqual(*seen)
        return seen[0]

    def test_facts(self):
        for fact in FACTS.replace("\n", ";").split(";"):
            with self.subTest(fact.strip()):
                self.compare(lambda names: eval(f"({fact.strip()},)", names))
        facts = FUNCTION_FACTS.replace("\n", ";").split(";")
        for fact, name in itertools.product(facts, operations(self.health)):
            with self.subTest(fact.strip(), function=name):
                self.compare(lambda it: eval(f"({fact.strip()},)", it | {"f": operations(it["h"])[name]}))

    def test_hot_call_sites(self):
        """The interpreter's specialisation of a call site changes no answer and outlives no change."""
        for row in HOT.splitlines():
            expression, change = row.strip().split(" / ")

            def run(names):
                names["t"].flush()
                seen = names["seen"] = []
                exec("def half(start):\n for i in range(start, start + 5000):\n"
                     f"  try: answer = {expression}\n  except Exception as error: answer = repr(error)\n"
                     "  if not seen or repr(answer) != repr(seen[-1]): seen.append(answer)\n"
                     f"half(1)\n{change}\nseen.append('changed')\nhalf(5001)", names)
                return seen

            with self.subTest(row.strip()):
                self.assertGreater(len(self.compare(run)[1]), 2)

    def test_late_binding(self):
        for row in LATE_BOUND.splitlines():
            call, _, used = row.strip().partition(" / ")
            for name in used.replace("|", "").split():
                with self.subTest(call, name=name), hosts.Host("late") as host:
                    usual = hosts.outcome(eval, call, world(host))
                    names, value = world(host), vars(host.health).pop(name)
                    if name in used.partition("|")[0].split():
                        with self.assertRaises(NameError) as caught:
                            eval(call, names)
                        error = caught.exception
                    else:
                        eval(call, names)
                        error = host.warnings[0][1][0]
                    self.assertEqual((error.name, str(error)), (name, f"name '{name}' is not defined"))
                    self.assertFalse(names["t"]._lock.locked())
                    setattr(host.health, name, value)
                    names, value = world(host), vars(host.health).pop(name)
                    with mock.patch.object(builtins, name, value, create=True):
                        self.assertEqual(hosts.outcome(eval, call, names), usual)

    def test_bad_arguments(self):
        """A call that does not fit the parameters raises Python's own TypeError, text included."""
        named = [{}, {"self": 1}, {"zzz": 1, "tool_name": 2}, {"tool_nam": 1}, {"alias_hit": 1}, {"é": 1},
                 {"alias_hit": 1, "duration_m": 2}, {"tool_name": 1, "alias_hit": 0}, {"budget": 1},
                 {"census": None, "limits": None}, {"action": 1, "outcome": 2, "repository": 3}]

        def run(names):
            bound = {f"bound {name}": getattr(names["t"], name) for name in MEMBERS if name not in P}
            functions, told = operations(names["h"]) | bound | {"class": names["C"]}, []
            for name, count, keywords in itertools.product(functions, (0, 1, 2, 3, 4, 9), named):
                try:
                    inspect.signature(functions[name]).bind(*[1] * count, **keywords)
                except TypeError:
                    told.append((name, count, hosts.outcome(functions[name], *[1] * count, **keywords)))
            return told

        self.assertGreater(len(self.compare(run)[1]), 1500)

    def test_subclasses_and_patches(self):
        cls = self.health.ToolHealthTracker
        tracker = self.host.tracker(cls=type("Tracker", (cls,), {
            "record_error": lambda self, name, error: super(type(self), self).record_error(name, error + "!"),
            "_load": lambda self: setattr(self, "loaded", True)}))
        tracker.record_error("a", "boom")
        self.assertEqual((tracker._state["a"].last_error, len(tracker._repo.db.calls)), ("boom!", 1))
        with mock.patch.object(cls, "is_disabled", autospec=True, return_value="patched") as fake:
            self.assertEqual(tracker.is_disabled(tool_name="a"), "patched")
            fake.assert_called_once_with(tracker, tool_name="a")
            self.assertRaises(TypeError, tracker.is_disabled)
        with mock.patch.object(tracker, "_flush_health", autospec=True, return_value=40):
            self.assertEqual(tracker.flush(), 40)
        with mock.patch.object(self.health, "ToolHealthTracker", autospec=True) as fake:
            self.assertRaises(TypeError, fake(1).record_call, "a", None, "ok", True, None)
        self.assertEqual((tracker.is_disabled("a")[0], list(vars(tracker))), (False, [*FIELDS, "loaded"]))

    def test_copies_are_independent(self):
        with hosts.Host("org.team.host") as second:
            copies = self.health, second.health, self.host.load()
            copies[2].__spec__.loader.exec_module(copies[2])
            trackers = [self.host.tracker(cls=health.ToolHealthTracker) for health in copies]
            copies[0].TOOLS, copies[1].ToolHealthTracker.is_disabled = {}, lambda self, tool_name: "patched"
            self.assertEqual([health._known("a", None) for health in copies], [False, True, True])
            self.assertEqual([it.is_disabled("a")[0] for it in trackers], [False, "p", False])
            for health, tracker in zip(copies, trackers):
                tracker.record_success("a")
                self.assertIs(type(tracker._state["a"]), health._ToolState)
            self.assertEqual(len({type(tracker._state["a"]) for tracker in trackers}), 3)


class Imports(unittest.TestCase):
    DAMAGE = {
        "none": lambda module, name: None,
        "no module": lambda module, name: sys.modules.pop(module.__name__),
        "no name": lambda module, name: delattr(module, name),
        "in a file": lambda module, name: vars(module).update(__file__=f"/srv/{vars(module).pop(name)}.py"),
        "failing": lambda module, name: vars(module).update(__getattr__=int, old=vars(module).pop(name)),
        "module": lambda it, name: sys.modules.update({f"{it.__name__}.{name}": vars(it).pop(name)}),
    }

    def check(self, host, statement):
        """Importing the module fails as ``statement`` does, or binds what that binds."""
        def told(error):
            return [str(error), *(getattr(error, fact, 0) for fact in ("name", "path", "name_from"))]

        names = {}
        try:
            exec(statement, names)
        except Exception as error:
            with self.assertRaises(Exception) as caught:
                host.load()
            self.assertIs(type(caught.exception), type(error))
            self.assertEqual(told(caught.exception), told(error))
        else:
            name = statement.split()[-1]
            self.assertIs(getattr(host.load(), name), names[name])

    STANDARD = ["import json", "import logging", "import threading", "import time",
                "from dataclasses import dataclass", "from datetime import datetime",
                "from datetime import timezone", "from typing import TYPE_CHECKING", "from typing import Any"]
    SERVICES = ["from {}.config import ToolsConfig", "from {}.tool_registry import TOOLS",
                "from {}.tool_schemas import is_slow_call", "from {}.utils.process import ThreadCensus",
                "from {}.utils.process import thread_census",
                "from {}.utils.timing import get_timing_collector"]

    def test_host_modules(self):
        for package, how, service in itertools.product(("host", "org.team.host"), self.DAMAGE, self.SERVICES):
            with self.subTest(package, how=how, service=service), mock.patch.dict(sys.modules):
                with hosts.Host(package, load=False) as host:
                    _, place, _, name = service.format(package).split()
                    self.DAMAGE[how](sys.modules[place], name)
                    self.check(host, service.format(package))

    def test_order(self):
        order = [statement.format("host") for statement in self.STANDARD + self.SERVICES]
        for at, statement in enumerate(order):
            for missing in ([later.split()[1] for later in order[at:]], []):
                with self.subTest(statement), hosts.Host(load=False) as host:
                    with mock.patch.dict(sys.modules, dict.fromkeys(missing)):
                        self.check(host, statement)
