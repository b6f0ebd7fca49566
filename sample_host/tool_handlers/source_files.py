"""Reading a directory of sources, and nothing outside it."""

import os
from collections.abc import Iterator
from pathlib import Path

from ..tool_schemas import BadArguments

MAX_FILE_BYTES = 4 << 20
_SKIPPED_DIRECTORIES = {".git", ".venv", "node_modules", "__pycache__"}


def open_directory(directory: Path) -> Path:
    """The directory's real path. Raises OSError when it is gone or unreadable: the tool has failed then."""
    real = directory.resolve(strict=True)
    os.scandir(real).close()
    return real


def find_file(root: Path, path: str) -> Path:
    """The regular file at `path` under `root`, itself a real path. Raises BadArguments when there is none."""
    try:
        file = (root / path).resolve()
    except (OSError, ValueError) as error:  # a NUL in the path, say
        raise BadArguments(f"path is no file name: {error}.") from None
    if not file.is_relative_to(root):
        raise BadArguments("path leads out of the repository.")
    if not os.path.isfile(file):
        raise BadArguments("path names no file of the repository.")
    return file


def walk_files(root: Path) -> Iterator[Path]:
    """The regular files under `root`, by name; symbolic links are not followed."""
    for directory, directories, names in root.walk():
        directories[:] = sorted(set(directories) - _SKIPPED_DIRECTORIES)
        for name in sorted(names):
            file = directory / name
            if os.path.isfile(file) and not file.is_symlink():
                yield file


def read_lines(file: Path) -> list[str] | None:
    """The file's lines, odd bytes replaced, or None when it is binary or larger than MAX_FILE_BYTES."""
    with file.open("rb") as stream:
        data = stream.read(MAX_FILE_BYTES + 1)
    if len(data) > MAX_FILE_BYTES or b"\0" in data:
        return None
    text = data.decode("utf-8", "replace").replace("\r\n", "\n")
    return text.removesuffix("\n").split("\n")
