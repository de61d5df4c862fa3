"""Tune a pipeline by eye: a slice view of an image that recomputes only what is on screen.

    handle = vorn.view("scan.nii.gz", "gaussian sigma=2 ! threshold lower=10")
    print(handle.url)   # the page, its token included; in Jupyter the handle shows it
    handle.close()

From a shell: python3 -m vorn.view SOURCE "TEXT" [--host 127.0.0.1] [--port 0] [--no-browser].
SOURCE is a file vorn reads, a NumPy array or an ImageObject; TEXT is vorn-run's pipeline text
without read or write. The server answers only requests carrying the URL's token.
"""
import asyncio
import html
import secrets
import sys
import threading
import types

from .engine import SliceEngine, ViewError  # noqa: F401 -- part of the API

__all__ = ["View", "ViewError", "view"]


class View:
    """A running view: its page is at `url` until close()."""

    def __init__(self, source, text, host="127.0.0.1", port=0, cache_bytes=256 << 20):
        from . import server

        self.engine = SliceEngine(source, text, cache_bytes)
        self.worker = server.Worker(self.engine)
        self.token = secrets.token_urlsafe(18)
        self._loop = asyncio.new_event_loop()
        started = threading.Event()
        # Waited on instead of joining the thread: a join that Ctrl-C interrupts may wrongly
        # report the thread finished.
        self._stopped = threading.Event()
        failure = []

        def serve():
            asyncio.set_event_loop(self._loop)
            try:
                self._server, self.port = server.listen(self, host, port)
            except OSError as error:
                failure.append(error)
                started.set()
                return
            started.set()
            try:
                self._loop.run_forever()
            finally:
                self._stopped.set()

        self._thread = threading.Thread(target=serve, name="vorn-view-server", daemon=True)
        self._thread.start()
        started.wait()
        if failure:
            self.worker.close()
            raise failure[0]
        shown = "[%s]" % host if ":" in host else host
        self.url = "http://%s:%d/?token=%s" % (shown, self.port, self.token)

    def close(self):
        """Stops the server and frees the pipeline; idempotent."""
        if self._thread is None:
            return

        async def stop():
            self._server.stop()
            await self._server.close_all_connections()

        try:
            asyncio.run_coroutine_threadsafe(stop(), self._loop).result(10)
        except Exception:  # noqa: BLE001 -- a connection that will not close is dropped below
            pass
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._stopped.wait()
        self._loop.close()
        self.worker.close()
        self._thread = None

    def running(self):
        """Whether the server still serves."""
        return self._thread is not None and not self._stopped.is_set()

    def wait(self):
        """Blocks until the server stops (Ctrl-C ends it)."""
        try:
            while self._thread is not None and not self._stopped.wait(0.5):
                pass
        except KeyboardInterrupt:
            pass
        finally:
            self.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        return "<vorn view %s>" % self.url

    def _repr_html_(self):
        return ('<iframe src="%s" width="100%%" height="640" style="border:0"></iframe>'
                % html.escape(self.url))


def view(source, text, host="127.0.0.1", port=0, cache_bytes=256 << 20):
    """Serves the slice view of `text` applied to `source`; returns the running View."""
    return View(source, text, host, port, cache_bytes)


class _CallableModule(types.ModuleType):
    # vorn.view is both this package (python3 -m vorn.view) and the function.
    def __call__(self, *args, **kwargs):
        return view(*args, **kwargs)


sys.modules[__name__].__class__ = _CallableModule
