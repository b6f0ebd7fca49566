"""The commands that a newcomer types first, where something is missing or wrong.

Each runs on a PATH that holds only what the test puts there: links to a few tools, and interpreters
that are small shell scripts. For example, with a `python3.13` that answers as version 3.12.1
`script/bootstrap` has to name that path and that version, and the option that names another
interpreter.
"""

import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import unittest
from pathlib import Path

import sample_host

from . import hosts

TOOLS = "bash basename cat command dirname env g++ id make pwd rm sed sh uname".split()
SCRIPTS = [
    script for script in hosts.CHECKOUT.joinpath("script").iterdir() if script.suffix != ".sh"
]


def answering(version, header):
    """An interpreter that answers what `script/bootstrap` asks it."""
    return f"printf '%s\\n' {version} {header} {'found' if Path(header).exists() else 'missing'}"


class Commands(unittest.TestCase):
    def setUp(self):
        self.directory = Path(
            self.enterContext(tempfile.TemporaryDirectory(prefix="with a space "))
        )
        self.checkout, self.path = self.directory / "check out", self.directory / "bin"
        left_out = shutil.ignore_patterns("build", ".git", "__pycache__", "*.so")
        shutil.copytree(hosts.CHECKOUT, self.checkout, ignore=left_out)
        self.path.mkdir()
        for tool in TOOLS:
            if found := shutil.which(tool):
                (self.path / tool).symlink_to(found)
        self.add("cmake", f'echo "cmake was asked: $*"; exec {shutil.which("false")}')

    def add(self, name, script):
        (self.path / name).write_text(f"#!/bin/sh\n{script}\n")
        (self.path / name).chmod(0o755)

    def run_script(self, *words):
        environment = {"PATH": str(self.path), "HOME": str(self.directory)}
        return subprocess.run(
            words, cwd=self.checkout, env=environment, capture_output=True, text=True
        )

    def test_why_an_interpreter_will_not_do(self):
        header = sysconfig.get_path("include") + "/Python.h"
        good, no_header = answering("3.13.5", header), answering("3.13.5", "/nowhere/Python.h")
        for case, interpreters, words in (
            ("none", {}, "python3.13 is not on the PATH"),
            (
                "another version",
                {"python3.13": answering("3.12.1", header)},
                "bin/python3.13 is Python 3.12.1",
            ),
            (
                "no headers",
                {"python3.13": no_header},
                "its headers are missing (/nowhere/Python.h)",
            ),
            (
                "its library is missing",
                {"python3.13": "echo libpython3.13.so.1.0: cannot open; exit 127"},
                "bin/python3.13 does not start: libpython3.13.so.1.0: cannot open",
            ),
            (
                "a launcher without one",
                {"python3.13": "echo 'command not found: python3.13' >&2; exit 127"},
                "does not start: command not found: python3.13",
            ),
            ("under another name", {"python3": "echo 3.13.5"}, "bin/python3 is Python 3.13.5"),
        ):
            with self.subTest(case):
                for name, script in interpreters.items():
                    self.add(name, script)
                ended = self.run_script("script/bootstrap")
                self.assertEqual((ended.returncode, ended.stdout), (1, ""))
                self.assertIn(words, ended.stderr)
                self.assertIn("-DPython_EXECUTABLE=PATH", ended.stderr)
                for name in interpreters:
                    (self.path / name).unlink()
        self.add("python3.13", good)
        self.assertIn(
            "cmake was asked: --preset release", self.run_script("script/bootstrap").stderr
        )

    def test_distribution_without_python(self):
        self.add("id", "echo 0")
        self.add("apt-get", "true")
        self.add("apt-cache", "exit 100")
        ended = self.run_script("script/bootstrap")
        self.assertEqual(ended.returncode, 1)
        self.assertIn("The packages of this distribution have no python3.13", ended.stderr)

    def test_moved_checkout(self):
        self.add("python3.13", answering("3.13.5", sysconfig.get_path("include") + "/Python.h"))
        cache = self.checkout / "build" / "release" / "CMakeCache.txt"
        cache.parent.mkdir(parents=True)
        cache.write_text("CMAKE_HOME_DIRECTORY:INTERNAL=/an/older/place\n")
        self.assertIn(
            "was made for the checkout in /an/older/place",
            self.run_script("script/bootstrap").stdout,
        )
        self.assertFalse(cache.exists())

    def test_help_and_wrong_words(self):
        for script in SCRIPTS:
            with self.subTest(script.name):
                ended = self.run_script(f"script/{script.name}", "--help")
                self.assertEqual((ended.returncode, ended.stderr), (0, ""))
                self.assertTrue(ended.stdout.startswith(f"script/{script.name}"), ended.stdout)
                if script.name != "bench":  # whose words are those of the benchmark itself
                    ended = self.run_script(f"script/{script.name}", "nonsense")
                    self.assertEqual((ended.returncode, ended.stdout), (2, ""))

    def test_one_version(self):
        files = {
            name: hosts.CHECKOUT.joinpath(name).read_text()
            for name in ("CMakeLists.txt", "CHANGELOG.md")
        }
        self.assertEqual(
            re.search(r"project\(health VERSION ([\d.]+)", files["CMakeLists.txt"])[1],
            sample_host.__version__,
        )
        self.assertEqual(
            re.search(r"## \[([\d.]+)", files["CHANGELOG.md"])[1], sample_host.__version__
        )


@unittest.skipIf(
    "ASAN_OPTIONS" in os.environ or hasattr(sys, "gettotalrefcount"),
    "once is enough: in the release",
)
class Wheel(unittest.TestCase):
    HOST = """
        cmake_minimum_required(VERSION 3.25)
        project(myhost LANGUAGES CXX)
        set(CMAKE_BUILD_TYPE None)
        add_subdirectory("{checkout}" health)
        if(TEST test_tracker OR TARGET floor OR CMAKE_INTERPROCEDURAL_OPTIMIZATION_RELEASE)
            message(FATAL_ERROR "not the module alone")
        endif()
    """

    def test_host_that_adds_the_directory(self):
        """As a build backend does it: another project adds this one, names the interpreter,
        installs a component.
        """
        directory = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="a host ")))
        (directory / "CMakeLists.txt").write_text(self.HOST.format(checkout=hosts.CHECKOUT))
        for words in (
            ("-S", directory, "-B", directory / "build", f"-DPython_EXECUTABLE={sys.executable}"),
            ("--build", directory / "build", "--parallel", "2"),
            (
                "--install",
                directory / "build",
                "--component",
                "health",
                "--prefix",
                directory / "myhost",
            ),
        ):
            ended = subprocess.run(["cmake", *words], capture_output=True, text=True)
            self.assertEqual(ended.returncode, 0, ended.stdout + ended.stderr)
        installed = sorted(
            file.name for file in directory.joinpath("myhost").rglob("*") if file.is_file()
        )
        module = f"health{sysconfig.get_config_var('EXT_SUFFIX')}"
        self.assertEqual(installed, sorted([module, "health.pyi"]))
        with hosts.Host("wheel", str(directory / "myhost" / "tool_handlers" / module)) as host:
            self.assertEqual(host.tracker().is_disabled("a"), (False, None))
