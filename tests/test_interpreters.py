"""Several interpreters, and the end of one: scenes that child processes play without a word.
The table SCENES names them all. For example, "subinterpreter while in use" loads the module, then
loads and uses a copy in a subinterpreter, ends that one, and uses its own. Afterwards the process
has to end by itself, with status 0 and nothing printed.
"""

import _interpreters
import atexit
import contextlib
import itertools
import sys
import threading
import time
import unittest

from bench import hosts

from . import children

PLAY = "from tests import test_interpreters; test_interpreters.SCENES[{!r}]()".format
LOAD = "import sys; sys.path.insert(0, 'bench'); import hosts; hosts.Host()"
REFUSAL = "module host.tool_handlers.health does not support loading in subinterpreters"


def operations(health, tracker):
    return (lambda: tracker.record_call("a", "text", "ok", alias_hit=False, duration_ms=2.5),
            lambda: tracker.record_success("a"), lambda: tracker.record_error("a", "boom"),
            lambda: tracker.is_disabled("a"), lambda: tracker.has_unsaved_changes,
            tracker.get_health_summary, tracker.flush, lambda: type(tracker)(tracker._repo),
            health.handle_get_tool_performance_stats, lambda: health.thread_census_report(5),
            lambda: health._epoch(health._sqlite_time(1.7e9)), lambda: health._known("a", "text"))


def use(operations):
    for operation in operations:
        operation()


def copy(name="org.host", meanwhile=int):
    with hosts.Host(name) as host:
        meanwhile()
        use(operations(host.health, host.tracker(limits=hosts.ToolsConfig(1))))


def subinterpreter(kind="legacy", code=PLAY("copy"), refusal=None):
    """A legacy interpreter shares the lock of the one that makes it."""
    interpreter = _interpreters.create(kind)
    error = _interpreters.run_string(interpreter, code)
    _interpreters.destroy(interpreter)
    assert (error and error.msg) == refusal, error


class Last:
    def __del__(self):
        with contextlib.suppress(ImportError):  # so late, Python can import nothing for datetime
            use(self.operations)


def end_in_use():
    """The module is in a cycle that nothing breaks, and used by an exit handler and a destructor.
    """
    host = hosts.Host()
    host.health.keeps = tracker = host.tracker()
    sys.modules["last"] = last = Last()
    last.operations = tracker.keeps = operations(host.health, tracker)
    use(last.operations)
    atexit.register(use, last.operations)


def end_with_daemon_threads():
    """Threads in every operation, half of them waiting for a lock that is never released."""
    host = hosts.Host()
    host.health.is_slow_call = lambda tool, action: time.sleep(0.001)
    database = hosts.Database(fetchall=(), fetchone=None, execute=None, executemany=None)
    free, held = host.tracker(database, hosts.ToolsConfig(1, 0.0)), host.tracker(database)
    database.tracker = None  # or it would see a lock that another thread holds
    held._lock.acquire()
    sys.setswitchinterval(1e-5)
    for operation in operations(host.health, free) + operations(host.health, held):
        forever = itertools.repeat(operation)
        threading.Thread(target=use, args=(forever,), daemon=True).start()
    time.sleep(0.3)


SCENES = {
    "copy": copy,
    "copies": lambda: (copy(), copy("other"), copy()),
    "subinterpreters": lambda: (subinterpreter(), copy(), subinterpreter(), copy()),
    "subinterpreter while in use": lambda: copy(meanwhile=subinterpreter),
    "isolated subinterpreter": lambda: (subinterpreter("isolated", LOAD, REFUSAL), copy()),
    "end in use": end_in_use,
    "end with daemon threads": end_with_daemon_threads}


class Interpreters(unittest.TestCase):
    def test_scenes(self):
        for scene, options in itertools.product(SCENES, ((), ("-X", "dev", "-W", "error"))):
            with self.subTest(scene, options=options):
                children.check(self, PLAY(scene), *options)
