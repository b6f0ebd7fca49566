"""A small MCP server over a directory of sources, whose tool calls are guarded by ``tool_handlers.health``.

It is the least host that gives the health module every service it asks for. The part to copy is the guarded
call, ``daemon/tool_pipeline.py``.
"""

__version__ = "0.2.0"
