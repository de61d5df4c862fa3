"""Measures the Python module: the cost of a computation written in Python against one in C++,
NumPy inside generateData against NumPy alone on the same amount of data, and the throughput of
vorn.batch over a local Dask cluster of 1 and 2 worker processes.

Usage: PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_python.py [OUT]
(the results are printed, and written to OUT when given)
"""
import os
import statistics
import sys
import tempfile
import time

import numpy as np

import vorn
from vorn.batch import run_batch

CHAIN = 200


class Nothing(vorn.ProcessObject):
    def __init__(self):
        super().__init__()
        self.addInput("ImageObject")
        self.addOutput("ImageObject")

    def generateData(self):
        pass


class Doubler(vorn.ProcessObject):
    def __init__(self):
        super().__init__()
        self.addInput("ImageObject")
        self.addOutput("ImageObject")

    def generateData(self):
        out = self.getOutputPort(0).getData()
        out.import_(self.getInputPort(0).getData(), self)
        np.asarray(out)[...] *= 2


def median_seconds(run, repeats=7):
    times = []
    for _ in range(repeats):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def chain_of(make, source):
    ops = [make() for _ in range(CHAIN)]
    previous = source
    for op in ops:
        op.getInputPort(0).connectTo(previous.getOutputPort(0))
        previous = op
    return ops


def recompute_per_operator(ops, head):
    def run():
        head.setToInvalidated()
        ops[-1].update()
    return median_seconds(run) / len(ops)


def call_overhead():
    """Seconds per call of an empty generateData written in Python, called from C++ as the
    engine calls it; and per recomputed operator of a chain of such operators, everything
    included (the engine's timing line and clock() reads too)."""
    op = Nothing()
    dispatch = vorn._vorn._generateDataSeconds(op, 100000)
    source = _ArraySource(vorn.ImageObject.from_array(np.ones(1, np.float32)))
    with vorn.capture_output():
        chain = recompute_per_operator(chain_of(Nothing, source), source)
    return dispatch, chain


class _ArraySource(vorn.ProcessObject):
    def __init__(self, image):
        super().__init__()
        self.addOutput("ImageObject")
        self.image = image

    def generateData(self):
        self.getOutputPort(0).getData().import_(self.image, self)


def numpy_inside_versus_alone():
    array = np.ones((1024, 4096), np.float32)  # 16 MiB
    source = _ArraySource(vorn.ImageObject.from_array(array))
    doubler = Doubler()
    doubler.getInputPort(0).connectTo(source.getOutputPort(0))
    with vorn.capture_output():
        source.update()
        doubler.update()
        out = np.asarray(doubler.getOutputPort(0).getData())

        def inside():
            np.asarray(doubler.getOutputPort(0).getData())[...] *= 2

        def alone():
            out[...] *= 2

        times = {inside: [], alone: []}
        for _ in range(21):  # alternating, so that both see the same machine
            for run in (inside, alone):
                start = time.perf_counter()
                run()
                times[run].append(time.perf_counter() - start)
        return statistics.median(times[inside]), statistics.median(times[alone])


def batch_throughput(workers, paths, folder):
    import distributed

    text = "read file={input} ! gaussian sigma=2 ! stats ! cast type=uchar ! write file={output}"
    with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        run_batch(text, paths[:2], folder, client)  # workers warm
        start = time.perf_counter()
        results = run_batch(text, paths, folder, client)
        seconds = time.perf_counter() - start
    assert not any(r.error for r in results)
    return len(paths) / seconds


def main():
    results = []
    report = results.append
    dispatch, chain = call_overhead()
    report(f"an empty Python generateData called from C++: {dispatch * 1e9:.0f} ns per call; "
           f"a chain of {CHAIN} such operators: {chain * 1e6:.2f} us per recomputed operator")
    inside, alone = numpy_inside_versus_alone()
    report(f"NumPy doubling 16 MiB: on vorn's buffer {inside * 1e3:.2f} ms, "
           f"on a plain array {alone * 1e3:.2f} ms (ratio {inside / alone:.2f})")
    with tempfile.TemporaryDirectory() as folder:
        rng = np.random.default_rng(1)
        paths = []
        for k in range(32):
            path = os.path.join(folder, f"in{k}.png")
            pixels = rng.integers(0, 256, (512, 512), dtype=np.uint8)
            vorn.writeImageFile(vorn.ImageObject.from_array(pixels), path)
            paths.append(path)
        for workers in (1, 2):
            rate = batch_throughput(workers, paths, os.path.join(folder, f"out{workers}"))
            report(f"batch of 32 PNG 512x512, Gaussian sigma 2: {workers} worker(s) "
                   f"{rate:.1f} images/s")
    print("\n".join(results))
    if len(sys.argv) > 1:
        with open(sys.argv[1], "w") as out:
            out.write("\n".join(results) + "\n")


if __name__ == "__main__":
    main()
