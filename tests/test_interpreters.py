"""Several interpreters, and the end of one: each in a child process that has to end cleanly and
without a word.
"""

import unittest

from . import children

USE = """
import itertools, sys
from tests import hosts
def use(host, tracker):
    tracker.record_call("a", "text", "ok", alias_hit=False, duration_ms=2.5)
    tracker.record_success("b"), tracker.record_error("a", "boom"), tracker.is_disabled("a")
    tracker.get_health_summary(), tracker.has_unsaved_changes, tracker.flush()
    host.health.thread_census_report(5), host.health.handle_get_tool_performance_stats()
    host.health._epoch(host.health._sqlite_time(1.7e9)), host.health._known("a", "text")
class Last:
    def __del__(self, use=use):
        try:
            use(self.host, self.tracker)
        except ImportError:
            pass  # so late, Python itself can import nothing for datetime or json
"""
COPY = USE + """
with hosts.Host("org.host") as host:
    use(host, host.tracker(limits=hosts.ToolsConfig(1)))
"""
LEGACY = """import _testcapi
assert _testcapi.run_in_subinterp({code!r}) == 0
"""
ISOLATED = """import _testinternalcapi as t, types
config = types.SimpleNamespace(use_main_obmalloc=False, allow_fork=False, allow_exec=False, allow_threads=True,
    allow_daemon_threads=False, check_multi_interp_extensions=True, gil="own")
assert t.run_in_subinterp_with_config({code!r}, config=config) == 0
"""
REFUSED = """
import sys
sys.path.insert(0, "tests")
import hosts
try:
    hosts.Host()
except ImportError as error:
    assert str(error) == "module host.tool_handlers.health does not support loading in subinterpreters", error
else:
    raise SystemExit("imported")
"""
EXITS = {
    "live": "tracker.cycle = host, tracker, use; host.health.keeps = tracker",
    "atexit": "import atexit; atexit.register(use, host, tracker)",
    "destructor": "last = Last(); last.host, last.tracker = host, tracker; sys.modules['zlast'] = last",
    "daemon": """
import threading, time, types
db = types.SimpleNamespace(fetchall=lambda sql: [], fetchone=lambda *_: None, execute=lambda *_: None, executemany=lambda *_: None)
def forever(work):
    while True:
        work()
quiet = host.health.ToolHealthTracker(types.SimpleNamespace(db=db), hosts.ToolsConfig(1, 0.0))
held = host.health.ToolHealthTracker(types.SimpleNamespace(db=db))
slow = host.health.ToolHealthTracker(types.SimpleNamespace(db=db))
slow.record_call("a", "text", "ok", alias_hit=False, duration_ms=1)
host.health.is_slow_call = lambda tool, action: time.sleep(0.001)
held._lock.acquire()
works = [lambda tracker=tracker, work=work: work(tracker) for tracker in (quiet, held, slow) for work in (
    lambda t: t.record_call("a", "text", "ok", alias_hit=False, duration_ms=1), lambda t: t.record_success("a"),
    lambda t: t.record_error("a", "boom"), lambda t: t.is_disabled("a"), lambda t: t.get_health_summary(),
    lambda t: t.flush(), lambda t: t.has_unsaved_changes, lambda t: type(t)(t._repo), lambda t: t._load_usage(),
    lambda t: host.health.thread_census_report(5), lambda t: host.health.handle_get_tool_performance_stats())]
sys.setswitchinterval(1e-5)
for work in works:
    threading.Thread(target=forever, args=(work,), daemon=True).start()
time.sleep(0.3)
""",
}


class Interpreters(unittest.TestCase):
    def test_copies_and_interpreters(self):
        for name, code in (("two copies", COPY + COPY.replace("org.host", "other") + COPY),
                           ("legacy alone", LEGACY.format(code=COPY) * 2), ("legacy first", LEGACY.format(code=COPY) + COPY),
                           ("legacy between", COPY + LEGACY.format(code=COPY) * 2 + COPY),
                           ("legacy while in use", COPY.replace("    use(host, host", f"    exec({LEGACY.format(code=COPY)!r})\n    use(host, host")),
                           ("isolated", ISOLATED.format(code=REFUSED) + COPY)):
            for options in ((), ("-X", "dev", "-W", "error")):
                with self.subTest(name, options=options):
                    children.check(self, code, *options)

    def test_exits(self):
        for name, code in EXITS.items():
            for options in ((), ("-X", "dev", "-W", "error")):
                with self.subTest(name, options=options):
                    children.check(self, f"{USE}\nhost = hosts.Host()\ntracker = host.tracker()\nuse(host, tracker)\n{code}", *options)
