"""python3 -m vorn.view SOURCE "TEXT": serves the slice view and prints its URL."""
import argparse
import signal
import sys
import threading
import webbrowser

import vorn

from . import View, ViewError


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="python3 -m vorn.view",
        description="Tune a pipeline by eye: a slice view that recomputes only what is shown.")
    parser.add_argument("source", help="an image file vorn reads")
    parser.add_argument("text", help='pipeline text without read/write, e.g. "gaussian sigma=2"')
    parser.add_argument("--host", default="127.0.0.1", help="address to bind (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=0, help="port (default 0: a free one)")
    parser.add_argument("--no-browser", action="store_true", help="do not open a browser")
    args = parser.parse_args(argv)
    try:
        handle = View(args.source, args.text, args.host, args.port)
    except (ViewError, vorn.ImageFileError, OSError) as error:
        print("vorn.view: %s" % error, file=sys.stderr)
        return 2
    # Ctrl-C and SIGTERM end the server through an event rather than KeyboardInterrupt, which
    # could land anywhere in the shutdown and end the process by the signal instead.
    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())
    print(handle.url, flush=True)
    if not args.no_browser:
        webbrowser.open(handle.url)
    while not stop.wait(0.5) and handle.running():
        pass
    handle.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
