"""The ``search`` tool."""

from collections import Counter
from collections.abc import Iterator
from fnmatch import fnmatchcase
from pathlib import Path

from ..utils.deadline import Deadline, Stopped
from .source_files import Unreadable, open_directory, read_lines, walk_files

_SHOWN_CHARACTERS = 200
_BLOCK_LINES = 1000  # so many are searched between two looks at the deadline


def search(directory: Path, deadline: Deadline, *, action: str, pattern: str,
           max_results: int) -> str:
    """The matches, one a line; then what ended the search early, and what was not searched."""
    root = open_directory(directory)
    skipped: Counter[str] = Counter()
    matching = _matching_lines if action == "text" else _matching_files
    found: list[str] = []
    remarks: list[str] = []
    try:
        for match in matching(root, pattern, deadline, skipped):
            if len(found) == max_results:
                remarks.append(f"(more than {max_results} matches; narrow the pattern)")
                break
            found.append(match)
    except Stopped as stopped:  # the repository is large, or the disk slow
        remarks.append(f"({stopped}; name fewer files or narrow the pattern)")
    if skipped:
        kinds = ", ".join(f"{count} x {kind}" for kind, count in sorted(skipped.items()))
        remarks.append(f"(not searched: {kinds})")
    return "\n".join([*(found or ["(no match)"]), *remarks])


def _matching_lines(root: Path, text: str, deadline: Deadline,
                    skipped: Counter[str]) -> Iterator[str]:
    ignores_case = text == text.lower()
    for file in walk_files(root, skipped):
        deadline.check()
        try:
            lines = read_lines(file)
        except Unreadable as error:
            skipped[str(error)] += 1
            continue
        for number, line in enumerate(lines, start=1):
            if number % _BLOCK_LINES == 0:
                deadline.check()
            if text in (line.lower() if ignores_case else line):
                yield f"{file.relative_to(root)}:{number}: {line.strip()[:_SHOWN_CHARACTERS]}"


def _matching_files(root: Path, pattern: str, deadline: Deadline,
                    skipped: Counter[str]) -> Iterator[str]:
    wanted = pattern.split("/") if "/" in pattern else ["**", pattern]
    for file in walk_files(root, skipped):
        deadline.check()
        path = file.relative_to(root)
        if _matches(path.parts, wanted):
            yield str(path)


# Whether a path matches a glob, part by part; ** stands for any number of directories. In steps
# that are counted beforehand, unlike a regular expression for the whole.
def _matches(parts: tuple[str, ...], wanted: list[str]) -> bool:
    reached: set[int] = {0}
    for pattern in wanted:
        if not reached:
            return False
        if pattern == "**":
            reached = {*range(min(reached), len(parts) + 1)}
        else:
            here = {at for at in reached if at < len(parts) and fnmatchcase(parts[at], pattern)}
            reached = {at + 1 for at in here}
    return len(parts) in reached
