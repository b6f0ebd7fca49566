"""The ``read_file`` tool."""

from pathlib import Path

from ..tool_schemas import BadArguments
from .source_files import MAX_FILE_BYTES, find_file, open_directory, read_lines

_MAX_CHARACTERS = 100_000


def read_file(directory: Path, *, path: str, start_line: int, max_lines: int) -> str:
    """The lines asked for. When that is not the file's end, the last line says so."""
    lines = read_lines(find_file(open_directory(directory), path))
    if lines is None:
        raise BadArguments(f"path names a binary file, or one of more than {MAX_FILE_BYTES} bytes.")
    if start_line > len(lines):
        raise BadArguments(f"the file has {len(lines)} lines.")
    end = start_line - 1 + max_lines
    answer = "\n".join(lines[start_line - 1 : end])
    if len(answer) > _MAX_CHARACTERS:
        return f"{answer[:_MAX_CHARACTERS]}\n(cut after {_MAX_CHARACTERS} characters)"
    return f"{answer}\n(line {end} of {len(lines)})" if end < len(lines) else answer
