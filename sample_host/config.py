"""The host's settings."""

from dataclasses import dataclass


@dataclass
class ToolsConfig:
    """The ``tools`` section: when a tool that keeps failing is disabled, and for how long.

    The tracker reads both at every use, so a change takes effect at the next call.
    """

    disable_after_errors: int = 3
    """So many failures in a row disable a tool."""
    disable_cooldown_s: float = 300.0
    """Seconds from a disabled tool's latest failure until it is tried again."""
