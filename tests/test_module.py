"""The module as a whole, beside plain Python: what its import needs, says and makes."""

import builtins
import dataclasses
import itertools
import sys
import types
import unittest
from unittest import mock

from bench import hosts

from .worlds import with_attributes

SERVICES = [("config", "ToolsConfig"), ("tool_registry", "TOOLS"), ("tool_schemas", "is_slow_call"),
            ("utils.process", "ThreadCensus"), ("utils.process", "thread_census"),
            ("utils.timing", "get_timing_collector")]
DAMAGE = {  # to the module of a service
    "gone": lambda module, name: sys.modules.pop(module.__name__),
    "without the name": lambda module, name: delattr(module, name),
    "of a file, without the name": lambda module, name: vars(module).update(
        __file__="/srv/host.py", old=vars(module).pop(name)),
    "fails for every name": lambda module, name: vars(module).update(
        __getattr__=int, old=vars(module).pop(name)),
    "fails for the name": lambda module, name: vars(module).update(
        __getattr__=lambda wanted: {"__path__": []}[wanted], old=vars(module).pop(name)),
    "a module of that name, not yet bound": lambda module, name: sys.modules.update(
        {f"{module.__name__}.{name}": vars(module).pop(name)}),
}
# What a decorator makes of the records, where `usual` is the dataclass.
DECORATORS = {
    "nothing": lambda record: record,
    "own reading": lambda record: with_attributes(usual(record), __getattribute__=lambda it, name: (
        7 if name == "call_count" else object.__getattribute__(it, name))),
    "own writing": lambda record: with_attributes(usual(record), __setattr__=lambda it, name, _: (
        object.__setattr__(it, name, 8))),
    "no making": lambda record: with_attributes(usual(record), __new__=lambda cls, **values: None),
    "own making": lambda record: with_attributes(
        usual(record), __init__=lambda self, **values: setattr(self, "error_count", 7)),
    "slots of another class": lambda record: type("Own", (), {"__slots__": ()} | {
        name: vars(type("Other", (), {"__slots__": [*map("x{}".format, range(99)), *names(record)]}
                        ))[name] for name in names(record)}),
    "a property": lambda record: with_attributes(usual(record), call_count=property(lambda _: 5)),
    "a subclass": lambda record: type("Own", (usual(record),), {"__init__": lambda record: None}),
    "a function": lambda record: lambda: usual(record)(),
    "a class of another class": lambda record: type(
        "Meta", (type,), {"__call__": lambda cls: 5})("Own", (), {"__slots__": names(record)}),
}
usual = dataclasses.dataclass(slots=True)


def names(record):
    return list(record.__annotations__)


class Imports(unittest.TestCase):
    def assertAlike(self, see, *arguments, **about):
        with self.subTest(**about):
            self.assertEqual(see(hosts.MODULE, *arguments), see(hosts.PLAIN, *arguments))

    def load(self, host, name="logger"):
        """A name's value, or what the error of the import says of itself."""
        try:
            return getattr(host.load(), name)
        except BaseException as error:
            return type(error), str(error), *(getattr(error, fact, None) for fact in (
                "name", "path", "name_from"))

    def test_host_modules(self):
        def see(implementation, package, place, name, damage):
            with (mock.patch.dict(sys.modules),
                  hosts.Host(package, implementation, load=False) as host):
                module = sys.modules[f"{package}.{place}"]
                expected = getattr(module, name)
                DAMAGE[damage](module, name)
                loaded = self.load(host, name)
                return loaded is expected or loaded

        for service, damage in itertools.product(SERVICES, DAMAGE):
            self.assertAlike(see, "org.team.host", *service, damage, service=service, is_=damage)

    def test_order(self):
        """The same imports, in order, whichever of them is interrupted."""
        def see(implementation, interrupted_at):
            def counting(name, names=None, *rest):
                if (names or {}).get("__name__") == host.full_name:
                    imports.append((name.replace("host.", ""), rest[1]))
                    if len(imports) == interrupted_at:
                        raise KeyboardInterrupt
                return usual(name, names, *rest)

            imports, usual = [], builtins.__import__
            with (hosts.Host("host", implementation, load=False) as host,
                  mock.patch.object(builtins, "__import__", counting)):
                return hosts.outcome(self.load, host, "_SQLITE_TIMESTAMP"), imports

        for at in range(14):
            self.assertAlike(see, at, interrupted_at=at)

    def test_without_a_host_package(self):
        host = self.enterContext(hosts.Host(load=False))
        for host.full_name in ("health", "tool_handlers.health"):
            with self.subTest(host.full_name):
                self.assertEqual(hosts.outcome(host.load, enter=False), [
                    f"raised: ImportError: {host.full_name!r} must be a submodule of the"
                    " 'tool_handlers' package of a host package"])

    def test_builtins_that_are_no_dictionary(self):
        """An operation looks in what the import found there."""
        def see(implementation):
            host = self.enterContext(hosts.Host("proxied", implementation, load=False))
            module = host.load(__builtins__=types.MappingProxyType(vars(builtins)))
            del module.TOOLS
            return hosts.outcome(module._known, "a", None)

        self.assertAlike(see)

    def test_loaded_by_path(self):
        """Neither an import without an entry in sys.modules leaves one, nor a failing one."""
        host = self.enterContext(hosts.Host("by.path", load=False))
        self.assertEqual(host.load(enter=False)._Usage(3).calls, 3)
        with mock.patch("dataclasses.dataclass", side_effect=OSError("no")):
            self.assertRaises(OSError, host.load, enter=False)
        self.assertNotIn(host.full_name, sys.modules)

    def test_other_decorators(self):
        def see(implementation, decorate):
            with (mock.patch("dataclasses.dataclass", lambda slots: decorate),
                  hosts.Host("decorated", implementation) as host):
                host.health.time, tracker = hosts.Clock(), host.tracker()
                history = hosts.Database(fetchall=[("b", 1, 1, "", None, None)], fetchone=None)
                return [hosts.outcome(run) for run in (
                    lambda: tracker.record_success("a"), lambda: tracker.get_health_summary(),
                    lambda: tracker._state["a"].call_count,
                    lambda: host.tracker(history)._state["b"].error_count)]

        for name, decorate in DECORATORS.items():
            self.assertAlike(see, decorate, makes=name)
