"""The tools that the host serves, and their actions: the only names that health counts are kept under."""

from collections.abc import Mapping
from dataclasses import dataclass
from types import MappingProxyType


@dataclass(frozen=True)
class Action:
    name: str
    slow: bool = False
    """Slow by nature: its time grows with the repository, not with the answer."""


@dataclass(frozen=True)
class Tool:
    name: str
    description: str
    actions: tuple[Action, ...] = ()

    def action(self, name: str) -> Action | None:
        """The action of that name, or None when the tool has no such action."""
        return next((action for action in self.actions if action.name == name), None)


_TOOLS = (
    Tool(
        "search",
        "Search the repository: action 'text' finds the lines that a regular expression matches, action"
        " 'files' the files whose path matches a glob (one without a slash is matched in every directory).",
        (Action("text", slow=True), Action("files")),
    ),
    Tool("read_file", "Read lines of one text file of the repository."),
    Tool("status", "The health and the usage of every tool, and the threads of the server."),
    Tool("get_tool_performance_stats", "How long the tools took since the server started."),
)

TOOLS: Mapping[str, Tool] = MappingProxyType({tool.name: tool for tool in _TOOLS})
