"""Several interpreters, and the end of one: scenes that child processes play without a word.

For example, "subinterpreter while in use" uses the module, then a copy in a subinterpreter, ends
that one, and uses its own again.
"""

import _interpreters
import atexit
import contextlib
import itertools
import sqlite3
import sys
import threading
import time
import types
import unittest

from bench import hosts

from . import children
from .worlds import OPERATIONS, World

PLAY = "from tests import test_interpreters; test_interpreters.SCENES[{!r}]()".format
LOAD = "import sys; sys.path.insert(0, 'bench'); import hosts; hosts.Host()"
REFUSAL = "module host.tool_handlers.health does not support loading in subinterpreters"


def use(world):
    world.reset()
    for operation in OPERATIONS.values():
        with contextlib.suppress(sqlite3.OperationalError):  # which two of them ask for
            world.call(operation)


def copy(name="org.host", meanwhile=int):
    with World(name, hosts.MODULE) as world:
        use(world)
        meanwhile()
        use(world)


def subinterpreter(kind="legacy", code=PLAY("copy"), refusal=None):
    """A legacy interpreter shares the lock of the one that makes it."""
    interpreter = _interpreters.create(kind)
    error = _interpreters.run_string(interpreter, code)
    _interpreters.destroy(interpreter)
    assert (error and error.msg) == refusal, error


class Last:
    def __del__(self):
        with contextlib.suppress(ImportError):  # so late, Python can import nothing for datetime
            use(self.world)


def end_in_use():
    """The module is in a cycle that nothing breaks, and used by an exit handler and a destructor.
    """
    world = World("host", hosts.MODULE)
    use(world)
    world.health.keeps, world.tracker.keeps = world.tracker, world
    sys.modules["last"] = last = Last()
    last.world = world
    atexit.register(use, world)


def end_with_daemon_threads():
    """Threads in every operation, half of them waiting for a lock that is never released."""
    def for_ever(world, run):
        while True:
            with contextlib.suppress(BaseException):
                world.call(run)

    sys.setswitchinterval(1e-5)
    for name in ("free", "held"):
        world, lock = World(name, hosts.MODULE), threading.Lock()
        world.reset()
        world.health.is_slow_call = lambda tool, action: time.sleep(0.001)
        world.health.threading = types.SimpleNamespace(Lock=lambda lock=lock: lock)
        world.db.tracker = None  # or it would find the lock held by another thread
        world.tracker._lock = lock
        if name == "held":
            lock.acquire()
        for run in OPERATIONS.values():
            threading.Thread(target=for_ever, args=(world, run), daemon=True).start()
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
