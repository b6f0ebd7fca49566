"""A directory of sources, and nothing outside it."""

import os
import stat
from pathlib import Path

from ..tool_schemas import BadArguments

MAX_FILE_BYTES = 4 << 20
# Without waiting for the other end of a pipe, and never through a symbolic link.
_SAFELY = os.O_RDONLY | os.O_CLOEXEC | os.O_NOFOLLOW | os.O_NONBLOCK


class Unreadable(Exception):
    """One file cannot be read: the call's own failure, never the tool's."""


class Sources:
    """The directory as it was at the start: another one in its place is refused. Any thread."""

    def __init__(self, directory: Path) -> None:
        self._directory = directory.absolute()
        self._identity = _identity(os.stat(self._directory))

    def open(self) -> int:
        """A descriptor of the directory. Raises OSError when it is gone: the tool has failed then.
        May block.
        """
        root = os.open(self._directory, os.O_RDONLY | os.O_CLOEXEC | os.O_DIRECTORY)
        if _identity(os.fstat(root)) != self._identity:
            os.close(root)
            raise FileNotFoundError(f"another directory is at {self._directory}")
        return root

    def open_file(self, path: str) -> int:
        """A descriptor of a regular file. Raises BadArguments where there is none. May block."""
        parts = path.split("/")
        if "\0" in path or ".." in parts or path.startswith("/"):
            raise BadArguments("path must be relative to the repository, and lead down only.")
        at = self.open()
        try:
            for part in [part for part in parts if part not in ("", ".")]:
                above, at = at, os.open(part, _SAFELY, dir_fd=at)
                os.close(above)
            if not stat.S_ISREG(os.fstat(at).st_mode):
                raise FileNotFoundError
        except (OSError, UnicodeEncodeError) as error:
            os.close(at)
            if isinstance(error, PermissionError):
                raise Unreadable(f"{error.strerror}.") from None
            raise BadArguments("path names no regular file of the repository.") from None
        return at

    def read_lines(self, path: str) -> list[str]:
        """A file's lines, odd bytes replaced. Raises Unreadable, or BadArguments. May block."""
        with os.fdopen(self.open_file(path), "rb") as stream:
            try:
                data = stream.read(MAX_FILE_BYTES + 1) or b""  # None: nothing yet
            except OSError as error:
                raise Unreadable(f"{error.strerror}.") from None
        if len(data) > MAX_FILE_BYTES:
            raise Unreadable(f"the file is over {MAX_FILE_BYTES >> 20} MiB.")
        if b"\0" in data:
            raise Unreadable("the file is binary.")
        text = data.decode("utf-8", "replace").replace("\r\n", "\n")
        return text.removesuffix("\n").split("\n")


def _identity(found: os.stat_result) -> tuple[int, int]:
    return found.st_dev, found.st_ino
