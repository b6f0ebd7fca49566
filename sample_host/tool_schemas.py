"""What the tools take and answer, the synonyms that agents use, and which calls are slow."""

from dataclasses import dataclass
from reprlib import repr as short_repr  # what an agent sent may be a megabyte long
from typing import Any

from .tool_registry import TOOLS


class BadArguments(Exception):
    """The agent's mistake, worded for the agent. Never a failure of the tool."""


@dataclass(frozen=True)
class ResolvedCall:
    """A call in the tool's own words, every parameter present and valid."""

    parameters: dict[str, Any]
    alias_hit: bool  # whether a parameter or the action was named by a synonym

    @property
    def action(self) -> str | None:
        return self.parameters.get("action")


def _input_schema(required: tuple[str, ...] = (), **properties: dict[str, Any]) -> dict[str, Any]:
    rules = {"required": list(required), "additionalProperties": False}
    return {"type": "object", "properties": properties, **rules}


def _text(description: str, max_length: int) -> dict[str, Any]:
    return {"type": "string", "description": description, "maxLength": max_length}


def _count(description: str, maximum: int, default: int) -> dict[str, Any]:
    limits = {"minimum": 1, "maximum": maximum, "default": default}
    return {"type": "integer", "description": description, **limits}


# JSON Schema for the agents. `resolve_call` enforces just the keywords that stand here.
INPUT_SCHEMAS: dict[str, dict[str, Any]] = {
    "search": _input_schema(
        ("action", "pattern"),
        action={"type": "string", "enum": [action.name for action in TOOLS["search"].actions]},
        pattern=_text("A plain text (text) or a glob (files).", max_length=1000),
        max_results=_count("Lines or files to answer with at most.", maximum=500, default=50),
        glob=_text("Only for text: search just the files that match this glob.", max_length=1000),
    ),
    "read_file": _input_schema(
        ("path",),
        path=_text("The file's path within the repository.", max_length=1000),
        start_line=_count("First line to read, counted from 1.", maximum=10_000_000, default=1),
        max_lines=_count("Lines to read at most.", maximum=2000, default=500),
    ),
    "status": _input_schema(),
    "get_tool_performance_stats": _input_schema(),
}


def _output_schema(**types: str) -> dict[str, Any]:
    properties = {name: {"type": type_name} for name, type_name in types.items()}
    return {"type": "object", "properties": properties, "required": list(types)}


# The tools that answer with data: what the health module returns (health.pyi has its types).
OUTPUT_SCHEMAS: dict[str, dict[str, Any]] = {
    "status": _output_schema(server="object", perf_stats="array", has_unsaved_changes="boolean",
                             threads="object"),
    "get_tool_performance_stats": _output_schema(tools="array"),
}

PARAMETER_SYNONYMS = {
    "query": "pattern", "text": "pattern", "file": "path", "file_path": "path",
    "filename": "path", "mode": "action", "limit": "max_results", "offset": "start_line"}
ACTION_SYNONYMS = {
    "search": {"grep": "text", "content": "text", "glob": "files", "find": "files"}}


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether a call of that tool and action is slow by nature. Memory only."""
    spec = TOOLS.get(tool)
    found = spec.action(action) if spec is not None and action is not None else None
    return found is not None and found.slow


def resolve_call(tool: str, arguments: dict[str, Any]) -> ResolvedCall:
    """An agent's arguments: synonyms replaced, defaults filled in. Raises BadArguments."""
    schema = INPUT_SCHEMAS[tool]
    properties = schema["properties"]
    given: dict[str, Any] = {}
    alias_hit = False
    for name, value in arguments.items():
        parameter = name if name in properties else PARAMETER_SYNONYMS.get(name, name)
        if parameter not in properties:
            takes = ", ".join(properties) or "no parameters"
            raise BadArguments(f"{tool} has no parameter {short_repr(name)}; it takes {takes}.")
        if parameter in given:
            raise BadArguments(f"{parameter} is given twice.")
        alias_hit |= parameter != name
        if parameter == "action" and isinstance(value, str):
            action = ACTION_SYNONYMS.get(tool, {}).get(value, value)
            alias_hit |= action != value
            value = action
        given[parameter] = _checked(parameter, value, properties[parameter])
    if "glob" in given and given.get("action") == "files":
        raise BadArguments("glob goes with action text; with files the pattern is a glob.")
    for parameter in schema["required"]:
        if parameter not in given:
            raise BadArguments(f"{tool} needs {parameter}.")
    defaults = {name: rule["default"] for name, rule in properties.items() if "default" in rule}
    return ResolvedCall(defaults | given, alias_hit)


def _checked(parameter: str, value: Any, rule: dict[str, Any]) -> Any:
    if rule["type"] == "integer" and isinstance(value, float) and value.is_integer():
        # 1.0 is an integer, to JSON Schema and where all numbers are doubles.
        return _checked(parameter, int(value), rule)
    expected: type = {"string": str, "integer": int}[rule["type"]]
    if type(value) is not expected:  # so that true is no integer
        raise BadArguments(f"{parameter} must be of type {rule['type']}, not {short_repr(value)}.")
    if "enum" in rule and value not in rule["enum"]:
        allowed = ", ".join(rule["enum"])
        raise BadArguments(f"{parameter} must be one of {allowed}, not {short_repr(value)}.")
    if "maximum" in rule and not rule["minimum"] <= value <= rule["maximum"]:
        raise BadArguments(f"{parameter} must be from {rule['minimum']} to {rule['maximum']}.")
    if isinstance(value, str) and len(value) > rule.get("maxLength", len(value)):
        raise BadArguments(f"{parameter} may be at most {rule['maxLength']} characters long.")
    return value
