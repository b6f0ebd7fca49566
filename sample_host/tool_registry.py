"""The tools that the host serves, and their actions: the only names that are counted under."""

from collections.abc import Mapping
from dataclasses import dataclass
from types import MappingProxyType


@dataclass(frozen=True)
class Action:
    name: str
    slow: bool = False  # slow by nature: its time grows with the repository, not with the answer


@dataclass(frozen=True)
class Tool:
    name: str
    title: str
    description: str
    actions: tuple[Action, ...] = ()

    def action(self, name: str) -> Action | None:
        """The action of that name, or None when the tool has no such action."""
        return next((action for action in self.actions if action.name == name), None)


_TOOLS = (
    Tool(
        "search",
        "Search the repository",
        "Search the repository: action 'text' finds the lines that contain a text (case matters"
        " unless it is all lower case), action 'files' the files whose path matches a glob (one"
        " without a slash is matched in every directory). Left out are .git, .venv, node_modules,"
        " __pycache__, symbolic links and special files, and for 'text' binary files and files over"
        " 4 MiB. A search that takes too long answers with what it has found, and says so.",
        (Action("text", slow=True), Action("files")),
    ),
    Tool("read_file", "Read a file", "Read lines of one of the text files, at most 4 MiB large."),
    Tool("status", "Health of the tools", "Health and usage of every tool; threads of the server."),
    Tool("get_tool_performance_stats", "Times of the tools", "How long the tools took so far."),
)

TOOLS: Mapping[str, Tool] = MappingProxyType({tool.name: tool for tool in _TOOLS})
