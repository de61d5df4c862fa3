"""What each operator reads to compute a box of its output, keyed by catalog name.

A box is (start, size), two lists in vorn's axis order (axis 0 first). A rule takes the
operator (for its parameters), the box wanted on its output and the image's size, and answers
the box it needs on every input, clipped to the image. An operator without a rule is assumed to
read its whole input, which is always right, only slower. Operators added to the catalog add
their rule here with `register`.
"""


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


def pointwise(op, box, size):
    return box


def whole_input(op, box, size):
    return whole(size)


def gaussian(op, box, size):
    # The kernel's radius along each axis, as the operator computes it; a sigma it will refuse
    # asks for everything, and the update then reports the operator's own message.
    try:
        sigmas = [float(word) for word in op.getParameterValue("sigma").split(",")]
    except ValueError:
        return whole(size)
    if len(sigmas) == 1:
        sigmas = sigmas * len(size)
    if len(sigmas) != len(size) or any(not 0 <= s <= 1e6 for s in sigmas):
        return whole(size)
    return widened(box, [int(4.0 * s + 0.5) for s in sigmas], size)


RULES = {
    "gaussian": gaussian,
    "threshold": pointwise,
    "cast": pointwise,
    "mask": pointwise,
    "stats": pointwise,
}

# Kinds whose computation honours the region requested on their output; the others compute
# their whole output whatever they are asked, and are counted so.
REGIONAL = {"gaussian"}


def register(kind, rule, regional=False):
    """Adds or replaces the rule of the catalog operator `kind`."""
    RULES[kind] = rule
    if regional:
        REGIONAL.add(kind)
    else:
        REGIONAL.discard(kind)


def needed(kind, op, box, size):
    """The box `op` (of catalog kind `kind`) reads on its inputs to compute `box`."""
    return RULES.get(kind, whole_input)(op, box, size)
