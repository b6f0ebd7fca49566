"""The two report functions."""

from unittest import mock

from . import HealthCase, hosts

WARNING = (
    "The process holds {} threads, more than the {} its pools allow: threads are piling up. A thread that ran"
    " the local embedding model keeps a team of torch threads, as many as KAVRIN_EMBED_THREADS allows (0"
    " leaves torch's own size).")


class Reports(HealthCase):
    def test_performance_stats(self):
        keys = ("name", "count", "avg_ms", "p95_ms", "min_ms", "max_ms", "errors")
        one, two = ({key: object() for key in ("extra", *reversed(keys))} for _ in range(2))
        for records in ([], [one], [two, one], [one, one, two]):
            self.host.timings = iter(records)
            expected = {"tools": [{key: record[key] for key in keys} for record in records]}
            report = self.health.handle_get_tool_performance_stats()
            self.assertEqual(hosts.typed(report), hosts.typed(expected))
        for key in keys:
            self.host.timings = [one, {other: 1 for other in keys if other != key}]
            self.assertEqual(hosts.outcome(self.health.handle_get_tool_performance_stats),
                             ("raised", "KeyError", repr(key)))

    def test_thread_census(self):
        names = {"pool": 30, "MainThread": 1}
        for system, python, budget, warned in (
            (120, 40, 100, 120), (None, 130, 100, 130), (100, 150, 100, None), (90, 150, 100, None),
            (0, 150, 100, None), (0, 5, -1, 0), (None, 100, 100, None), (True, 0, 0.5, True),
        ):
            with self.subTest(system=system, python=python, budget=budget):
                expected = {"os": system, "python": python, "python_by_name": names, "budget": budget,
                            "warning": WARNING.format(warned, budget)}
                for key in ["os"] * (system is None) + ["warning"] * (warned is None):
                    del expected[key]
                census = hosts.ThreadCensus(system, python, names)
                with mock.patch.object(self.health, "thread_census", return_value=census) as taken:
                    given = self.health.thread_census_report(budget, census=census)
                    taken.assert_not_called()
                    measured = self.health.thread_census_report(budget)
                    taken.assert_called_once_with()
                self.assertEqual([hosts.typed(given), hosts.typed(measured)], [hosts.typed(expected)] * 2)
                self.assertIsNot(given["python_by_name"], names)
        falsy = type("Falsy", (hosts.ThreadCensus,), {"__len__": int})
        self.assertEqual(self.health.thread_census_report(5, falsy(None, 1, [("pool", 1)])),
                         {"python": 1, "python_by_name": {"pool": 1}, "budget": 5})
        for census in (5, falsy(None, None, {}), falsy(1, 1, 5)):
            self.assertRaises((AttributeError, TypeError), self.health.thread_census_report, 5, census)
