"""Times each intensity and geometry operator of vorn against the NumPy, scipy or skimage call
it is tested against, on the same 256^3 float volume in the same run, and prints a markdown
table (median of 3 runs or more; vorn at threads=1 and at threads=0, every usable core, its
output's computation alone, recomputed into the buffer its first run allocated, as a pipeline
updated again does).

Usage: PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_scipy_intensity.py [SIZE [ONLY]]
(ONLY: comma-separated words; only the rows whose title contains one of them run)
"""
import statistics
import sys
import time

import numpy as np
import scipy.ndimage as ndi
from skimage.exposure import rescale_intensity
from skimage.filters import threshold_otsu

import vorn

REPEATS = 3


class Source(vorn.ProcessObject):
    """Hands out a copy of an image, once."""

    def __init__(self, array):
        super().__init__()
        self.addOutput("ImageObject")
        self.image = vorn.ImageObject.from_array(array, copy=True)

    def generateData(self):
        self.getOutputPort(0).getData().import_(self.image, self)


def median_seconds(run):
    """The median of REPEATS runs or more: short ones repeat for a second, as one preemption of
    the process would otherwise be the whole figure."""
    times = []
    while len(times) < REPEATS or (sum(times) < 1 and len(times) < 50):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def vorn_seconds(name, parameters, sources, threads):
    op = vorn.createOperator(name)
    for index, source in enumerate(sources):
        op.setInputPort(index, source.getOutputPort(0))
    for key, value in dict(parameters, threads=threads).items():
        op.setParameterValue(key, value)
    if hasattr(op, "silence"):
        op.silence()
    op.update()  # the sources compute here, once

    def again():
        op.setToInvalidated()
        op.update()

    return median_seconds(again)


def label_figures(a, labels):
    index = np.arange(1, labels.max() + 1)
    return (ndi.sum_labels(np.ones_like(a), labels, index), ndi.minimum(a, labels, index),
            ndi.maximum(a, labels, index), ndi.mean(a, labels, index),
            ndi.standard_deviation(a, labels, index), ndi.sum_labels(a, labels, index),
            ndi.find_objects(labels))


def resample_coordinates(shape, factor):
    axes = [(np.arange(n // factor) + 0.5) * factor - 0.5 for n in shape]
    return np.stack(np.meshgrid(*axes, indexing="ij"))


def main():
    size = int(sys.argv[1]) if len(sys.argv) > 1 else 256
    only = sys.argv[2].split(",") if len(sys.argv) > 2 else [""]
    rng = np.random.default_rng(0)
    a = ndi.gaussian_filter(rng.random((size,) * 3, dtype=np.float32), 2)
    b = rng.random((size,) * 3, dtype=np.float32) + 0.5
    labels = (rescale_intensity(a, out_range=(0, 7.999)) + 1).astype(np.uint8)
    coordinates = resample_coordinates(a.shape, 2)
    edge, half = size // 8, size // 2
    cases = [
        *[(f"gaussian sigma={sigma}", "gaussian", {"sigma": str(sigma)}, [a],
           f"gaussian_filter(a, {sigma}, mode='nearest', truncate=4)",
           lambda sigma=sigma: ndi.gaussian_filter(a, sigma, mode="nearest", truncate=4.0))
          for sigma in (1, 2, 4)],
        ("math op=add value=1.5", "math", {"op": "add", "value": "1.5"}, [a],
         "a + np.float32(1.5)", lambda: a + np.float32(1.5)),
        ("math op=log", "math", {"op": "log"}, [a], "np.log(a)", lambda: np.log(a)),
        ("math2 op=mul", "math2", {"op": "mul"}, [a, b], "a * b", lambda: a * b),
        ("rescale", "rescale", {}, [a], "rescale_intensity(a, out_range=(0, 1))",
         lambda: rescale_intensity(a, out_range=(0.0, 1.0))),
        ("otsu", "otsu", {}, [a], "a > threshold_otsu(a)", lambda: a > threshold_otsu(a)),
        ("labelstats (8 labels)", "labelstats", {}, [a, labels], "ndi.sum_labels, minimum, ... per label",
         lambda: label_figures(a, labels)),
        ("crop to half", "crop", {"start": str(edge), "size": str(half)}, [a],
         "a[s:e, s:e, s:e].copy()", lambda: a[edge:edge + half, edge:edge + half, edge:edge + half].copy()),
        ("pad 8 reflect", "pad", {"before": "8", "after": "8", "mode": "reflect"}, [a],
         "np.pad(a, 8, 'reflect')", lambda: np.pad(a, 8, "reflect")),
        ("flip", "flip", {}, [a], "np.flip(a).copy()", lambda: np.flip(a).copy()),
        ("permute 2,0,1", "permute", {"order": "2,0,1"}, [a],
         "np.ascontiguousarray(a.transpose(1, 2, 0))",
         lambda: np.ascontiguousarray(a.transpose(1, 2, 0))),
        ("resample to half, order 1", "resample", {"size": str(half), "order": "1"}, [a],
         "map_coordinates(order=1, mode='nearest')",
         lambda: ndi.map_coordinates(a, coordinates, order=1, mode="nearest")),
        ("resample to half, order 3", "resample", {"size": str(half), "order": "3"}, [a],
         "map_coordinates(order=3, mode='nearest')",
         lambda: ndi.map_coordinates(a, coordinates, order=3, mode="nearest")),
    ]
    print(f"{size}^3 float32, median of {REPEATS} runs or more; vorn at threads=1 and at every core\n")
    print("| operator | vorn 1 thread (ms) | vorn all (ms) | reference | reference (ms) | "
          "vorn 1 thread / reference | vorn all / reference |")
    print("|---|---|---|---|---|---|---|")
    with vorn.capture_output():
        sources = {id(x): Source(x) for x in (a, b, labels)}
        rows = []
        for title, name, parameters, inputs, reference, call in cases:
            if not any(word in title for word in only):
                continue
            feeds = [sources[id(x)] for x in inputs]
            ours = vorn_seconds(name, parameters, feeds, "1")
            all_cores = vorn_seconds(name, parameters, feeds, "0")
            with np.errstate(all="ignore"):
                theirs = median_seconds(call)
            rows.append(f"| {title} | {ours * 1e3:.1f} | {all_cores * 1e3:.1f} | `{reference}` | "
                        f"{theirs * 1e3:.1f} | {ours / theirs:.2f} | {all_cores / theirs:.2f} |")
        sources.clear()
    print("\n".join(rows))


if __name__ == "__main__":
    main()
