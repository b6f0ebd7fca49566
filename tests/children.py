"""Child processes: for what may end the process, and for what counts only at its exit."""

import subprocess
import sys
from pathlib import Path


def check(case, code, *options, timeout=600):
    """Run code in a fresh interpreter, here in the checkout: it has to end by itself, cleanly and
    in silence.
    """
    command = [sys.executable, "-X", "faulthandler", *options, "-c", code]
    child = subprocess.run(command, cwd=Path(__file__).parent.parent, capture_output=True,
                           text=True, timeout=timeout)
    case.assertEqual((child.returncode, child.stdout + child.stderr), (0, ""))
