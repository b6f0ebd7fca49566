"""A small MCP server over a directory of sources, guarded by ``tool_handlers.health``."""
# The least daemon that gives the health module every service it asks for, and asks it on an event
# loop. The part to copy is the guarded call, daemon/tool_pipeline.py.

__version__ = "0.2.0"
