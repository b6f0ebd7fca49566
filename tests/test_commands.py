"""The commands that a newcomer types first, where something is missing or wrong.

Each runs with a PATH that holds only what the test puts there: links to a few tools, and shell
scripts in the place of others.
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import sample_host

from bench import hosts


TOOLS = "bash basename cat command dirname env g++ make mkdir pwd readlink rg rm sed sh".split()
GOOD = f"'{sys.executable}' \"$@\""  # the script of an interpreter that will do


class Commands(unittest.TestCase):
    def setUp(self):
        self.checkout = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="with a space ")))
        self.path, self.cache = self.checkout / "bin", self.checkout / "build/release"
        shutil.copytree(hosts.CHECKOUT / "script", self.checkout / "script")
        self.path.mkdir()
        self.cache.mkdir(parents=True)
        for tool in filter(shutil.which, TOOLS):
            (self.path / tool).symlink_to(shutil.which(tool))
        self.put("id", "echo 0")
        self.put("cmake", 'echo "cmake was asked: $*"; exit 1')

    def put(self, name, script):
        (self.path / name).write_text(f"#!/bin/sh\n{script}\n")
        (self.path / name).chmod(0o755)

    def configured(self, checkout, interpreter):
        """An earlier build of a checkout, for an interpreter."""
        (self.cache / "CMakeCache.txt").write_text(
            f"CMAKE_HOME_DIRECTORY:INTERNAL={checkout}\nPython_EXECUTABLE:FILEPATH={interpreter}\n")

    def run_script(self, status, *command):
        ended = subprocess.run(command, executable=self.checkout / "script" / command[0], text=True,
                               cwd=self.path, env={"PATH": str(self.path)}, capture_output=True)
        self.assertEqual(ended.returncode, status, ended.stderr)
        return ended.stdout, ended.stderr

    def bootstrap_fails(self, *reasons):
        printed, complaint = self.run_script(1, "bootstrap")
        for reason in reasons:
            self.assertIn(reason, complaint)
        return printed

    def test_why_an_interpreter_will_not_do(self):
        for name, script, reason in (
                ("python", GOOD, "python3.13 is not on the PATH"),
                ("python3", "echo 3.13.5", "bin/python3 is Python 3.13.5"),
                ("python3.13", GOOD + "| sed s/^3.13.*/3.12.1/", "bin/python3.13 is Python 3.12.1"),
                ("python3.13", GOOD + "| sed s/found/missing/", "headers are missing (/"),
                ("python3.13", "echo no library >&2; exit 127", "does not start: no library")):
            with self.subTest(reason):
                self.put(name, script)
                self.assertEqual(self.bootstrap_fails(reason, "-DPython_EXECUTABLE=PATH"), "")
                (self.path / name).unlink()

    def test_packages(self):
        self.put("python3.13", "exit 1")
        self.put("apt-get", 'echo "apt-get was asked: $*"; exit 1')
        self.put("apt-cache", "exit 100")
        self.bootstrap_fails("The packages of this distribution have no python3.13")
        self.put("apt-cache", "true")
        (self.path / "rg").unlink()
        self.bootstrap_fails("asked: install -y", " ripgrep python3.13 python3.13-dev\n", "As root")

    def test_earlier_builds(self):
        """That of another place is made anew; the interpreter of one is the one looked at."""
        self.configured("/an/older/place", "another")
        self.assertIn("was made for the checkout in /an/older/place",
                      self.bootstrap_fails("python3.13 is not on the PATH"))
        self.cache.mkdir()
        self.configured(self.checkout.resolve(), "another")
        self.put("python3.13", GOOD)
        self.bootstrap_fails("another is not on the PATH")
        self.put("another", f'case $1 in *bench.py) pwd ;; *) {GOOD} ;; esac')
        self.put("cmake", "exit 0")
        printed, _ = self.run_script(0, "bench", "--json", "figures")
        self.assertTrue(printed.endswith(f"{self.path.resolve()}\n"), printed)

    def test_symbolic_link_to_a_script(self):
        (self.checkout / "script/link").symlink_to("bootstrap")
        (self.path / "link").symlink_to(self.checkout / "script/link")
        self.put("python3.13", "echo 3.12.1")
        ended = subprocess.run([self.path / "link"], env={"PATH": str(self.path)}, text=True,
                               capture_output=True)
        self.assertIn("python3.13 is Python 3.12.1", ended.stderr)

    def test_failures_are_passed_on(self):
        """Whatever fails, the build or the tests, `script/test` says so by its status."""
        self.put("python3.13", GOOD)
        for cmake, ctest, status in ((0, 0, 0), (1, 0, 1), (0, 8, 8)):
            self.put("cmake", f"exit {cmake}")
            self.put("ctest", f"exit {ctest}")
            for words in (["test"], ["test", "release"]):
                with self.subTest(words, cmake=cmake, ctest=ctest):
                    self.run_script(status, *words)

    def test_help_and_wrong_words(self):
        for name in sorted({path.name for path in self.checkout.glob("script/*")} - {"lib.sh"}):
            with self.subTest(name):
                printed, complaint = self.run_script(0, name, "--help")
                self.assertTrue(printed.startswith(f"script/{name}") and not complaint, printed)
                self.assertEqual(self.run_script(2, name, "nonsense", "nonsense")[0], "")

    def test_one_version(self):
        for name, words in (("CMakeLists.txt", "(health VERSION "), ("CHANGELOG.md", "## [")):
            with self.subTest(name):
                latest = hosts.CHECKOUT.joinpath(name).read_text().partition(words)[2]
                self.assertEqual(latest[: len(sample_host.__version__)], sample_host.__version__)


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


@unittest.skipIf("ASAN_OPTIONS" in os.environ or hasattr(sys, "gettotalrefcount"), "done once")
class Wheel(unittest.TestCase):
    HOST = """
        cmake_minimum_required(VERSION 3.25)
        project(myhost LANGUAGES CXX)
        add_subdirectory("{0}" health)
        get_directory_property(linking DIRECTORY "{0}" DEFINITION
            CMAKE_INTERPROCEDURAL_OPTIMIZATION_RELEASE)
        if(linking OR TARGET floor)
            message(FATAL_ERROR "not the module alone")
        endif()"""

    def test_host_that_adds_the_directory(self):
        """As a build backend does it: another project adds this one and installs a component."""
        directory = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="a host ")))
        (directory / "CMakeLists.txt").write_text(self.HOST.format(hosts.CHECKOUT))
        for command in (
                ("cmake", "-S", ".", "-B", "build", f"-DPython_EXECUTABLE={sys.executable}"),
                ("cmake", "--build", "build", "--parallel", "2"),
                ("cmake", "--install", "build", "--component", "health", "--prefix", "myhost")):
            ended = subprocess.run(command, cwd=directory, capture_output=True, text=True)
            self.assertEqual(ended.returncode, 0, ended.stdout + ended.stderr)
        installed = sorted(file.name for file in directory.glob("myhost/**/*.*"))
        self.assertEqual(installed, [hosts.RELEASE.name, "health.pyi"])
