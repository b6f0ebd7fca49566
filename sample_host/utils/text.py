"""Text that every reader takes."""


# SQLite cannot store lone surrogates, and many JSON readers refuse them.
def valid_unicode(text: str) -> str:
    """The text with "?" for its lone surrogates, as in the name of a file that is not UTF-8."""
    return text.encode("utf-8", "replace").decode("utf-8")
