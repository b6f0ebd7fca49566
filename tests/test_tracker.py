"""Recording, disabling, the cooldown and the summary, in memory alone."""

import dataclasses
from unittest import mock

from . import HealthCase, hosts

T = 1_700_000_000.0  # the clock's start; the times of a table are seconds after it


class Recording(HealthCase):
    def test_disabling_and_cooldown(self):
        """Steps on a tool: s(uccess), e(rror), ? is it disabled, c(lear the marks), seconds on the
        clock.
        """
        off, on = (True, "E"), (False, None)
        for after, cooldown, steps, answers, record, marked in (
            (3, 60, "+1 s", [], (1, 0, None, None, 1, 0), True),
            (3, 60, "e e +2 e", [], (3, 3, "E", 2, 2, 3), True),
            (3, 60, "e e e +5 e", [], (4, 4, "E", 5, 5, 4), True),
            (3, 60, "e e s e e c ?", [on], (5, 4, "E", None, 0, 2), False),
            (3, 60, "e e e +1 s ?", [on], (4, 3, "E", None, 1, 0), True),
            (3, 60, "e e e c +59.5 ?", [off], (3, 3, "E", 0, 0, 3), False),
            (3, 60, "e e e c +60 ?", [on], (3, 3, "E", None, 60, 0), True),
            (3, 60, "e e e +60 ? c +1 ?", [on, on], (3, 3, "E", None, 60, 0), False),
            (3, 60, "e e e +60 ? e e ? e ?", [on, on, off], (6, 6, "E", 60, 60, 3), True),
            (3, 60, "e e e -10 ? +69 ? +1 ?", [off, off, on], (3, 3, "E", None, 60, 0), True),
            (3, 0, "e e e -1 ? +1 ?", [off, on], (3, 3, "E", None, 0, 0), True),
            (0, 60, "s e ?", [off], (2, 1, "E", 0, 0, 1), True),
        ):
            with self.subTest(steps, after=after, cooldown=cooldown):
                self.clock.now, seen = T, []
                tracker = self.host.tracker(limits=hosts.ToolsConfig(after, cooldown))
                for step in steps.split():
                    match step:
                        case "s": tracker.record_success("a")
                        case "e": tracker.record_error("a", "E")
                        case "?": seen.append(tracker.is_disabled("a"))
                        case "c": tracker._dirty.clear()
                        case _: self.clock.now += float(step)
                state = dataclasses.astuple(tracker._state["a"])
                times = [None if time is None else time - T for time in state[3:5]]
                self.assertEqual((seen, (*state[:3], *times, state[5]), tracker._dirty),
                                 (answers, record, {"a"} if marked else set()))
                self.assertEqual((tracker._usage, tracker._usage_dirty), ({}, False))

    def test_error_texts(self):
        for error, stored in (("", ""), (None, ""), ("é" * 500, "é" * 500), ("x" * 501, "x" * 500),
                              ("x" * 499 + "\U0001f600yz", "x" * 499 + "\U0001f600"), ("a\0b", "a\0b")):
            tracker = self.host.tracker(limits=hosts.ToolsConfig(1))
            tracker.record_error("unheard of", error)
            self.assertEqual(tracker.is_disabled("unheard of"), (True, stored))

    def test_usage_counts(self):
        tracker, usage = self.host.tracker(), self.health._Usage
        for action, alias, ms in (
                (None, False, None), ("", False, 0.0), (None, True, 2), (None, False, 12.5)):
            self.assertIsNone(tracker.record_call("a", action, "ok", alias_hit=alias, duration_ms=ms))
        self.assertEqual(hosts.typed(tracker._usage), hosts.typed({
            ("a", None, "ok", False): usage(2, 1, 12.5), ("a", "", "ok", False): usage(1, 1, 0.0),
            ("a", None, "ok", True): usage(1, 1, 2.0)}))
        self.assertEqual((tracker._state, tracker._dirty, tracker._usage_dirty), ({}, set(), True))

    def test_the_lock(self):
        """The critical sections of each operation, and the host's services run in (+) or outside
        (-) one.
        """
        for call, expected in (
            ("is_disabled('a')", "lock"), ("is_disabled('off')", "lock +clock +cooldown"),
            ("limits", ""), ("cooldown_s", "-cooldown"), ("has_unsaved_changes", "lock"),
            ("record_success('a')", "lock +clock"), ("record_error('a', 'E')", "lock +clock +after"),
            ("record_call('a', 5, 'ok', alias_hit=True, duration_ms=1)", "lock"),
            ("get_health_summary()", "lock +slow"), ("_usage_rows('a')", "-slow"), ("flush()", "lock lock"),
            ("_flush_usage()", "lock"), ("_flush_health()", "lock"), ("_load()", "lock"),
            ("_load_usage()", "lock"),
        ):
            with self.subTest(call):
                self.health.time, seen, held = self.clock, [], []
                tracker, lock = self.host.tracker(limits=hosts.ToolsConfig(1)), mock.MagicMock()
                lock.__enter__.side_effect = lambda *_: seen.append("lock") or held.append(1)
                lock.__exit__.side_effect = lambda *_: bool(held.pop()) and None
                lock.locked = lambda: bool(held)
                tracker.record_call("a", "text", "ok", alias_hit=False, duration_ms=None)
                tracker.record_success("a")
                tracker.record_error("off", "E")

                def service(name, answer):
                    return lambda *_: seen.append("-+"[len(held)] + name) or answer

                tracker._lock, self.health.is_slow_call = lock, service("slow", True)
                self.health.time = mock.Mock(time=service("clock", T))
                tracker._limits = type("Limits", (), {
                    "disable_after_errors": property(service("after", 1)),
                    "disable_cooldown_s": property(service("cooldown", 1))})()
                eval(f"tracker.{call}")
                self.assertEqual((" ".join(seen), held), (expected, []))


class Summary(HealthCase):
    def test_ranking(self):
        """Most errors first, then most calls; ties stay in the order of the state, then of the
        counts.
        """
        for states, usages, order in (
            ("", "", ""), ("alpha 10 3, beta 50 3, gamma 100 0", "", "beta alpha gamma"),
            ("z 1 1, b 1 1, y 1 1", "", "z b y"), ("z 0 0", "y b z y a", "z y b a"), ("z -1 0", "y", "y z"),
        ):
            tracker = self.host.tracker()
            for name, calls, errors in map(str.split, filter(None, states.split(", "))):
                tracker._state[name] = self.health._ToolState(int(calls), int(errors))
            for number, name in enumerate(usages.split()):
                tracker._usage[name, str(number), "ok", False] = self.health._Usage(1)
            before = hosts.state_of(tracker)
            self.assertEqual(" ".join(it["tool_name"] for it in tracker.get_health_summary()), order)
            self.assertEqual(hosts.state_of(tracker), before)

    def test_rows(self):
        tracker, calls = self.host.tracker(), []
        self.health.is_slow_call = lambda *call: calls.append(call) or len(calls)
        for *key, count in (
            ("a", "zeta", "ok", False, 5), ("b", None, "ok", True, 1), ("a", None, "ok", True, 5),
            ("a", None, "ok", False, 5), ("a", "Al", "ok", False, 5), ("a", "la", "ok", False, 9),
            ("a", None, "er", True, 5), ("a", "é", "ok", False, 5), ("a", "None", "ok", True, 5),
        ):
            tracker._usage[tuple(key)] = self.health._Usage(count)
        rows = [tuple(row.values()) for row in tracker._usage_rows("a")]
        self.assertEqual([(action, outcome, alias, slow) for action, outcome, alias, _, _, slow in rows], [
            ("la", "ok", False, 5), ("Al", "ok", False, 4), (None, "er", True, 6), (None, "ok", False, 3),
            (None, "ok", True, 2), ("None", "ok", True, 8), ("zeta", "ok", False, 1), ("é", "ok", False, 7)])
        self.assertEqual(calls, [key[:2] for key in tracker._usage if key[0] == "a"])

    def test_whole_records(self):
        tracker = self.host.tracker(limits=hosts.ToolsConfig(1, 5))
        tracker.record_error("off", "boom")
        tracker.record_call("a", "text", "ok", alias_hit=True, duration_ms=10)
        self.clock.now += 100
        row = {"action": "text", "outcome": "ok", "alias_hit": True, "calls": 1, "avg_ms": 10.0, "slow": True}
        self.assertEqual(hosts.typed(tracker.get_health_summary()), hosts.typed([
            {"tool_name": "off", "call_count": 1, "error_count": 1, "last_error": "boom", "disabled": True,
             "disabled_at": "2023-11-14 22:13:20", "updated_at": "2023-11-14 22:13:20", "usage": []},
            {"tool_name": "a", "call_count": 0, "error_count": 0, "last_error": None, "disabled": False,
             "disabled_at": None, "updated_at": "1970-01-01 00:00:00", "usage": [row]}]))

    def test_mean(self):
        for timed, total, mean in (
                (0, 5.0, "None"), (3, 10, "3.33"), (1, 2.675, "2.67"), (8, 1.0, "0.12"), (1, 3, "3.0"),
                (1, 0.375, "0.38"), (1, float("inf"), "inf"), (1, 1e300, "1e+300")):
            tracker = self.host.tracker()
            tracker._usage["a", None, "ok", False] = self.health._Usage(9, timed, total)
            self.assertEqual(repr(tracker._usage_rows("a")[0]["avg_ms"]), mean)
