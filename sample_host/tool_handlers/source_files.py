"""Reading a directory of sources, and nothing outside it."""

import os
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

from ..tool_schemas import BadArguments

MAX_FILE_BYTES = 4 << 20
SKIPPED_DIRECTORIES = (".git", ".venv", "node_modules", "__pycache__")


class Unreadable(Exception):
    """One file cannot be read: the call's own failure, never the tool's."""


def open_directory(directory: Path) -> Path:
    """The directory's real path. Raises OSError when it is gone: the tool has failed then."""
    real = directory.resolve(strict=True)
    os.scandir(real).close()
    return real


def find_file(root: Path, path: str) -> Path:
    """The regular file at `path` under `root`, a real path. Raises BadArguments without one."""
    try:
        file = (root / path).resolve()
    except (OSError, ValueError) as error:  # a NUL in the path, say
        raise BadArguments(f"path is no file name: {error}.") from None
    if not file.is_relative_to(root):
        raise BadArguments("path leads out of the repository.")
    if not os.path.isfile(file):
        raise BadArguments("path names no file of the repository.")
    return file


def walk_files(root: Path, skipped: Counter[str]) -> Iterator[Path]:
    """The regular files under `root`, by name. `skipped` counts by kind what is passed over."""
    unreadable = ["unreadable directories"]
    for directory, directories, names in root.walk(on_error=lambda _: skipped.update(unreadable)):
        skipped.update(name for name in directories if name in SKIPPED_DIRECTORIES)
        directories[:] = sorted(set(directories).difference(SKIPPED_DIRECTORIES))
        for name in sorted(names):
            file = directory / name
            if os.path.isfile(file) and not file.is_symlink():
                yield file
            else:
                skipped["links and special files"] += 1


def read_lines(file: Path) -> list[str]:
    """The file's lines, odd bytes replaced. Raises Unreadable."""
    try:
        with file.open("rb") as stream:
            data = stream.read(MAX_FILE_BYTES + 1)
    except OSError as error:
        raise Unreadable(f"unreadable files: {error.strerror}") from None
    if len(data) > MAX_FILE_BYTES:
        raise Unreadable(f"files over {MAX_FILE_BYTES >> 20} MiB")
    if b"\0" in data:
        raise Unreadable("binary files")
    text = data.decode("utf-8", "replace").replace("\r\n", "\n")
    return text.removesuffix("\n").split("\n")
