"""The Model Context Protocol: JSON-RPC 2.0, one message a line, answers as they are ready."""

import asyncio
import json
import logging
from collections.abc import Callable
from reprlib import repr as short_repr
from typing import Any, cast

from .. import __version__
from ..tool_registry import TOOLS
from ..tool_schemas import INPUT_SCHEMAS, OUTPUT_SCHEMAS
from ..utils.text import valid_unicode
from .stdio import MAX_LINE_BYTES
from .tool_pipeline import Outcome, ToolPipeline

PROTOCOL_VERSIONS = ("2024-11-05", "2025-06-18", "2025-11-25")
ANNOTATIONS = {"readOnlyHint": True, "idempotentHint": True, "openWorldHint": False}

PARSE_ERROR, INVALID_REQUEST, METHOD_NOT_FOUND = -32700, -32600, -32601
INVALID_PARAMS, INTERNAL_ERROR = -32602, -32603

Message = dict[str, Any]

logger = logging.getLogger(__name__)


class ProtocolError(Exception):
    """A JSON-RPC error to answer with."""

    def __init__(self, code: int, message: str) -> None:
        super().__init__(message)
        self.code = code


class McpServer:
    """One client's conversation. Every line is a task: none waits for another's answer."""

    def __init__(self, pipeline: ToolPipeline, answer: Callable[[bytes], None]) -> None:
        self._pipeline = pipeline
        self._write = answer
        self._is_initialized = self._is_ending = False
        self._tasks: set[asyncio.Task[None]] = set()
        # The running calls by their ids, under which a client can cancel them.
        self._calls: dict[str | int, asyncio.Task[Any]] = {}
        self._methods: dict[str, Callable[[Message], Message]] = {
            "initialize": self._initialize,
            "ping": lambda params: {},
            "tools/list": self._list_tools}

    def receive(self, line: bytes) -> None:
        """Take one line; what it asks for is answered when it is ready. Never waits."""
        task = asyncio.create_task(self._take(line))
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def finish(self, grace_s: float) -> None:
        """Give what is running so long to end, then cancel it, which is answered with an error."""
        if self._tasks:
            await asyncio.wait(self._tasks, timeout=grace_s)
        self._is_ending = True
        for call in self._calls.values():
            call.cancel()
        if self._tasks:
            await asyncio.wait(self._tasks, timeout=grace_s)

    async def _take(self, line: bytes) -> None:
        answer: Message | None = None
        if len(line) > MAX_LINE_BYTES:
            too_long = f"a line may be at most {MAX_LINE_BYTES} bytes long"
            answer = _error(None, INVALID_REQUEST, too_long)
        elif line.strip():
            try:
                message: Any = json.loads(line.decode(), parse_constant=_refuse_constant)
            except (ValueError, RecursionError) as error:
                answer = _error(None, PARSE_ERROR, f"not a JSON text: {error}")
            else:
                answer = await self._answer(message)
        if answer is not None:
            self._write(json.dumps(answer).encode())

    async def _answer(self, received: Any) -> Message | None:
        """The answer to one message, or None when there is to be none."""
        if not isinstance(received, dict):
            return _error(None, INVALID_REQUEST, "not a JSON object")
        message = cast(Message, received)
        if "method" not in message and ("result" in message or "error" in message):
            return None  # an answer, though this server never asks
        request_id = _integer_if_whole(message.get("id"))
        if "id" in message and type(request_id) not in (str, int):
            return _error(None, INVALID_REQUEST, "the id must be a string or an integer")
        if request_id in self._calls:  # under that id the client expects another answer
            return _error(None, INVALID_REQUEST, "a call with this id is running")
        try:
            method: Any = message.get("method")
            params: Any = message.get("params", {})
            well_formed = isinstance(method, str) and isinstance(params, dict | list)
            if message.get("jsonrpc") != "2.0" or not well_formed:
                raise ProtocolError(INVALID_REQUEST, "not a JSON-RPC 2.0 request")
            if "id" not in message:
                return self._take_notification(method, params)
            if method != "tools/call" and method not in self._methods:
                raise ProtocolError(METHOD_NOT_FOUND, f"no method {short_repr(method)}")
            if not isinstance(params, dict):
                raise ProtocolError(INVALID_PARAMS, "params must be an object")
            given = cast(Message, params)
            if method == "tools/call":
                result = await self._call_tool(request_id, given)
            else:
                result = self._methods[method](given)
            return {"jsonrpc": "2.0", "id": request_id, "result": result}
        except ProtocolError as error:
            return _error(request_id, error.code, str(error))
        except asyncio.CancelledError:
            if not self._is_ending:
                return None  # its client wants no answer
            return _error(request_id, INTERNAL_ERROR, "the server ends")
        except Exception as error:
            logger.exception("Could not answer a request")
            return _error(request_id, INTERNAL_ERROR, f"internal error: {type(error).__name__}")

    def _take_notification(self, method: str, params: Any) -> None:
        given = cast(Message, params) if isinstance(params, dict) else {}
        asked = _integer_if_whole(given.get("requestId"))
        if method == "notifications/cancelled" and type(asked) in (str, int):
            if (call := self._calls.pop(asked, None)) is not None:
                call.cancel()

    def _initialize(self, params: Message) -> Message:
        asked = params.get("protocolVersion")
        if not isinstance(asked, str):
            raise ProtocolError(INVALID_PARAMS, "protocolVersion must be a string")
        if self._is_initialized:
            raise ProtocolError(INVALID_REQUEST, "initialized already")
        self._is_initialized = True
        # Versions are dates: the newest that the client may know is the newest up to the one asked.
        known = [version for version in PROTOCOL_VERSIONS if version <= asked]
        version = max(known, default=PROTOCOL_VERSIONS[-1])
        info = {"name": "sample_host", "version": __version__}
        return {"protocolVersion": version, "capabilities": {"tools": {}}, "serverInfo": info}

    def _list_tools(self, params: Message) -> Message:
        if params.get("cursor") is not None:
            raise ProtocolError(INVALID_PARAMS, "there are no further pages")
        tools: list[Message] = []
        for name, tool in TOOLS.items():
            schemas = {"inputSchema": INPUT_SCHEMAS[name], "annotations": ANNOTATIONS}
            if name in OUTPUT_SCHEMAS:
                schemas["outputSchema"] = OUTPUT_SCHEMAS[name]
            words = {"name": name, "title": tool.title, "description": tool.description}
            tools.append(words | schemas)
        return {"tools": tools}

    async def _call_tool(self, request_id: str | int, params: Message) -> Message:
        name: Any = params.get("name")
        arguments: Any = params.get("arguments", {})
        if not isinstance(name, str) or not isinstance(arguments, dict):
            raise ProtocolError(INVALID_PARAMS, "name must be a string and arguments an object")
        tool = TOOLS.get(name)
        if tool is None:
            raise ProtocolError(INVALID_PARAMS, f"Unknown tool: {short_repr(name)}")
        task = self._calls[request_id] = cast("asyncio.Task[Any]", asyncio.current_task())
        try:
            outcome, content = await self._pipeline.call(tool.name, cast(Message, arguments))
        finally:
            if self._calls.get(request_id) is task:  # the id may be another call's by now
                del self._calls[request_id]
        text = valid_unicode(content if isinstance(content, str) else json.dumps(content))
        failed = outcome not in (Outcome.OK, Outcome.CUT_SHORT)
        answer = {"content": [{"type": "text", "text": text}], "isError": failed}
        return answer if isinstance(content, str) else {**answer, "structuredContent": content}


def _error(request_id: str | int | None, code: int, message: str) -> Message:
    return {"jsonrpc": "2.0", "id": request_id, "error": {"code": code, "message": message}}


def _integer_if_whole(number: Any) -> Any:
    """7 for 7.0, which are one number to JSON."""
    return int(number) if isinstance(number, float) and number.is_integer() else number


def _refuse_constant(name: str) -> None:
    raise ValueError(f"{name} is no JSON value")
