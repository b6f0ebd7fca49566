"""The ``search`` tool."""

import glob
import re
from collections.abc import Iterator
from pathlib import Path

from ..tool_schemas import BadArguments
from ..utils.time_limit import TimeLimitExceeded
from .source_files import open_directory, read_lines, walk_files

_SEARCHED_CHARACTERS = 2000
"""Only so many of a line are looked at: on one of megabytes the time limit could come half a minute late."""
_SHOWN_CHARACTERS = 200


def search(directory: Path, *, action: str, pattern: str, max_results: int) -> str:
    """The matches, one a line. When the time limit or `max_results` ends the search, a last line says so."""
    root = open_directory(directory)
    matches = _matching_lines(root, pattern) if action == "text" else _matching_files(root, pattern)
    found: list[str] = []
    try:
        for match in matches:
            if len(found) == max_results:
                return "\n".join([*found, f"(more than {max_results} matches; narrow the pattern)"])
            found.append(match)
    except TimeLimitExceeded as error:  # not held against the tool: the agent chose the pattern
        return "\n".join([*found, f"({error}; use a simpler pattern)"])
    return "\n".join(found) or "(no match)"


def _matching_lines(root: Path, pattern: str) -> Iterator[str]:
    expression = _compile(pattern)
    for file in walk_files(root):
        try:
            lines = read_lines(file) or []
        except OSError:  # gone since it was listed, or not for this process
            continue
        for number, line in enumerate(lines, start=1):
            if expression.search(line[:_SEARCHED_CHARACTERS]):
                yield f"{file.relative_to(root)}:{number}: {line.strip()[:_SHOWN_CHARACTERS]}"


def _matching_files(root: Path, pattern: str) -> Iterator[str]:
    anywhere = pattern if "/" in pattern else f"**/{pattern}"
    expression = _compile(glob.translate(anywhere, recursive=True, include_hidden=True))
    for file in walk_files(root):
        path = str(file.relative_to(root))
        if expression.match(path):
            yield path


def _compile(pattern: str) -> re.Pattern[str]:
    try:
        return re.compile(pattern)
    except (re.error, ValueError, OverflowError, RecursionError) as error:
        raise BadArguments(f"pattern is no regular expression: {error}.") from None
