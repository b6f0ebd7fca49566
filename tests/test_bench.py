# The benchmark runs, briefly, and finds that both of its sides give the same answers.

import subprocess
import sys
import unittest
from pathlib import Path


class Bench(unittest.TestCase):
    def test_both_sides_agree(self):
        bench = Path(__file__).resolve().parent.parent / "bench" / "bench.py"
        run = subprocess.run([sys.executable, bench, "--quick"], capture_output=True, text=True)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        self.assertRegex(run.stdout, r"(?s)is_disabled, healthy.*record_call.*flush.*construction")
