"""vorn: demand-driven image-processing pipelines whose images share their pixels with NumPy.

Operators derive from ProcessObject (generateData written in Python or C++), connect through
ports and update on demand; ImageObject is a NumPy buffer, and ImageObject.from_array borrows a
NumPy array's memory. run() takes a pipeline as text, as the vorn-run command does.
"""
from ._vorn import *  # noqa: F401,F403 -- the module's whole API
from ._vorn import OutputCapture
from ._version import __version__  # noqa: F401


def capture_output():
    """A context manager: the library's lines go to its `text` instead of standard output."""
    return OutputCapture()


from . import display as _display  # noqa: F401,E402 -- Jupyter's _repr_png_ and _repr_svg_


def __getattr__(name):
    # vorn.view (a web server, tornado) is loaded when first used, not with vorn.
    if name == "view":
        import importlib

        return importlib.import_module(".view", __name__)
    raise AttributeError("module 'vorn' has no attribute %r" % name)
