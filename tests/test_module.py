# The module as a whole: what its import needs and says, and call sites that the interpreter has
# specialised.
#
# For example, with a host whose configuration has another name, the import fails as that of plain
# Python does: "cannot import name 'ToolsConfig' from 'host.config' (unknown location)", with the
# same attributes, after the same imports.

import builtins
import dataclasses
import itertools
import sys
import types
import unittest
from unittest import mock

from bench import hosts

from . import HealthCase
from .worlds import TwinCase, put, source

SERVICES = [("config", "ToolsConfig"), ("tool_registry", "TOOLS"), ("tool_schemas", "is_slow_call"),
            ("utils.process", "ThreadCensus"), ("utils.process", "thread_census"),
            ("utils.timing", "get_timing_collector")]
DAMAGE = [  # to the module of a service
    lambda module, name: sys.modules.pop(module.__name__),
    lambda module, name: delattr(module, name),
    lambda module, name: vars(module).update(__file__="/srv/host.py", old=vars(module).pop(name)),
    lambda module, name: vars(module).update(__getattr__=int, old=vars(module).pop(name)),
    lambda module, name: sys.modules.update(  # a module of that name, which is not yet bound
        {f"{module.__name__}.{name}": vars(module).pop(name)}),
]
# A call site that has been run often, and what is done then, which must show at once.
HOT = [
    ("tracker.is_disabled('a')", "tracker._state['a'].disabled_at = 9e9"),
    ("tracker.is_disabled(tool_name='a')", "Tracker.is_disabled = lambda self, tool_name: 5"),
    ("tracker.is_disabled(**{'tool_name': 'a'})", "tracker.is_disabled = lambda tool_name: 5"),
    ("tracker.has_unsaved_changes", "tracker._dirty.clear(); tracker._usage_dirty = 5"),
    ("tracker.flush()", "tracker._flush_usage = lambda: 7"),
    ("health._known(action=None, tool='a')", "health.TOOLS = {}"),
    ("type(Tracker(tracker._repo).limits)", "Tracker.__init__ = lambda *_: None"),
]


class Imports(unittest.TestCase):
    # What an import comes to: the error and what it says of itself, or the value of a name.
    def load(self, host, name="logger"):
        try:
            return getattr(host.load(), name)
        except BaseException as error:
            return type(error), str(error), *(getattr(error, fact, None) for fact in (
                "name", "path", "name_from"))

    def test_host_modules(self):
        packages = "host", "org.team.host"
        for package, (place, name), damage in itertools.product(packages, SERVICES, DAMAGE):
            def told(implementation):
                with mock.patch.dict(sys.modules):
                    with hosts.Host(package, implementation, load=False) as host:
                        module = sys.modules[f"{package}.{place}"]
                        expected = getattr(module, name)
                        damage(module, name)
                        loaded = self.load(host, name)
                        return loaded is expected or loaded

            with self.subTest(source(damage), package=package, name=name):
                self.assertEqual(told(hosts.MODULE), told(hosts.PLAIN))

    # The same imports, in order, whichever of them is interrupted.
    def test_order(self):
        def told(implementation, interrupted_at):
            def counting(name, names=None, *rest):
                if (names or {}).get("__name__") == host.full_name:
                    imports.append((name.replace("host.", ""), rest[1]))
                    if len(imports) == interrupted_at:
                        raise KeyboardInterrupt
                return usual(name, names, *rest)

            imports, usual = [], builtins.__import__
            with hosts.Host("host", implementation, load=False) as host:
                with mock.patch.object(builtins, "__import__", counting):
                    return self.load(host)[:1] if interrupted_at else self.load(host).name, imports

        _, imports = told(hosts.PLAIN, None)
        self.assertGreater(len(imports), 12)
        for at in range(len(imports) + 1):
            self.assertEqual(told(hosts.MODULE, at), told(hosts.PLAIN, at))

    def test_without_a_host_package(self):
        for name in ("health", "tool_handlers.health"):
            host = self.enterContext(hosts.Host(load=False))
            host.full_name = name
            with self.assertRaises(ImportError) as caught:
                host.load(enter=False)
            self.assertEqual(str(caught.exception), f"{name!r} must be a submodule of the"
                             " 'tool_handlers' package of a host package")

    # The names that the import found there are those that an operation looks in.
    def test_builtins_that_are_no_dictionary(self):
        def told(implementation):
            host = self.enterContext(hosts.Host("proxied", implementation, load=False))
            module = host.load(__builtins__=types.MappingProxyType(vars(builtins)))
            del module.TOOLS
            return hosts.outcome(module._known, "a", None)

        self.assertEqual(told(hosts.MODULE), told(hosts.PLAIN))

    # Without an entry in sys.modules the module loads, and leaves none; nor does a failure.
    def test_loaded_by_path(self):
        host = self.enterContext(hosts.Host("by.path", load=False))
        self.assertEqual(host.load(enter=False)._Usage(3).calls, 3)
        with mock.patch("dataclasses.dataclass", side_effect=OSError("no")):
            self.assertRaises(OSError, host.load, enter=False)
        self.assertNotIn(host.full_name, sys.modules)

    # Whatever the decorator makes of the records is used as it comes.
    def test_other_decorators(self):
        def slotted(record, **members):
            return put(usual(slots=True)(record), **members)

        def watched(record, name):
            return 7 if name == "call_count" else object.__getattribute__(record, name)

        def with_slots_of_another(record):
            names = tuple(record.__annotations__)
            padding = tuple(f"padding{number}" for number in range(99))
            other = type("Other", (), {"__slots__": padding + names})
            return type("Own", (), {"__slots__": (), **{name: vars(other)[name] for name in names}})

        def told(implementation, decorate):
            with mock.patch("dataclasses.dataclass", lambda slots: decorate):
                with hosts.Host("decorated", implementation) as host:
                    host.health.time, tracker = hosts.Clock(), host.tracker()
                    history = hosts.Database(fetchall=[("b", 1, 1, "", None, None)], fetchone=None)
                    return [hosts.outcome(run) for run in (
                        lambda: tracker.record_success("a"), lambda: tracker.get_health_summary(),
                        lambda: tracker._state["a"].call_count,
                        lambda: host.tracker(history)._state["b"].error_count)]

        usual = dataclasses.dataclass
        for decorate in (
                lambda record: record,
                lambda record: slotted(record, __getattribute__=watched),
                lambda record: slotted(record, __setattr__=lambda record, name, value: None),
                lambda record: slotted(record, __new__=lambda cls, **values: None),
                lambda record: slotted(record, __init__=lambda self, **values: setattr(
                    self, "error_count", 7)),
                with_slots_of_another,
                lambda record: slotted(record, call_count=property(lambda record: 5)),
                lambda record: type("Own", (slotted(record),), {"__init__": lambda record: None}),
                lambda record: lambda: slotted(record)(),
                lambda record: type("Meta", (type,), {"__call__": lambda cls: 5})(
                    "Record", (), {"__slots__": tuple(record.__annotations__)})):
            self.assertEqual(told(hosts.MODULE, decorate), told(hosts.PLAIN, decorate))


class Copies(HealthCase):
    def test_copies_are_independent(self):
        other, tracker = self.host.load(), self.host.tracker()
        other.TOOLS, other.ToolHealthTracker.is_disabled = {}, None
        tracker.record_success("a")
        self.assertEqual(tracker.is_disabled("a"), (False, None))
        self.assertTrue(self.health._known("a", None))
        self.assertIsNot(type(tracker._state["a"]), other._ToolState)


class CallSites(TwinCase):
    # The interpreter's specialisation of a call site changes no answer and outlives no change.
    def test_hot_call_sites(self):
        for expression, change in HOT:
            def run(world, health, tracker, tracker_class):
                names = {"health": health, "tracker": tracker, "Tracker": tracker_class, "seen": []}
                exec("def run_often():\n"
                     "  for _ in range(3000):\n"
                     f"    try: answer = {expression}\n"
                     "    except Exception as error: answer = repr(error)\n"
                     "    if not seen or repr(answer) != repr(seen[-1]): seen.append(answer)\n"
                     f"run_often()\n{change}\nseen.append('changed')\nrun_often()", names)
                return names["seen"]

            self.assertSame(run, expression=expression, change=change)
            self.module.reset()
            with self.subTest(expression):
                self.assertGreater(len(self.module.call(run)), 2)
