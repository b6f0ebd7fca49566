"""How a host takes the module in: its types, its help, its installation and the documents' code,
which runs in a child process, beside a host that the module was installed into.
"""

import asyncio
import builtins
import inspect
import json
import logging
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import types
import typing
import unittest
from pathlib import Path
from unittest import mock

from bench import hosts


MODULE = Path(hosts.MODULE)
STUB = hosts.CHECKOUT / "tool_handlers/health/health.pyi"
# The documents' code itself can take nothing from the checkout.
FOLLOW = ("import sys; sys.path.append({!r}); from tests import test_adoption; sys.path.pop();"
          " test_adoption.follow({!r}, {!r})").format


def blocks(document, language):
    text = hosts.CHECKOUT.joinpath(document).read_text()
    return re.findall(rf"^```{language}\n(.*?)^```", text, re.MULTILINE | re.DOTALL)


def follow(document, package):
    guide = types.SimpleNamespace()
    logging.disable(logging.WARNING)  # of the tool that it lets fail
    exec("\n".join(blocks(document, "python")).replace("myhost", package), vars(guide))
    name = f"{package}.tool_handlers.health"
    assert sys.modules[name].logger.name == name
    if document == "docs/integration.md":
        follow_the_guide(guide)


def follow_the_guide(guide):
    """The guarded call does what the guide says of it, before and after a restart."""
    async def at_once(runs):
        return await asyncio.gather(*(guide.call_tool("search", "text", run) for run in runs))

    def check(outcomes, *groups):
        ended = [call for runs in groups for call in asyncio.run(at_once(runs))]
        assert [outcome for outcome, _ in ended] == outcomes.split(), ended
        return ended[-1][1]

    fails = mock.Mock(side_effect=OSError("gone: \udc80"))
    is_confused = mock.Mock(side_effect=guide.BadArguments)
    guide.tracker.flush()
    for restart in (False, True):
        check("failed failed ok failed failed bad_arguments failed refused", [fails], [fails],
              [int], [fails], [fails], [is_confused], [fails], [is_confused])
        assert guide.tracker.flush() == 1 + 6, "the row of one tool and six usage counts"
        if restart:
            guide.tracker = asyncio.run(guide.start())
            guide.recovery = guide.Recovery(guide.tracker)
            answer = check("refused", [int])
            assert "OSError: gone: ?" in answer and "it again now is useless" in answer, answer
        guide.settings.disable_cooldown_s = 0
        slowly = mock.Mock(side_effect=lambda: time.sleep(0.2) or fails())  # until others asked
        check("failed refused refused ok ok ok", [slowly, int, int], [int], [int, int])
        guide.settings.disable_cooldown_s = 60


def shape(value):
    """Of an answer, without its numbers and texts."""
    if isinstance(value, dict):
        return {key: shape(item) for key, item in value.items()}
    return [shape(item) for item in value] if isinstance(value, list) else type(value).__name__


def facts(value):
    """What a stub tells of a value; of two answers it knows more than the module says."""
    if isinstance(value, property):
        return facts(value.fget), value.fset
    if inspect.isfunction(value):
        signature = re.sub(r"\[(SummaryRecord|UsageRow)\]", "[dict[str, Any]]", str(
            inspect.signature(value)))
        return signature, inspect.cleandoc(value.__doc__ or "")
    if isinstance(value, type) and value.__module__.endswith(".health"):
        return inspect.getdoc(value), [
            (name, facts(member)) for name, member in vars(value).items()
            if isinstance(member, (types.FunctionType, property))]
    return value


class Adoption(unittest.TestCase):
    def test_stub(self):
        with hosts.Host() as host:
            health = host.health
            stub = {"__name__": health.__name__, "__package__": health.__package__}
            with mock.patch("typing.type_check_only", lambda marked: marked, create=True):
                exec(compile(STUB.read_text(), STUB, "exec"), stub)
            told = stub | stub["__annotations__"]
            names = [name for name in vars(health) if not name.startswith("__")]
            self.assertEqual(sorted(told.keys() - {*names, *vars(builtins)}), [
                "Iterable", "Protocol", "Repository", "Sequence", "SummaryRecord", "TypedDict",
                "UsageRow", "_Database", "__annotations__", "__builtins__", "type_check_only"])
            self.assertEqual(stub["__doc__"].strip(), health.__doc__)
            tracker = host.tracker(limits=hosts.ToolsConfig(1))
            tracker.record_error("a", "boom")
            tracker.record_call("a", "text", "failed", alias_hit=False, duration_ms=2)
            (record,) = tracker.get_health_summary()
            fields = stub["ToolHealthTracker"].__annotations__
            self.assertEqual(list(fields), list(vars(tracker)))
            for name in names:
                with self.subTest(name):
                    real = getattr(health, name)
                    if name in stub["__annotations__"]:
                        self.assertIsInstance(real, eval(stub["__annotations__"][name], stub))
                    else:
                        self.assertEqual(facts(stub[name]), facts(real))
        for name, shown in (("SummaryRecord", record), ("UsageRow", *record["usage"])):
            hints = typing.get_type_hints(stub[name], stub)
            self.assertEqual(list(hints), list(shown))
            for key in hints.keys() - {"usage"}:
                with self.subTest(name, key=key):
                    self.assertIsInstance(shown[key], hints[key])

    def install(self, package):
        """A directory with a host package that the module is installed into."""
        base = Path(self.enterContext(tempfile.TemporaryDirectory()))
        host = base.joinpath(*package.split("."))
        command = "cmake", "--install", MODULE.parent, "--prefix", host
        done = subprocess.run(command, capture_output=True, text=True,
                              env=os.environ | {"LD_PRELOAD": "", "DESTDIR": ""})
        self.assertEqual("is a sanitizer build" in done.stderr, "ASAN_OPTIONS" in os.environ)
        self.assertEqual(sorted(host.rglob("*.*")),
                         [host / "tool_handlers" / name for name in (MODULE.name, STUB.name)])
        left_out = shutil.ignore_patterns("health.*", "__pycache__")
        shutil.copytree(hosts.CHECKOUT / "sample_host", host, ignore=left_out, dirs_exist_ok=True)
        return base

    def execute(self, *command, cwd=None, asked=None, **environment):
        done = subprocess.run(command, capture_output=True, text=True, timeout=120, cwd=cwd,
                              input=asked, env=os.environ | environment)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def test_code_of_the_documents(self):
        for document in ("README.md", "docs/integration.md"):
            for package in ("myhost", "org.team.host"):
                with self.subTest(document, package=package):
                    program = FOLLOW(str(hosts.CHECKOUT), document, package)
                    printed = self.execute(sys.executable, "-W", "error", "-c", program,
                                           cwd=self.install(package))
        shown = [json.loads(block) for block in blocks(document, "json")]
        self.assertEqual(shape(json.loads(printed)), shape(shown))

    def test_configuration_of_a_client(self):
        base = self.install("checkout.sample_host")
        (base / "sources").mkdir()
        configuration = blocks("README.md", "json")[0].replace("/path/to", str(base))
        (server,) = json.loads(configuration)["mcpServers"].values()
        asked = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "tools/list"})
        answer = self.execute(
            sys.executable, *server["args"], asked=asked, cwd=base, **server["env"])
        self.assertIn("search", [tool["name"] for tool in json.loads(answer)["result"]["tools"]])
