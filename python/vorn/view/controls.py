"""One control per parameter, from the operator's own catalog declaration.

The catalog declares a parameter's name, default and help line, not its range, so a slider's
range is derived: "A to B" in the help gives [A, B]; an empty default (an optional bound or
value) spans the image's range; a numeric default d spans [0, 4d] (or [2d, -2d] when d < 0,
the image's range when d = 0); a help line listing words ("uchar, short or float") gives a
choice. Every control also takes text, for values no slider shows (sigma=2,1,0.5).
"""
import math
import re

import vorn

_BETWEEN = re.compile(r"(-?\d+(?:\.\d+)?) to (-?\d+(?:\.\d+)?)")


def _number(text):
    try:
        value = float(text)
    except ValueError:
        return None
    return value if math.isfinite(value) else None


def _choices(help_text, default):
    words = [w.strip() for w in re.split(r",| or ", help_text)]
    return words if default in words and all(re.fullmatch(r"\w+", w) for w in words) else None


def _span(declared, image_range, integer_image):
    """(low, high, whole numbers only), or None when no slider fits."""
    between = _BETWEEN.search(declared["help"])
    if between:
        low, high = float(between.group(1)), float(between.group(2))
        return low, high, low.is_integer() and high.is_integer()
    default = _number(declared["default"])
    if declared["default"] == "" or default == 0:
        return image_range[0], image_range[1], integer_image
    if default is None:
        return None
    return (0.0, 4 * default, False) if default > 0 else (2 * default, -2 * default, False)


def control(declared, current, image_range, integer_image):
    """The control of one parameter: its declaration, current value and slider, if any."""
    entry = {"name": declared["name"], "help": declared["help"], "default": declared["default"],
             "value": current}
    choices = _choices(declared["help"], declared["default"])
    if choices:
        entry["choices"] = choices
        return entry
    span = _span(declared, image_range, integer_image)
    if span is None:
        return entry
    low, high, integral = span
    value = _number(current)
    if value is not None:
        low, high = min(low, value), max(high, value)
    step = 1 if integral else (high - low) / 200 or 1
    entry["range"] = [low, high, step]
    return entry


def controls(stages, image_range, integer_image):
    """Every stage's parameters, in the order the catalog lists them."""
    out = []
    for stage in stages:
        info = vorn.operatorInfo(stage.kind)
        params = [control(p, stage.op.getParameterValue(p["name"]), image_range, integer_image)
                  for p in info["parameters"]]
        out.append({"name": stage.name, "kind": stage.kind, "summary": info["summary"],
                    "parameters": params})
    return out
