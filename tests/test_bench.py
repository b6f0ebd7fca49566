"""The benchmark runs, briefly, from another directory, and finds that both of its sides give the
same answers.
"""

import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from bench import hosts


class Bench(unittest.TestCase):
    def test_both_sides_agree(self):
        directory = self.enterContext(tempfile.TemporaryDirectory())
        bench = hosts.CHECKOUT / "bench/bench.py"
        command = [sys.executable, bench, "--quick", "--runs", "2", "--json", "figures"]
        run = subprocess.run(command, cwd=directory, capture_output=True, text=True)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        figures = json.loads(Path(directory, "figures").read_text())
        answered = {name: calls for name, _, calls, *_ in figures["served"]}
        self.assertEqual(answered.pop("written through, database locked"), 0)
        self.assertGreater(min(answered.values()), 0, answered)
