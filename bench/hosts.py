"""Throw-away host packages, each with its own copy of the module, and the services around it.

Needs nothing but the standard library and no test framework: child processes and the benchmark
use it too. For example:

    with hosts.Host("myhost") as host:
        tracker = host.tracker(limits=hosts.ToolsConfig(disable_after_errors=1))
        tracker.record_error("search", "boom")
        assert host.health._known("search", None) is False
"""

import dataclasses
import functools
import importlib.util
import itertools
import logging
import os
import sqlite3
import sys
import sysconfig
import types
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parent.parent
RELEASE = CHECKOUT / "build/release" / f"health{sysconfig.get_config_var('EXT_SUFFIX')}"
MODULE = os.environ.get("HEALTH_MODULE", str(RELEASE))  # the file of the module under test
PLAIN = str(CHECKOUT / "bench/plain.py")  # its twin in plain Python

SCHEMA = """
    CREATE TABLE IF NOT EXISTS tool_health (
        tool_name TEXT PRIMARY KEY, call_count INTEGER, error_count INTEGER, last_error TEXT,
        disabled_at TEXT, updated_at TEXT);
    CREATE TABLE IF NOT EXISTS schema_info (key TEXT PRIMARY KEY, value TEXT);
"""

ToolsConfig = dataclasses.make_dataclass(
    "ToolsConfig", [("disable_after_errors", int, 3), ("disable_cooldown_s", float, 60.0)])
ThreadCensus = dataclasses.make_dataclass(
    "ThreadCensus", ["os_threads", "python_total", "python_threads"])


class Tool(frozenset):
    """A registry entry, the set of its actions; an action's name may be empty."""

    def action(self, name):
        return name if name in self else None


class Clock:
    """Stands in for the module's ``time``: readings answer ``now``, or raise it."""

    def __init__(self, now=1_700_000_000.0):
        self.now, self.reads = now, 0

    def time(self):
        self.reads += 1
        if isinstance(self.now, BaseException):
            raise self.now.with_traceback(None)  # or that would grow
        return self.now


class LockHeld(BaseException):
    """The tracker waited for its database with its lock held. No handler of ``Exception`` swallows
    it."""


class Database:
    """The methods that a tracker calls; ``calls`` keeps every call in order.

    ``answers`` says by method what a call comes to: a callable is called for it, an exception is
    raised. The call whose number is ``fail_at``, counted from 1, raises
    sqlite3.OperationalError.
    """

    def __init__(self, **answers):
        self.answers, self.calls, self.fail_at, self.tracker = answers, [], None, None

    def __getattr__(self, method):
        if method not in self.answers:
            raise AttributeError(method)
        return functools.partial(self._call, method)

    def _call(self, method, *arguments):
        if self.tracker and is_held(self.tracker._lock):
            raise LockHeld(method)
        self.calls.append((method, *arguments))
        if len(self.calls) == self.fail_at:
            raise sqlite3.OperationalError("injected")
        answer = self.answers[method]
        if callable(answer):
            answer = answer(*arguments)
        if isinstance(answer, BaseException):
            raise answer.with_traceback(None)  # or that would grow
        return answer


def is_held(lock):
    """Whether a lock of any kind is held; by the calling thread if it can be taken repeatedly."""
    return (getattr(lock, "_is_owned", None) or getattr(lock, "locked", bool))()


class Host(logging.Handler):
    """A host package in sys.modules, and in ``health`` its copy of the module, until the ``with``
    block ends.

    ``warnings`` collects what the module logs, as (format, arguments).
    """

    def __init__(self, name="host", implementation=None, load=True):
        super().__init__()
        self.implementation = implementation or MODULE
        self.full_name = f"{name}.tool_handlers.health"
        self.added, self.connections, self.warnings, self.timings = [], [], [], []
        tools = {"a": Tool(("text", "")), "b": Tool(("text", "é")), "c": Tool()}
        census = functools.partial(ThreadCensus, 7, 3, {"MainThread": 1, "pool": 2})
        collector = types.SimpleNamespace(get_all_stats=lambda: self.timings)
        outer = itertools.accumulate(name.split("."), "{}.{}".format)
        for package in (*outer, f"{name}.utils", f"{name}.tool_handlers"):
            self.add(package, __path__=[])
        self.add(f"{name}.config", ToolsConfig=ToolsConfig)
        self.add(f"{name}.tool_registry", TOOLS=tools)
        self.add(f"{name}.tool_schemas", is_slow_call=lambda tool, action: action == "text")
        self.add(f"{name}.utils.process", ThreadCensus=ThreadCensus, thread_census=census)
        self.add(f"{name}.utils.timing", get_timing_collector=lambda: collector)
        if load:
            self.health = self.load()

    def add(self, name, **attributes):
        if name not in sys.modules:  # else an outer package that another host brought
            module = types.ModuleType(name)
            vars(module).update(attributes)
            self.bind(name, module)

    def bind(self, name, module):
        sys.modules[name] = module
        self.added.append(name)
        parent, _, child = name.rpartition(".")
        if parent:
            setattr(sys.modules[parent], child, module)

    def load(self, enter=True, **attributes):
        """Import the module the way the import machinery does, or as a harness that does not enter
        it in sys.modules. A second time gives a second copy. The module has the attributes from the
        start.
        """
        if not Path(self.implementation).exists():
            raise FileNotFoundError(f"{self.implementation} is not built; run script/bootstrap")
        spec = importlib.util.spec_from_file_location(self.full_name, self.implementation)
        module = importlib.util.module_from_spec(spec)
        vars(module).update(attributes)
        if enter:
            self.bind(self.full_name, module)
        spec.loader.exec_module(module)
        module.logger.propagate, module.logger.handlers = False, [self]
        return module

    def emit(self, record):
        self.warnings.append((record.msg, record.args))

    def database(self, path=":memory:"):
        """SQLite behind the methods that a tracker calls."""
        connection = sqlite3.connect(path, isolation_level=None, check_same_thread=False)
        connection.executescript(SCHEMA)
        self.connections.append(connection)
        run = connection.execute
        return Database(fetchall=lambda sql: run(sql).fetchall(), execute=run,
                        fetchone=lambda sql, parameters: run(sql, parameters).fetchone(),
                        executemany=connection.executemany)

    def tracker(self, db=None, limits=None, cls=None):
        """A tracker whose database knows it before the history is read, and so can watch its
        lock.
        """
        db = db or self.database()
        cls = cls or self.health.ToolHealthTracker
        db.tracker = tracker = cls.__new__(cls)
        tracker.__init__(types.SimpleNamespace(db=db), limits)
        return tracker

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for connection in self.connections:
            connection.close()
        for name in reversed(self.added):
            sys.modules.pop(name, None)
            logging.Logger.manager.loggerDict.pop(name, None)
            parent, _, child = name.rpartition(".")
            if parent in sys.modules:
                vars(sys.modules[parent]).pop(child, None)


def parts(path, value):
    """A line for each part of a value, with its path and its type, by which two copies of the
    module can be compared: 1, True and 1.0 differ.
    """
    kind, named = type(value).__name__, None
    if isinstance(value, dict):
        named = [(f"{path}[{key!r}]", item) for key, item in value.items()]
    elif isinstance(value, (list, tuple)):
        named = [(f"{path}[{number}]", item) for number, item in enumerate(value)]
    elif dataclasses.is_dataclass(value) and not isinstance(value, type):
        fields = (field.name for field in dataclasses.fields(value))
        named = [(f"{path}.{name}", getattr(value, name, "absent")) for name in fields]
    elif isinstance(value, set):
        value = sorted(map(repr, value))
    yield f"{path}: {kind} {repr(value) if named is None else len(named)}"
    for name, item in named or ():
        yield from parts(name, item)


def differences(module, plain):
    """A line for each part that differs, shown from a little before the place where it does."""
    seen = [dict(line.partition(": ")[::2] for line in lines) for lines in (module, plain)]
    for path in seen[0] | seen[1]:
        one, other = (texts.get(path, "nothing") for texts in seen)
        if one != other:
            start = max(0, len(os.path.commonprefix([one, other])) - 40)
            shown = ("..." * (start > 0) + f"{text[start:][:80]} ({len(text)} characters)"
                     for text in (one, other))
            yield f"{path}: module {next(shown)}, plain {next(shown)}"
    if seen[0] == seen[1] and module != plain:
        yield "the order of the parts differs"


def outcome(function, *args, **kwargs):
    """What a call comes to: the parts of its result, or the kind and text of what it raises, the
    name that this is about, and the kinds of those errors that were being handled then.
    """
    try:
        return [*parts("result", function(*args, **kwargs))]
    except BaseException as error:
        told = [f"raised: {type(error).__name__}: {error}"]
        if isinstance(error, NameError):
            told.append(f"name: {error.name}")
        while error := error.__context__:
            told.append(f"during: {type(error).__name__}")
        return told
