"""The same case in two worlds, that of the module and that of its twin in plain Python.

What a case comes to and leaves behind must be the same in both, so bench/plain.py changes with a
rule. A case is a function whose parameters name things of the world: the module is `health`, a
tracker with a history `tracker`. Or it is an operation after changes by their places:

    after({"record.error_count": 5, "tracker._usage": Made(lambda counts: {9: counts})}, "summary")
"""

import json
import operator
import re
import types
import unittest

from bench import hosts

KEY = ("a", "text", "ok", False)
TIME = "2023-11-14 22:13:20"
ENTRY = {"tool": "a", "action": "text", "outcome": "ok", "alias_hit": False, "calls": 5,
         "timed_calls": 2, "total_ms": 6.25}
DOCUMENT = json.dumps([ENTRY, ENTRY | {"alias_hit": True}, ENTRY | {"tool": "gone"}])
STATISTICS = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors")
OPERATIONS = {
    "record_call": lambda tracker, tool, duration_ms: tracker.record_call(
        tool, "text", "ok", alias_hit=False, duration_ms=duration_ms),
    "record_new_call": lambda tracker: tracker.record_call(
        "new", None, "ok", alias_hit=True, duration_ms=None),
    "record_success": lambda tracker, tool: tracker.record_success(tool),
    "record_new_success": lambda tracker: tracker.record_success("new"),
    "record_error": lambda tracker, tool, error: tracker.record_error(tool, error),
    "is_disabled": lambda tracker, tool: tracker.is_disabled(tool),
    "is_off_disabled": lambda tracker: tracker.is_disabled("off"),
    "summary": lambda tracker: tracker.get_health_summary(),
    "_usage_rows": lambda tracker, tool: tracker._usage_rows(tool),
    "has_unsaved_changes": lambda tracker: tracker.has_unsaved_changes,
    "settings": lambda tracker: (tracker.limits, tracker.cooldown_s),
    "flush": lambda tracker: tracker.flush(),
    "flush_failing_at_once": lambda tracker, fail: fail(1) or tracker.flush(),
    "flush_failing_later": lambda tracker, fail: fail(2) or tracker.flush(),
    "_load": lambda tracker: tracker._load(),
    "_load_usage": lambda tracker: tracker._load_usage(),
    "construction": lambda tracker, repository: tracker.__init__(repository),
    "_known": lambda health, tool: health._known(tool, "text"),
    "_epoch": lambda health, text: health._epoch(text),
    "_sqlite_time": lambda health, epoch: health._sqlite_time(epoch),
    "census": lambda health, budget, census: health.thread_census_report(budget, census),
    "statistics": lambda health: health.handle_get_tool_performance_stats(),
}
ABSENT = object()  # as a change: the attribute is deleted
MAY_DIFFER = re.compile(r"0x[0-9a-f]+|id='[0-9]+'|<module .*?>|\b(?:module|plain)_world\b")


class Made:
    """A value that a function makes from the world's things."""

    def __init__(self, make):
        self.make = make

    def __repr__(self):
        code = self.make.__code__
        return f"made at {code.co_filename.rpartition('/')[2]}:{code.co_firstlineno}"


class World(hosts.Host):
    """Tool "a" has failed once, "b" is from the history, and "off" is disabled; a call that may be
    slow is counted under KEY.
    """

    def __init__(self, name, implementation):
        super().__init__(name, implementation)
        self.world = self
        self.use(self.health)

    def use(self, health):
        self.health, self.tracker_class = health, health.ToolHealthTracker
        self.clock = health.time = hosts.Clock()
        self.names, classes = dict(vars(health)), (
            self.tracker_class, health._ToolState, health._Usage)
        self.classes = {cls: dict(vars(cls)) for cls in classes}

    def reset(self):
        """Make everything anew, whatever has been patched."""
        vars(self.health).clear()
        vars(self.health).update(self.names)
        if any(vars(cls) != members for cls, members in self.classes.items()):
            self.use(self.load())
        self.clock.__init__()
        self.limits, self.log = hosts.ToolsConfig(1, 1e12), []
        self.rows = [("a", 1, 0, None, None, None), ("b", 2, 2, "x", None, TIME)]
        self.row = (DOCUMENT,)
        self.tool, self.error, self.duration_ms = "a", "boom", 2.5
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

    def change(self, changes):
        for path, value in changes.items():
            holder, _, name = path.rpartition(".")
            holder = operator.attrgetter(holder)(self)
            if isinstance(value, Made):
                value = self.call(value.make)
            elif type(value) in (dict, list, set):
                value = value.copy()  # the other world's turn is to come
            delattr(holder, name) if value is ABSENT else setattr(holder, name, value)

    def fail(self, number):
        """The database's call of that number, from now on, fails."""
        self.db.fail_at = len(self.db.calls) + number

    @property
    def copy(self):
        return self.load(enter=False)

    def arguments(self, function):
        wanted = function.__code__.co_argcount - len(function.__defaults__ or ())
        return [getattr(self, name) for name in function.__code__.co_varnames[:wanted]]

    def call(self, function):
        return function(*self.arguments(function))

    def observe(self, case):
        """A line for each part that can be compared."""
        seen = hosts.outcome(self.call, case)
        for name, value in vars(self.tracker).items():
            if name not in ("_repo", "_limits", "_lock"):
                seen += hosts.parts(f"tracker.{name}", value)
        lock = unwrap(vars(self.tracker).get("_lock"))
        seen += hosts.parts("left", {
            "lock held": hosts.is_held(lock), "clock readings": self.clock.reads,
            "log": self.log, "calls": self.db.calls, "warnings": self.warnings})
        return MAY_DIFFER.sub("", "\n".join(seen)).splitlines()


class TwinCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.module = cls.enterClassContext(World("module_world", hosts.MODULE))
        cls.plain = cls.enterClassContext(World("plain_world", hosts.PLAIN))

    def assertSame(self, run, *name):
        """The case comes to the same in both worlds."""
        with self.subTest(", ".join(map(str, name))):
            seen = []
            for world in (self.module, self.plain):
                world.reset()
                seen.append(world.observe(run))
            if seen[0] != seen[1]:
                self.fail("\n".join(hosts.differences(*seen)))


def after(changes, operation):
    """The case that does the operation of that name after changes to the world."""
    def run(world):
        world.change(changes)
        return world.call(OPERATIONS[operation])
    return run


def with_attributes(thing, **attributes):
    for name, value in attributes.items():
        setattr(thing, name, value)
    return thing


def unwrap(value):
    """What an object stands for that is in another's place."""
    try:
        return object.__getattribute__(value, "stands_for")
    except AttributeError:
        return value
