"""What each operator reads to compute a box of its output.

A box is (start, size), two lists in vorn's axis order (axis 0 first). A rule takes the
operator (for its parameters), the box wanted on its output and the image's size, and answers
the box it needs on every input, clipped to the image. The halo comes from the operator itself
(vorn.inputHalo), so a new operator needs no rule here.
"""
from .. import _vorn


def whole(size):
    return [0] * len(size), list(size)


def volume(box):
    count = 1
    for length in box[1]:
        count *= length
    return count


def union(a, b):
    """The bounding box of two boxes; None stands for no box yet."""
    if a is None:
        return b
    start = [min(p, q) for p, q in zip(a[0], b[0])]
    end = [max(p + m, q + n) for p, m, q, n in zip(a[0], a[1], b[0], b[1])]
    return start, [e - s for s, e in zip(start, end)]


def widened(box, radii, size):
    start, length = [], []
    for s, n, r, limit in zip(box[0], box[1], radii, size):
        first, end = max(0, s - r), min(limit, s + n + r)
        start.append(first)
        length.append(end - first)
    return start, length


def needed(kind, op, box, size):
    """The box `op` (of catalog kind `kind`) reads on its inputs to compute `box`: the box
    widened by the operator's own halo, or the whole input for an operator that is not local.
    A parameter it will refuse asks for everything, and the update then reports the operator's
    own message."""
    if kind == "stats":  # passes its input through pixel by pixel; the view shows no figures
        return box
    try:
        halo = _vorn.inputHalo(op, len(size))
    except ValueError:
        return whole(size)
    return whole(size) if halo is None else widened(box, halo, size)


# Kinds whose computation honours the region requested on their output; the others compute
# their whole output whatever they are asked, and are counted so.
REGIONAL = {"gaussian", "median", "gradient", "laplace", "erode", "dilate", "open", "close",
            "math", "math2", "threshold", "cast", "mask"}
