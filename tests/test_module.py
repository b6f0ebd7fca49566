# The module as a whole: what its import needs and says, copies beside each other, and call sites
# that the interpreter has specialised.
#
# For example, an import fails with the very words of the import statement that stands for it:
#
#     from host.config import ToolsConfig     # no such name
#     ImportError: cannot import name 'ToolsConfig' from 'host.config' (unknown location)

import dataclasses
import itertools
import sys
import unittest
from unittest import mock

from . import HealthCase, hosts
from .worlds import TwinCase, put

STANDARD = [
    "import json",
    "import logging",
    "import threading",
    "import time",
    "from dataclasses import dataclass",
    "from datetime import datetime",
    "from datetime import timezone",
    "from typing import TYPE_CHECKING",
    "from typing import Any",
]
SERVICES = [
    "from {}.config import ToolsConfig",
    "from {}.tool_registry import TOOLS",
    "from {}.tool_schemas import is_slow_call",
    "from {}.utils.process import ThreadCensus",
    "from {}.utils.process import thread_census",
    "from {}.utils.timing import get_timing_collector",
]
DAMAGE = {  # to the module of a service
    "none": lambda module, name: None,
    "no module": lambda module, name: sys.modules.pop(module.__name__),
    "no name": lambda module, name: delattr(module, name),
    "no name in a file": lambda module, name: put_aside(module, name, __file__="/srv/host.py"),
    "a failing attribute": lambda module, name: put_aside(module, name, __getattr__=int),
    "a module of that name": lambda module, name: sys.modules.update(
        {f"{module.__name__}.{name}": vars(module).pop(name)}),
}
# A call site that has been run often, and what is done then, which must show at once.
HOT = [
    ("tracker.is_disabled('a')", "tracker._state['a'].disabled_at = 9e9"),
    ("tracker.is_disabled(tool_name='a')", "Tracker.is_disabled = lambda self, tool_name: 5"),
    ("tracker.is_disabled(*['a'])", "tracker.is_disabled = lambda tool_name: 5"),
    ("tracker.is_disabled(**{'tool_name': 'a'})", "tracker = Other(tracker._repo)"),
    ("Tracker.is_disabled(tracker, 'a')", "tracker._state = {}"),
    ("Tracker.is_disabled(tool_name='a', self=tracker)", "Tracker.is_disabled = max"),
    ("tracker.limits.disable_after_errors", "tracker._limits = None"),
    ("tracker.cooldown_s", "Tracker.cooldown_s = 8"),
    ("tracker.is_disabled('off')", "Tracker.cooldown_s = property(lambda self: -9)"),
    ("tracker.has_unsaved_changes", "tracker._dirty.clear(); tracker._usage_dirty = 5"),
    ("tracker.flush()", "tracker._flush_usage = lambda: 7"),
    ("tracker.record_success('b')", "tracker.record_success = len"),
    ("tracker.record_error('b', error='x')", "tracker._state['b'] = None"),
    ("tracker.record_call('b', None, 'ok', alias_hit=0, duration_ms=1)", "tracker._usage = {1: 2}"),
    ("tracker.get_health_summary()", "health._sqlite_time = str"),
    ("health._known(action=None, tool='a')", "health.TOOLS = {}"),
    ("health._epoch('2023-11-14 22:13:20')", "health._SQLITE_TIMESTAMP = '%Y'"),
    ("health.thread_census_report(4)['python']", "health.thread_census = int"),
    ("type(Tracker(tracker._repo).limits)", "Tracker.__init__ = lambda *_: None"),
]


# Give the name another one, and set the attributes.
def put_aside(module, name, **attributes):
    vars(module).update(attributes, put_aside=vars(module).pop(name))


class Imports(unittest.TestCase):
    # Importing the module fails as the statement does, or binds what that binds.
    def check(self, host, statement):
        def told(error):
            return type(error), str(error), *(getattr(error, fact, None) for fact in (
                "name", "path", "name_from"))

        names = {}
        try:
            exec(statement, names)
        except Exception as error:
            with self.assertRaises(Exception) as caught:
                host.load()
            self.assertEqual(told(caught.exception), told(error))
        else:
            name = statement.split()[-1]
            self.assertIs(getattr(host.load(), name), names[name])

    def test_host_modules(self):
        for package, service in itertools.product(("host", "org.team.host"), SERVICES):
            for how, damage in DAMAGE.items():
                with self.subTest(package, how=how, service=service), mock.patch.dict(sys.modules):
                    with hosts.Host(package, load=False) as host:
                        _, module, _, name = service.format(package).split()
                        damage(sys.modules[module], name)
                        self.check(host, service.format(package))

    # What stands first fails first, when everything from there on is missing.
    def test_order(self):
        order = [statement.format("host") for statement in STANDARD + SERVICES]
        for at, statement in enumerate(order):
            missing = dict.fromkeys(later.split()[1] for later in order[at:])
            with self.subTest(statement), hosts.Host(load=False) as host:
                with mock.patch.dict(sys.modules, missing):
                    self.check(host, statement)

    def test_without_a_host_package(self):
        for name in ("health", "tool_handlers.health"):
            host = hosts.Host(load=False)
            host.full_name = name
            with self.subTest(name), self.assertRaises(ImportError) as caught, host:
                host.load(enter=False)
            self.assertEqual(str(caught.exception), f"{name!r} must be a submodule of the"
                             " 'tool_handlers' package of a host package")

    # Without an entry in sys.modules the module loads, and leaves none; nor does a failure.
    def test_loaded_by_path(self):
        host = self.enterContext(hosts.Host("by.path", load=False))
        module = host.load(enter=False)
        self.assertEqual((module._Usage(3).calls, host.full_name in sys.modules), (3, False))
        with mock.patch("dataclasses.dataclass", side_effect=OSError("no")):
            self.assertRaises(OSError, host.load, enter=False)
        self.assertNotIn(host.full_name, sys.modules)

    # Whatever the decorator makes of the records is used as it comes.
    def test_other_decorators(self):
        def slotted(record, **members):
            return put(usual(slots=True)(record), **members)

        def watched(record, name):
            return 7 if name == "call_count" else object.__getattribute__(record, name)

        def told(implementation, decorate):
            with mock.patch("dataclasses.dataclass", lambda slots: decorate):
                with hosts.Host("decorated", implementation) as host:
                    tracker = host.tracker()
                    return [hosts.outcome(run) for run in (
                        lambda: tracker.record_success("a"), lambda: tracker.get_health_summary(),
                        lambda: tracker._state["a"].call_count)]

        usual = dataclasses.dataclass
        for decorate in (
                lambda record: record,
                lambda record: slotted(record, __getattribute__=watched),
                lambda record: slotted(record, __setattr__=lambda record, name, value: None),
                lambda record: slotted(record, __new__=lambda cls, **values: None),
                lambda record: slotted(record, call_count=property(lambda record: 5)),
                lambda record: type("Own", (slotted(record),), {"__init__": lambda record: None}),
                lambda record: lambda: slotted(record)()):
            self.assertEqual(told(hosts.MODULE, decorate), told(hosts.PLAIN, decorate))


class Copies(HealthCase):
    def test_copies_are_independent(self):
        other = self.enterContext(hosts.Host("org.team.host"))
        copies = self.health, other.health, self.host.load()
        copies[2].__spec__.loader.exec_module(copies[2])  # a second time
        trackers = [self.host.tracker(cls=copy.ToolHealthTracker) for copy in copies]
        copies[0].TOOLS = {}
        copies[1].ToolHealthTracker.is_disabled = lambda self, tool_name: ("patched",)
        self.assertEqual([copy._known("a", None) for copy in copies], [False, True, True])
        self.assertEqual([it.is_disabled("a")[0] for it in trackers], [False, "patched", False])
        for tracker in trackers:
            tracker.record_success("a")
        self.assertEqual(len({type(tracker._state["a"]) for tracker in trackers}), 3)

    def test_subclasses_and_mocks(self):
        cls = self.health.ToolHealthTracker
        tracker = self.host.tracker(cls=type("Tracker", (cls,), {
            "record_error": lambda self, name, error: super(type(self), self).record_error(name, "!"),
            "_load": lambda self: setattr(self, "loaded", True)}))
        tracker.record_error("a", "boom")
        self.assertEqual((tracker._state["a"].last_error, tracker.loaded), ("!", True))
        with mock.patch.object(cls, "is_disabled", autospec=True, return_value=5) as fake:
            self.assertEqual(tracker.is_disabled(tool_name="a"), 5)
            fake.assert_called_once_with(tracker, tool_name="a")
            self.assertRaises(TypeError, tracker.is_disabled)
        self.assertEqual(tracker.is_disabled("a"), (False, None))


class CallSites(TwinCase):
    # The interpreter's specialisation of a call site changes no answer and outlives no change.
    def test_hot_call_sites(self):
        for expression, change in HOT:
            def run(world, health, tracker, tracker_class):
                names = {"health": health, "tracker": tracker, "Tracker": tracker_class, "seen": [],
                         "Other": type("Other", (tracker_class,), {"is_disabled": lambda *_, **__: 6})}
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
