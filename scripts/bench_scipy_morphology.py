"""Times vorn's filters and morphology against their scipy.ndimage counterparts on a 256^3
volume: a float volume of noise, and a 0/1 mask of blobs (the noise smoothed and thresholded).
vorn runs on 1 thread and on every usable core (threads=0); each result is checked against
scipy's before it is timed. The median runs on the volume's first M^3 corner: scipy's takes
about 10 minutes at 256^3 and size 9.

Usage: PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_scipy_morphology.py [N [M [ONLY]]]
(N: the edge of the volume, 256 by default; M: the median's, 128; ONLY: comma-separated words,
only the rows whose title contains one of them run; prints a Markdown table)
"""
import statistics
import sys
import time

import numpy as np
import scipy.ndimage as ndi

import vorn


class ArraySource(vorn.ProcessObject):
    def __init__(self, array):
        super().__init__()
        self.addOutput("ImageObject")
        self.image = vorn.ImageObject.from_array(array)

    def generateData(self):
        self.getOutputPort(0).getData().import_(self.image, self)


def seconds(run):
    """The median of 3 runs, or 1 run when it takes more than 2 seconds."""
    times = []
    while len(times) < 3:
        start = time.perf_counter()
        result = run()
        times.append(time.perf_counter() - start)
        if times[0] > 2:
            break
    return statistics.median(times), result


def run_vorn(array, name, threads, **parameters):
    source = ArraySource(array)
    op = vorn.createOperator(name)
    op.getInputPort(0).connectTo(source.getOutputPort(0))
    for key, value in dict(parameters, threads=threads).items():
        op.setParameterValue(key, str(value))
    with vorn.capture_output():
        source.update()

        def once():
            op.setToInvalidated()
            op.update()
            return np.array(op.getOutputPort(0).getData())

        return seconds(once)


def ball(r, ndim=3):
    x = np.arange(-r, r + 1)
    grids = np.meshgrid(*([x] * ndim), indexing="ij")
    return sum(g * g for g in grids) <= r * r


def cases(volume, mask, m):
    corner = np.ascontiguousarray(volume[:m, :m, :m])
    for r in (1, 2, 4):
        yield f"median size {2 * r + 1} ({m}^3)", corner, ("median", {"size": 2 * r + 1}), \
            lambda a, r=r: ndi.median_filter(a, 2 * r + 1, mode="nearest"), "equal"
    for op, ref in (("erode", ndi.grey_erosion), ("dilate", ndi.grey_dilation),
                    ("open", ndi.grey_opening), ("close", ndi.grey_closing)):
        for r in (1, 2, 4):
            yield f"{op} ball r={r}", volume, (op, {"radius": r}), \
                lambda a, ref=ref, r=r: ref(a, footprint=ball(r), mode="nearest"), "equal"
    for r in (1, 2, 4):
        yield f"erode ball r={r}, 0/1 mask", mask, ("erode", {"radius": r}), \
            lambda a, r=r: ndi.grey_erosion(a, footprint=ball(r), mode="nearest"), "equal"
        yield f"erode box r={r}", volume, ("erode", {"radius": r, "shape": "box"}), \
            lambda a, r=r: ndi.grey_erosion(a, size=2 * r + 1, mode="nearest"), "equal"
    yield "gradient sigma 2", volume, ("gradient", {"sigma": 2}), \
        lambda a: ndi.gaussian_gradient_magnitude(a, 2, mode="nearest", truncate=4), "close"
    yield "laplace sigma 2", volume, ("laplace", {"sigma": 2}), \
        lambda a: ndi.gaussian_laplace(a, 2, mode="nearest", truncate=4), "close"
    yield "label, 0/1 mask", mask, ("label", {}), lambda a: ndi.label(a)[0], "equal"
    yield "largest, 0/1 mask", mask, ("largest", {}), largest, "equal"
    yield "fill, 0/1 mask", mask, ("fill", {}), ndi.binary_fill_holes, "equal"
    yield "distance, 0/1 mask", mask, ("distance", {}), ndi.distance_transform_edt, "close"


def largest(a):
    labels, _ = ndi.label(a)
    sizes = np.bincount(labels.ravel())
    sizes[0] = 0
    return labels == np.argmax(sizes)


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 256
    m = int(sys.argv[2]) if len(sys.argv) > 2 else 128
    only = sys.argv[3].split(",") if len(sys.argv) > 3 else [""]
    rng = np.random.default_rng(1)
    volume = rng.random((n, n, n), dtype=np.float32)
    mask = (ndi.gaussian_filter(volume, 3) > 0.5).astype(np.uint8)
    print(f"| {n}^3 | vorn 1 thread s | vorn all s | scipy s | vorn 1 / scipy | vorn all / scipy |")
    print("|---|---|---|---|---|---|")
    for title, array, (name, parameters), reference, match in cases(volume, mask, m):
        if not any(word in title for word in only):
            continue
        mine, ours = run_vorn(array, name, "1", **parameters)
        every, theirs_too = run_vorn(array, name, "0", **parameters)
        assert np.array_equal(ours, theirs_too), title
        theirs, expected = seconds(lambda: reference(array))
        if match == "equal":
            assert np.array_equal(ours, np.asarray(expected, ours.dtype)), title
        else:
            assert np.allclose(ours, expected, rtol=1e-4, atol=1e-4), title
        print(f"| {title} | {mine:.3f} | {every:.3f} | {theirs:.3f} | {mine / theirs:.2f} | "
              f"{every / theirs:.2f} |", flush=True)


if __name__ == "__main__":
    main()
