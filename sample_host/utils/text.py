"""Text that every reader takes."""


def valid_unicode(text: str) -> str:
    """The text with "?" for its lone surrogates, such as those in the name of a file that is not UTF-8.

    SQLite cannot store them, and many JSON readers refuse them.
    """
    return text.encode("utf-8", "replace").decode("utf-8")
