import faulthandler
import unittest

from bench import hosts


# A dead-lock shows where it is before CTest ends the test, for which CMakePresets.json has 15
# minutes.
faulthandler.dump_traceback_later(14 * 60, exit=True)


class HealthCase(unittest.TestCase):
    """A host package of its own for each test, its module on a scripted clock."""

    def setUp(self):
        self.host = self.enterContext(hosts.Host())
        self.health = self.host.health
        self.clock = self.health.time = hosts.Clock()
