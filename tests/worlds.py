# The same case in two worlds, that of the module and that of its twin in plain Python,
# bench/plain.py, which has to change with a rule: everything that can be seen of it must be the
# same.
#
# A case is a function, and what its parameters name is taken from the world: the module as
# `health`, a tracker with a history as `tracker`, its class, its settings, its clock, and so on.
# For example
#
#     lambda tracker, clock: (put(clock, now=5), tracker.record_success("a"))
#
# is compared in what it returns or raises and in what it leaves behind: the tracker's fields,
# whether its lock is free, the database calls, the warnings, and how often the clock was read.

import json
import linecache
import os
import re
import types
import unittest

from bench import hosts


KEY = ("a", "text", "ok", False)
TIME = "2023-11-14 22:13:20"
ENTRY = {"tool": "a", "action": "text", "outcome": "ok", "alias_hit": False, "calls": 5,
         "timed_calls": 2, "total_ms": 6.25}
DOCUMENT = json.dumps([ENTRY, ENTRY | {"tool": "gone"}])
STATISTICS = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors")
NEW = {"action": None, "outcome": "ok", "alias_hit": True, "duration_ms": None}
OPERATIONS = [
    lambda tracker, tool, duration_ms: tracker.record_call(
        tool, "text", "ok", alias_hit=False, duration_ms=duration_ms),
    lambda tracker: tracker.record_call("new", **NEW),
    lambda tracker, tool: tracker.record_success(tool),
    lambda tracker: tracker.record_success("new"),
    lambda tracker, tool, error: tracker.record_error(tool, error),
    lambda tracker, tool: tracker.is_disabled(tool),
    lambda tracker: tracker.is_disabled("off"),
    lambda tracker: tracker.get_health_summary(),
    lambda tracker, tool: tracker._usage_rows(tool),
    lambda tracker: tracker.has_unsaved_changes,
    lambda tracker: (tracker.limits, tracker.cooldown_s),
    lambda tracker: tracker.flush(),
    lambda tracker, db: (db.answers.update(executemany=OSError("broken")), tracker.flush()),
    lambda tracker, db: (db.answers.update(execute=OSError("broken")), tracker._flush_usage()),
    lambda tracker: tracker._load(),
    lambda tracker: tracker._load_usage(),
    lambda tracker, repository: tracker.__init__(repository),
    lambda health, tool: health._known(tool, "text"),
    lambda health, text: health._epoch(text),
    lambda health, epoch: health._sqlite_time(epoch),
    lambda health, budget, census: health.thread_census_report(budget, census),
    lambda health: health.handle_get_tool_performance_stats(),
]
# What may differ: addresses, file names, and the names of the two host packages.
OWN = re.compile(r"0x[0-9a-f]+|id='[0-9]+'|<module .*?>|\b(?:module|plain)_world\b")


# A host whose services are scripted. Tool "a" has failed once, "b" is from the stored history,
# and "off" is disabled; a call that may be slow is counted under KEY.
class World(hosts.Host):
    def __init__(self, name, implementation):
        super().__init__(name, implementation)
        self.world = self
        self.take(self.health)

    def take(self, health):
        self.health, self.tracker_class = health, health.ToolHealthTracker
        self.clock = health.time = hosts.Clock()
        self.patched = (health, self.tracker_class, health._ToolState, health._Usage)
        self.original = [dict(vars(space)) for space in self.patched]

    # One more copy of the module.
    @property
    def copy(self):
        return self.load(enter=False)

    # Those things of this world that a function's parameters name, if they have no default.
    def arguments(self, function):
        wanted = function.__code__.co_argcount - len(function.__defaults__ or ())
        return [getattr(self, name) for name in function.__code__.co_varnames[:wanted]]

    def call(self, function):
        return function(*self.arguments(function))

    # Make everything anew, whatever has been patched.
    def reset(self):
        for space, original in zip(self.patched, self.original):
            if [*map(id, vars(space).values())] == [*map(id, original.values())]:
                continue
            if space is not self.health and self.implementation == hosts.MODULE:
                self.take(self.load())  # a class that was patched is not known to the module again
                break
            for name in vars(space).keys() - original:
                delattr(space, name)
            for name, value in original.items():
                if vars(space).get(name) is not value:
                    setattr(space, name, value)
            original.clear()
            original.update(vars(space))  # in their order now
        self.clock.__init__()
        self.limits, self.log = hosts.ToolsConfig(1, 1e12), []
        self.rows = [("a", 1, 0, None, None, None), ("b", 2, 2, "x", None, TIME)]
        self.row = (DOCUMENT,)
        self.tool, self.error, self.duration_ms = "a", "boom", 2.5  # arguments of the operations
        self.text, self.epoch, self.budget = TIME, 1.7e9, 5
        self.census = hosts.ThreadCensus(None, 12, {"pool": 11})
        self.timings = [dict.fromkeys(STATISTICS, number) for number in range(2)]
        self.db = hosts.Database(fetchall=lambda sql: self.rows, execute=None, executemany=None,
                                 fetchone=lambda sql, key: self.row)
        self.repository = types.SimpleNamespace(db=self.db)
        self.tracker = self.db.tracker = self.tracker_class(self.repository, self.limits)
        self.tracker.record_error("off", "broken")
        self.tracker.record_error("a", "boom")
        self.record, self.counts = self.tracker._state["a"], self.tracker._usage[KEY]
        self.db.calls.clear()
        self.warnings.clear()
        self.clock.reads = 0

    # All that can be seen of a case.
    def told(self, case):
        result = hosts.outcome(self.call, case)
        fields = [(name, hosts.typed(value)) for name, value in vars(self.tracker).items()
                  if name not in ("_repo", "_limits", "_lock")]
        seen = {f"tracker.{name}": value for name, value in fields}
        lock = bare(vars(self.tracker).get("_lock"))
        seen |= {"result": result, "fields": [name for name, _ in fields], "log": self.log,
                 "lock held": hosts.is_held(lock), "clock readings": self.clock.reads,
                 "calls": hosts.typed(self.db.calls), "warnings": self.warnings}
        return {name: OWN.sub("", repr(value)) for name, value in seen.items()}


class TwinCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.module = cls.enterClassContext(World("module_world", hosts.MODULE))
        cls.plain = cls.enterClassContext(World("plain_world", hosts.PLAIN))

    # Each case comes to the same in both worlds, each time a fresh one.
    def assertSame(self, *cases, **about):
        for case in cases:
            with self.subTest(source(case), **about):
                seen = []
                for world in (self.module, self.plain):
                    world.reset()
                    seen.append(world.told(case))
                module, plain = seen
                if module != plain:
                    self.fail("\n".join(differences(module, plain)))


# A line for each part that differs, from a little before the place where it does.
def differences(module, plain):
    for name in module | plain:
        one, other = module.get(name, "missing"), plain.get(name, "missing")
        start = max(0, len(os.path.commonprefix([one, other])) - 40)
        if one != other:
            yield f"{name}: module ...{one[start:][:160]}, plain ...{other[start:][:160]}"


# The line on which a function begins, to tell it from others.
def source(function):
    code = function.__code__
    return linecache.getline(code.co_filename, code.co_firstlineno).strip()


# The thing, with these attributes set.
def put(thing, **attributes):
    for name, value in attributes.items():
        setattr(thing, name, value)
    return thing


# What a value stands for that is not what it seems.
def bare(value):
    try:
        return object.__getattribute__(value, "stands_for")
    except AttributeError:
        return value
