"""The view's web server (tornado): the page, the HTTP API and the page's WebSocket.

One worker thread owns the engine, so computations never overlap. A WebSocket keeps at most
one request waiting: a request that arrives while another computes replaces the waiting one,
its parameter changes merged in, so the slider never builds a backlog. HTTP requests are
served one after the other, none superseded.
"""
import asyncio
import concurrent.futures
import hmac
import io
import json
import os
import struct

import numpy as np
import tornado.httpserver
import tornado.netutil
import tornado.web
import tornado.websocket

from .controls import controls
from .engine import ViewError

STATIC = os.path.join(os.path.dirname(__file__), "static")


def parse_changes(pairs):
    """{(stage, parameter): value} from "stage.parameter" keys; ViewError for other keys."""
    changes = {}
    for key, value in pairs.items():
        stage, dot, parameter = key.rpartition(".")
        if not dot or not stage or not parameter:
            raise ViewError("%r: expected STAGE.PARAMETER=VALUE, e.g. gaussian.sigma=2" % key)
        changes[(stage, parameter)] = value
    return changes


def whole_number(text, what):
    try:
        return int(text)
    except (TypeError, ValueError):
        raise ViewError("%s %r: expected a whole number" % (what, text)) from None


def frame(header, *arrays):
    """A binary message: header length (uint32), JSON header padded to 8 bytes, the arrays."""
    text = json.dumps(header).encode()
    text += b" " * (-(len(text) + 4) % 8)
    parts = [struct.pack("<I", len(text)), text]
    for array in arrays:
        data = np.ascontiguousarray(array).astype(array.dtype.newbyteorder("<"), copy=False)
        parts.append(data.tobytes())
        parts.append(b"\0" * (-len(parts[-1]) % 8))
    return b"".join(parts)


class Worker:
    """The engine, used by one thread only."""

    def __init__(self, engine):
        self.engine = engine
        self.pool = concurrent.futures.ThreadPoolExecutor(1, thread_name_prefix="vorn-view")

    async def slice(self, axis, index, changes):
        loop = asyncio.get_running_loop()
        return await loop.run_in_executor(self.pool, self.engine.slice, axis, index, changes)

    def close(self):
        self.pool.shutdown(wait=True)


class _Guarded(tornado.web.RequestHandler):
    def initialize(self, view):
        self.view = view

    def prepare(self):
        given = self.get_query_argument("token", "")
        if not hmac.compare_digest(given.encode(), self.view.token.encode()):
            raise tornado.web.HTTPError(403, reason="token missing or wrong")

    def fail(self, message):
        self.set_status(400)
        self.set_header("Content-Type", "text/plain; charset=utf-8")
        self.finish(message + "\n")


class PageHandler(_Guarded):
    def get(self, name):
        files = {"": ("index.html", "text/html"), "view.js": ("view.js", "text/javascript")}
        if name not in files:
            raise tornado.web.HTTPError(404)
        filename, kind = files[name]
        self.set_header("Content-Type", kind + "; charset=utf-8")
        self.set_header("Cache-Control", "no-store")
        with open(os.path.join(STATIC, filename), "rb") as page:
            self.finish(page.read())


class InfoHandler(_Guarded):
    def get(self):
        engine = self.view.engine
        integer = engine.pixels.dtype.kind != "f"
        self.finish({"size": engine.shape3, "dtype": str(engine.pixels.dtype),
                     "range": engine.range, "stages": controls(engine.stages, engine.range, integer),
                     "heldBytes": engine.held_bytes()})


class SliceHandler(_Guarded):
    async def get(self):
        arguments = {k: self.get_query_argument(k) for k in self.request.query_arguments}
        arguments.pop("token", None)
        try:
            axis = whole_number(arguments.pop("axis", None), "axis")
            index = whole_number(arguments.pop("index", None), "index")
            result, cost = await self.view.worker.slice(axis, index, parse_changes(arguments))
        except ViewError as error:
            return self.fail(str(error))
        buffer = io.BytesIO()
        np.save(buffer, result)
        self.set_header("Content-Type", "application/octet-stream")
        self.set_header("X-Vorn-Compute-Ms", "%.3f" % cost["ms"])
        self.set_header("X-Vorn-Operators-Recomputed", str(cost["operators"]))
        self.set_header("X-Vorn-Recomputed", ",".join(cost["recomputed"]))
        self.set_header("X-Vorn-Pixels-Computed", str(cost["pixels"]))
        self.finish(buffer.getvalue())


class SocketHandler(tornado.websocket.WebSocketHandler):
    """Messages in: {"id", "axis", "index", "set": {"stage.parameter": value}}. Out: a frame
    per answered request, or {"id", "error"} as text."""

    def initialize(self, view):
        self.view = view
        self.waiting = None
        self.busy = False
        self.sent_slice = None

    async def get(self, *args, **kwargs):
        given = self.get_query_argument("token", "")
        if not hmac.compare_digest(given.encode(), self.view.token.encode()):
            raise tornado.web.HTTPError(403, reason="token missing or wrong")
        await super().get(*args, **kwargs)

    def on_message(self, message):
        try:
            request = json.loads(message)
            changes = parse_changes(request.get("set") or {})
            changes = {key: str(value) for key, value in changes.items()}
        except (ValueError, AttributeError) as error:
            self.write_message(json.dumps({"id": None, "error": str(error)}))
            return
        if self.waiting is not None:
            changes = {**self.waiting["changes"], **changes}
        self.waiting = {"id": request.get("id"), "axis": request.get("axis"),
                        "index": request.get("index"), "changes": changes}
        if not self.busy:
            asyncio.ensure_future(self.drain())

    async def drain(self):
        self.busy = True
        try:
            while self.waiting is not None:
                request, self.waiting = self.waiting, None
                await self.answer(request)
        finally:
            self.busy = False

    async def answer(self, request):
        axis, index = request["axis"], request["index"]
        try:
            result, cost = await self.view.worker.slice(axis, index, request["changes"])
        except ViewError as error:
            return self.send({"id": request["id"], "error": str(error)})
        header = {"id": request["id"], "axis": axis, "index": index, "cost": cost,
                  "shape": list(result.shape), "dtype": str(result.dtype),
                  "heldBytes": self.view.engine.held_bytes()}
        arrays = [result]
        if self.sent_slice != (axis, index):
            source = self.view.engine.input_slice(axis, index)
            header.update(inputShape=list(source.shape), inputDtype=str(source.dtype))
            arrays.append(source)
            self.sent_slice = (axis, index)
        self.send(frame(header, *arrays))

    def send(self, message):
        if isinstance(message, dict):
            message = json.dumps(message)
        try:
            self.write_message(message, binary=isinstance(message, bytes))
        except tornado.websocket.WebSocketClosedError:
            pass


def application(view):
    return tornado.web.Application([
        (r"/api/info", InfoHandler, {"view": view}),
        (r"/api/slice", SliceHandler, {"view": view}),
        (r"/ws", SocketHandler, {"view": view}),
        (r"/(|view\.js)", PageHandler, {"view": view}),
    ], websocket_max_message_size=1 << 20, log_function=lambda handler: None)


def listen(view, host, port):
    """Binds the server; answers the port (a free one when `port` is 0)."""
    sockets = tornado.netutil.bind_sockets(port, address=host)
    server = tornado.httpserver.HTTPServer(application(view))
    server.add_sockets(sockets)
    return server, sockets[0].getsockname()[1]
