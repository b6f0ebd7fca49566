"""The Model Context Protocol over a pair of byte streams: JSON-RPC 2.0, one message a line."""

import json
import logging
from reprlib import repr as short_repr
from typing import Any, BinaryIO

from ..tool_registry import TOOLS
from ..tool_schemas import INPUT_SCHEMAS
from ..utils.text import valid_unicode
from .tool_pipeline import Outcome, ToolPipeline

# Versions without batches of messages, which 2025-03-26 would ask for.
PROTOCOL_VERSIONS = ("2024-11-05", "2025-06-18", "2025-11-25")
MAX_LINE_BYTES = 1 << 20

PARSE_ERROR = -32700
INVALID_REQUEST = -32600
METHOD_NOT_FOUND = -32601
INVALID_PARAMS = -32602
INTERNAL_ERROR = -32603

Message = dict[str, Any]

logger = logging.getLogger(__name__)


class ProtocolError(Exception):
    """A JSON-RPC error to answer with."""

    def __init__(self, code: int, message: str) -> None:
        super().__init__(message)
        self.code = code


class McpServer:
    """Answers requests one at a time, in the order in which they come."""

    def __init__(self, pipeline: ToolPipeline) -> None:
        self._pipeline = pipeline
        self._methods = {
            "initialize": self._initialize,
            "ping": lambda params: {},
            "tools/list": self._list_tools,
            "tools/call": self._call_tool,
        }

    def serve(self, requests: BinaryIO, answers: BinaryIO) -> None:
        """Serve until the requests end. Blocks; for the main thread, which the time limit of tools needs."""
        while line := requests.readline(MAX_LINE_BYTES):
            if len(line) == MAX_LINE_BYTES and not line.endswith(b"\n"):
                while line and not line.endswith(b"\n"):  # pass over the rest of it
                    line = requests.readline(MAX_LINE_BYTES)
                answer = _error(None, INVALID_REQUEST, f"a line may be at most {MAX_LINE_BYTES} bytes long")
            else:
                answer = self._answer(line) if line.strip() else None
            if answer is not None:
                answers.write(json.dumps(answer).encode() + b"\n")
                answers.flush()

    def _answer(self, line: bytes) -> Message | None:
        """The answer to one line, or None when there is to be none."""
        try:
            message = json.loads(line.decode(), parse_constant=_refuse_constant)
        except (ValueError, RecursionError) as error:
            return _error(None, PARSE_ERROR, f"not a JSON text: {error}")
        if not isinstance(message, dict):
            return _error(None, INVALID_REQUEST, "not a JSON object")
        if "method" not in message and ("result" in message or "error" in message):
            return None  # an answer, though this server never asks
        request_id = message.get("id")
        try:
            if "id" in message and type(request_id) not in (str, int):
                request_id = None
                raise ProtocolError(INVALID_REQUEST, "the id must be a string or an integer")
            method, params = message.get("method"), message.get("params", {})
            well_formed = isinstance(method, str) and isinstance(params, dict | list)
            if message.get("jsonrpc") != "2.0" or not well_formed:
                raise ProtocolError(INVALID_REQUEST, "not a JSON-RPC 2.0 request")
            if "id" not in message:
                return None  # a notification, and none of them asks for anything here
            if method not in self._methods:
                raise ProtocolError(METHOD_NOT_FOUND, f"no method {short_repr(method)}")
            if isinstance(params, list):
                raise ProtocolError(INVALID_PARAMS, "params must be an object")
            return {"jsonrpc": "2.0", "id": request_id, "result": self._methods[method](params)}
        except ProtocolError as error:
            return _error(request_id, error.code, str(error))
        except Exception as error:
            logger.exception("Could not answer a request")
            return _error(request_id, INTERNAL_ERROR, f"internal error: {type(error).__name__}")

    def _initialize(self, params: Message) -> Message:
        asked = params.get("protocolVersion")
        if not isinstance(asked, str):
            raise ProtocolError(INVALID_PARAMS, "protocolVersion must be a string")
        # Versions are dates, so the newest that the client may know is the newest one up to what it asks for.
        known = [version for version in PROTOCOL_VERSIONS if version <= asked]
        return {
            "protocolVersion": max(known, default=PROTOCOL_VERSIONS[-1]),
            "capabilities": {"tools": {}},
            "serverInfo": {"name": "sample_host", "version": "1.0"},
        }

    def _list_tools(self, params: Message) -> Message:
        if params.get("cursor") is not None:
            raise ProtocolError(INVALID_PARAMS, "there are no further pages")
        return {
            "tools": [
                {"name": tool.name, "description": tool.description, "inputSchema": INPUT_SCHEMAS[tool.name]}
                for tool in TOOLS.values()
            ]
        }

    def _call_tool(self, params: Message) -> Message:
        name, arguments = params.get("name"), params.get("arguments", {})
        if not isinstance(name, str) or not isinstance(arguments, dict):
            raise ProtocolError(INVALID_PARAMS, "name must be a string and arguments an object")
        tool = TOOLS.get(name)
        if tool is None:
            raise ProtocolError(INVALID_PARAMS, f"Unknown tool: {short_repr(name)}")
        outcome, content = self._pipeline.call(tool.name, arguments)
        text = valid_unicode(content if isinstance(content, str) else json.dumps(content))
        return {"content": [{"type": "text", "text": text}], "isError": outcome is not Outcome.OK}


def _error(request_id: str | int | None, code: int, message: str) -> Message:
    return {"jsonrpc": "2.0", "id": request_id, "error": {"code": code, "message": message}}


def _refuse_constant(name: str) -> None:
    raise ValueError(f"{name} is no JSON value")
