"""How images and operators show themselves in Jupyter.

An ImageObject shows as a PNG: a 2-D image as it is, a 3-D one as the middle slice along each
axis side by side, stretched from the image's smallest to its largest value onto 0..255 (NaN
black). A ProcessObject shows the graph upstream of it: an SVG drawn by Graphviz's `dot` when
it is installed, the DOT text otherwise.
"""
import shutil
import struct
import subprocess
import zlib

import numpy as np

from ._vorn import ImageObject, PixelType, ProcessObject, writeGraphviz

_GAP = 2  # pixels between the slices of a volume


def _stretch(array):
    values = np.asarray(array, dtype=np.float64)
    finite = values[np.isfinite(values)]
    low, high = (finite.min(), finite.max()) if finite.size else (0.0, 0.0)
    scale = 255.0 / (high - low) if high > low else 0.0
    out = np.clip((np.nan_to_num(values, nan=low) - low) * scale, 0, 255)
    return np.rint(out).astype(np.uint8)


def _side_by_side(planes):
    height = max(p.shape[0] for p in planes)
    width = sum(p.shape[1] for p in planes) + _GAP * (len(planes) - 1)
    canvas = np.zeros((height, width), np.uint8)
    left = 0
    for plane in planes:
        canvas[: plane.shape[0], left : left + plane.shape[1]] = plane
        left += plane.shape[1] + _GAP
    return canvas


def _chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def png_bytes(gray):
    """An 8-bit grey PNG of a 2-D uint8 array, written with zlib alone."""
    height, width = gray.shape
    rows = np.hstack([np.zeros((height, 1), np.uint8), gray])  # filter type 0 per row
    header = struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + _chunk(b"IHDR", header)
            + _chunk(b"IDAT", zlib.compress(rows.tobytes(), 6)) + _chunk(b"IEND", b""))


def _image_png(image):
    if image.getPixelNumber() == 0 or image.getPointType() == PixelType.UNKNOWN:
        return None
    pixels = _stretch(np.asarray(image))
    if pixels.ndim == 1:
        return png_bytes(pixels[np.newaxis, :])
    if pixels.ndim == 2:
        return png_bytes(pixels)
    if pixels.ndim == 3:
        middle = [n // 2 for n in pixels.shape]
        planes = [pixels[middle[0]], pixels[:, middle[1]], pixels[:, :, middle[2]]]
        return png_bytes(_side_by_side(planes))
    return None


def _graph_dot(op):
    return writeGraphviz([op])


def _graph_svg(op):
    dot = shutil.which("dot")
    if dot is None:
        return None
    try:
        drawn = subprocess.run([dot, "-Tsvg"], input=_graph_dot(op).encode(), capture_output=True,
                               timeout=30, check=True)
    except (OSError, subprocess.SubprocessError):
        return None
    return drawn.stdout.decode("utf-8", "replace")


def _graph_markdown(op):
    """What Jupyter shows when there is no SVG: the DOT text."""
    return "```dot\n" + _graph_dot(op) + "```"


ImageObject._repr_png_ = _image_png
ProcessObject._repr_svg_ = _graph_svg
ProcessObject._repr_markdown_ = _graph_markdown
