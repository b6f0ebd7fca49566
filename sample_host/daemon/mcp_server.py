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

BATCH_VERSION = "2025-03-26"  # the one in which a line may be an array of messages
PROTOCOL_VERSIONS = ("2024-11-05", BATCH_VERSION, "2025-06-18", "2025-11-25")
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
        self._version = PROTOCOL_VERSIONS[-1]
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
        """Give what is running a moment to end, then cancel it."""
        if self._tasks:
            await asyncio.wait(self._tasks, timeout=grace_s)
        for call in self._calls.values():
            call.cancel()
        await asyncio.gather(*self._tasks)

    async def _take(self, line: bytes) -> None:
        answers: list[Message | None] = []
        is_batch = False
        if len(line) > MAX_LINE_BYTES:
            too_long = f"a line may be at most {MAX_LINE_BYTES} bytes long"
            answers = [_error(None, INVALID_REQUEST, too_long)]
        elif line.strip():
            try:
                message: Any = json.loads(line.decode(), parse_constant=_refuse_constant)
            except (ValueError, RecursionError) as error:
                answers = [_error(None, PARSE_ERROR, f"not a JSON text: {error}")]
            else:
                batch = cast("list[Any]", message) if isinstance(message, list) else []
                is_batch = bool(batch) and self._version == BATCH_VERSION
                messages: list[Any] = batch if is_batch else [message]
                answers = await asyncio.gather(*map(self._answer, messages))
        told = [answer for answer in answers if answer is not None]
        if told:
            self._write(json.dumps(told if is_batch else told[0]).encode())

    async def _answer(self, received: Any) -> Message | None:
        """The answer to one message, or None when there is to be none."""
        if not isinstance(received, dict):
            return _error(None, INVALID_REQUEST, "not a JSON object")
        message = cast(Message, received)
        if "method" not in message and ("result" in message or "error" in message):
            return None  # an answer, though this server never asks
        request_id: Any = message.get("id")
        if "id" in message and type(request_id) not in (str, int):
            return _error(None, INVALID_REQUEST, "the id must be a string or an integer")
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
            return None  # its client wants no answer
        except Exception as error:
            logger.exception("Could not answer a request")
            return _error(request_id, INTERNAL_ERROR, f"internal error: {type(error).__name__}")

    def _take_notification(self, method: str, params: Any) -> None:
        asked: Any = cast(Message, params).get("requestId") if isinstance(params, dict) else None
        if method == "notifications/cancelled" and type(asked) in (str, int):
            if (call := self._calls.get(asked)) is not None:
                call.cancel()

    def _initialize(self, params: Message) -> Message:
        asked = params.get("protocolVersion")
        if not isinstance(asked, str):
            raise ProtocolError(INVALID_PARAMS, "protocolVersion must be a string")
        # Versions are dates: the newest that the client may know is the newest up to the one asked.
        known = [version for version in PROTOCOL_VERSIONS if version <= asked]
        self._version = max(known, default=PROTOCOL_VERSIONS[-1])
        info = {"name": "sample_host", "version": __version__}
        return {"protocolVersion": self._version, "capabilities": {"tools": {}}, "serverInfo": info}

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
        if request_id in self._calls:
            raise ProtocolError(INVALID_REQUEST, "a call with this id is running")
        self._calls[request_id] = cast("asyncio.Task[Any]", asyncio.current_task())
        try:
            outcome, content = await self._pipeline.call(tool.name, cast(Message, arguments))
        finally:
            del self._calls[request_id]
        text = valid_unicode(content if isinstance(content, str) else json.dumps(content))
        answer = {"content": [{"type": "text", "text": text}], "isError": outcome is not Outcome.OK}
        return answer if isinstance(content, str) else {**answer, "structuredContent": content}


def _error(request_id: str | int | None, code: int, message: str) -> Message:
    return {"jsonrpc": "2.0", "id": request_id, "error": {"code": code, "message": message}}


def _refuse_constant(name: str) -> None:
    raise ValueError(f"{name} is no JSON value")
