"""The ``read_file`` tool."""

from itertools import accumulate, takewhile

from ..tool_schemas import BadArguments
from .source_files import Sources

_MAX_CHARACTERS = 100_000


def read_file(sources: Sources, *, path: str, start_line: int, max_lines: int) -> str:
    """The lines asked for, as many as fit; then which, where that is not the file's end. Blocks."""
    lines = sources.read_lines(path)
    if start_line > len(lines):
        raise BadArguments(f"the file has {len(lines)} lines.")
    asked = lines[start_line - 1:][:max_lines]
    lengths = accumulate(len(line) + 1 for line in asked)
    fitting = max(1, sum(1 for _ in takewhile(lambda length: length <= _MAX_CHARACTERS, lengths)))
    shown = asked[:fitting]
    end = start_line - 1 + len(shown)
    text = "\n".join(shown)
    if len(text) > _MAX_CHARACTERS:  # one line that is too long by itself
        text = text[:_MAX_CHARACTERS]
        return f"{text}\n(line {end} of {len(lines)}, cut after {_MAX_CHARACTERS} characters)"
    return f"{text}\n(lines {start_line} to {end} of {len(lines)})" if end < len(lines) else text
