"""How a host takes the module in: its types, its help, its installation, and the code in the
documents.
"""

import ast
import dataclasses
import inspect
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

from . import hosts

ROOT = Path(__file__).resolve().parent.parent
MODULE = Path(hosts.MODULE)
STUB = ROOT / "tool_handlers" / "health" / "health.pyi"
# Runs after the code of docs/integration.md, and sees that it does what the text says.
CHECKS = """
from myhost.tool_handlers import health
assert health.logger.name == health.__name__ == "myhost.tool_handlers.health", health
assert Path(health.__file__).parents[1] == Path("myhost".replace(".", "/")).resolve(), health
def fails(): raise OSError("gone: \\udc80")
def confused(): raise BadArguments
def ask(*runs): return [asyncio.run(call_tool("search", "text", run)) for run in runs]
async def together(*runs):
    return await asyncio.gather(*(call_tool("search", "text", run) for run in runs))
def comes_back():
    settings.disable_cooldown_s = 0
    seen = asyncio.run(together(fails, int, int)) + ask(int) + asyncio.run(together(int, int))
    assert " ".join(outcome for outcome, _ in seen) == "failed refused refused ok ok ok", seen
    settings.disable_cooldown_s = 60
tracker.flush()
to_the_end = fails, fails, int, fails, fails, confused, fails, confused
seen = " ".join(outcome for outcome, _ in ask(*to_the_end))
assert seen == "failed failed ok failed failed bad_arguments failed refused", seen
assert tracker.flush() == 1 + 6, "the row of one tool and six usage counts"
comes_back()
ask(*to_the_end), tracker.flush()
tracker = asyncio.run(start()); recovery = Recovery(tracker)
answer = ask(int)[0][1]
assert "OSError: gone: ?" in answer and "calling it again now is useless" in answer.lower(), answer
comes_back()
"""


def shape(value):
    """What is left of an answer when its numbers and texts are left out."""
    if isinstance(value, dict):
        return {key: shape(item) for key, item in value.items()}
    return [shape(item) for item in value] if isinstance(value, list) else type(value).__name__


def facts(value):
    """What a stub tells of a value."""
    if isinstance(value, property):
        return facts(value.fget), value.fset
    if inspect.isfunction(value):
        return (
            str(inspect.signature(value)),
            value.__annotations__,
            inspect.cleandoc(value.__doc__ or ""),
        )
    if isinstance(value, type) and value.__module__.endswith(".health"):
        members = [
            (name, facts(it))
            for name, it in vars(value).items()
            if isinstance(it, (type(facts), property))
        ]
        fields = dataclasses.fields(value) if dataclasses.is_dataclass(value) else ()
        return (
            inspect.getdoc(value),
            members,
            [(field.name, field.type, field.default) for field in fields],
        )
    return value


class Adoption(unittest.TestCase):
    def test_stub(self):
        tree, told = ast.parse(STUB.read_text()), []
        for node in tree.body[1:]:
            if isinstance(node, (ast.Import, ast.ImportFrom)):
                told += [alias.name for alias in node.names if alias.asname == alias.name]
            elif "type_check_only" not in map(ast.unparse, getattr(node, "decorator_list", ())):
                told.append(
                    getattr(node, "name", None)
                    or ast.unparse(getattr(node, "target", node)).split(" =")[0]
                )
        with hosts.Host() as host, mock.patch(
            "typing.type_check_only", lambda cls: cls, create=True
        ):
            stub = {"__name__": host.health.__name__, "__package__": host.health.__package__}
            exec(compile(tree, STUB, "exec"), stub)
            self.assertEqual(
                told, [name for name in vars(host.health) if not name.startswith("__")]
            )
            self.assertEqual(stub["__doc__"].strip(), host.health.__doc__)
            self.assertEqual(
                list(stub["ToolHealthTracker"].__annotations__), list(vars(host.tracker()))
            )
            for name, real in ((name, getattr(host.health, name)) for name in told):
                with self.subTest(name):
                    if name in stub["__annotations__"]:
                        self.assertIsInstance(real, eval(stub["__annotations__"][name], stub))
                    else:
                        self.assertEqual(facts(stub[name]), facts(real))

    def install(self, package):
        """A directory with a host package, the sample host's sources, that the module is installed
        into.
        """
        base = Path(self.enterContext(tempfile.TemporaryDirectory()))
        host = base.joinpath(*package.split("."))
        shutil.copytree(
            ROOT / "sample_host", host, ignore=shutil.ignore_patterns("health.*", "__pycache__")
        )
        before = set(host.rglob("*"))
        self.execute(
            "cmake",
            "--install",
            MODULE.parent,
            "--prefix",
            host,
            env={"LD_PRELOAD": "", "DESTDIR": ""},
        )
        installed = {host / "tool_handlers" / name for name in (MODULE.name, STUB.name)}
        self.assertEqual(set(host.rglob("*")) - before, installed)
        return base

    def execute(self, *command, env=(), **options):
        env = os.environ | dict(env)
        done = subprocess.run(
            command, capture_output=True, text=True, timeout=120, env=env, **options
        )
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def code(self, document, language):
        blocks = re.findall(
            rf"^```{language}\n(.*?)^```", (ROOT / document).read_text(), re.MULTILINE | re.DOTALL
        )
        return "\n".join(blocks) or self.fail(f"no {language} in {document}")

    def test_code_of_the_documents(self):
        for document, checks in (("README.md", ""), ("docs/integration.md", CHECKS)):
            for package in ("myhost", "org.team.host"):
                with self.subTest(document, package=package):
                    code = self.code(document, "python") + checks
                    program = [sys.executable, "-W", "error", "-c", code.replace("myhost", package)]
                    printed = self.execute(*program, cwd=self.install(package))
        shown = map(
            json.loads,
            re.findall(r"^```json\n(.*?)^```", (ROOT / document).read_text(), re.M | re.S),
        )
        self.assertEqual(shape(json.loads(printed)), shape(list(shown)))

    def test_types_of_the_summary(self):
        """What type checkers are told of a summary's dictionaries is what these hold."""
        names, plain = {}, {
            "str": str,
            "int": int,
            "bool": bool,
            "float": float,
            "None": type(None),
        }
        for node in ast.parse(STUB.read_text()).body:
            if getattr(node, "name", "") in ("SummaryRecord", "UsageRow"):
                names[node.name] = {
                    it.target.id: ast.unparse(it.annotation).split(" | ")
                    for it in node.body
                    if isinstance(it, ast.AnnAssign)
                }
        self.assertEqual(names["SummaryRecord"].pop("usage"), ["list[UsageRow]"])
        with hosts.Host() as host:
            tracker = host.tracker(limits=hosts.ToolsConfig(1))
            tracker.record_error("off", "boom")
            tracker.record_call("off", "text", "failed", alias_hit=True, duration_ms=2)
            tracker.record_call("fresh", None, "ok", alias_hit=False, duration_ms=None)
            records = tracker.get_health_summary()
            rows = [row for record in records for row in record.pop("usage")]
            for told, dictionaries in (
                (names["SummaryRecord"], records),
                (names["UsageRow"], rows),
            ):
                for key, types in told.items():
                    held = {type(dictionary.pop(key)) for dictionary in dictionaries}
                    self.assertEqual(held, {plain[name] for name in types}, key)
                self.assertEqual([*map(list, dictionaries)], [[], []])

    def test_configuration_of_a_client(self):
        base = self.install("checkout.sample_host")
        (base / "sources").mkdir()
        (server,) = json.loads(self.code("README.md", "json").replace("/path/to", str(base)))[
            "mcpServers"
        ].values()
        asked = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "tools/list"})
        answer = self.execute(
            sys.executable, *server["args"], env=server["env"], input=asked, cwd=base
        )
        self.assertIn("search", [tool["name"] for tool in json.loads(answer)["result"]["tools"]])
