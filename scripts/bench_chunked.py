#!/usr/bin/env python3
"""Figures of vorn.chunked: a float32 volume streamed Zarr -> gaussian sigma=2 -> threshold ->
Zarr through two worker processes with a memory limit each, against the same pipeline on the
whole volume in one process and against dask's map_overlap with scipy's gaussian_filter.

    PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_chunked.py [--gib 1] [--dir D]

Prints one line per measurement, with the load average. The volume of --gib GiB is written once
(uncompressed chunks of 128^3); the scaling runs take 1/8, 1/4, 1/2 and all of it. Both the
chunked run and map_overlap first run once on the eighth (warm workers, source in the page
cache); ratios are of wall time and of the workers' CPU time. Memory: the whole-volume run holds
the input, a float output and a byte output (about 2.3 x the volume); the rest stays small.
"""
import argparse
import os
import resource
import shutil
import sys
import tempfile
import threading
import time

import numpy as np

TEXT = "gaussian sigma=2 ! threshold lower=120"
CHUNK = 128


def make_volume(path, planes, side):
    import zarr

    array = zarr.open(path, mode="w", shape=(planes, side, side), chunks=(CHUNK,) * 3,
                      dtype=np.float32, compressor=None)
    rng = np.random.default_rng(1)
    for z in range(0, planes, CHUNK):
        slab = rng.uniform(0, 255, (min(CHUNK, planes - z), side, side)).astype(np.float32)
        array[z:z + slab.shape[0]] = slab
    return array


def crop(source, path, planes):
    import zarr

    whole = zarr.open(source, mode="r")
    array = zarr.open(path, mode="w", shape=(planes,) + whole.shape[1:], chunks=whole.chunks,
                      dtype=np.float32, compressor=None)
    for z in range(0, planes, CHUNK):
        array[z:z + CHUNK] = whole[z:min(planes, z + CHUNK)]


def read_through(source):
    """Reads every chunk file once, so that a timed run finds the source in the page cache (as
    far as the machine's memory allows) whichever run came before it."""
    for name in os.listdir(source):
        with open(os.path.join(source, name), "rb") as file:
            while file.read(1 << 24):
                pass


def peak_rss_mib():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024


def cpu_seconds():
    return time.process_time()


class RssSampler:
    """The highest resident memory of each worker process, sampled every 20 ms."""

    def __init__(self, client):
        import psutil

        self.processes = {pid: psutil.Process(pid) for pid in client.run(os.getpid).values()}
        self.peaks = {pid: 0 for pid in self.processes}
        self.running = True
        self.thread = threading.Thread(target=self.sample, daemon=True)
        self.thread.start()

    def sample(self):
        while self.running:
            for pid, process in self.processes.items():
                try:
                    self.peaks[pid] = max(self.peaks[pid], process.memory_info().rss)
                except Exception:  # a worker restarted: its successor is not followed
                    pass
            time.sleep(0.02)

    def stop(self):
        self.running = False
        self.thread.join()
        return [peak / 2**20 for peak in self.peaks.values()]


def chunked_run(client, source, destination):
    from vorn import chunked

    shutil.rmtree(destination, ignore_errors=True)
    result = chunked.run(TEXT, source, destination, client=client)
    return result.seconds, result.bytes


def whole_run(source, destination):
    import zarr
    from vorn import chunked

    start = time.perf_counter()
    pixels = zarr.open(source, mode="r")[...]
    output, _ = chunked.compute(TEXT, pixels)
    zarr.open(destination, mode="w", shape=output.shape, chunks=(CHUNK,) * 3, dtype=output.dtype,
              compressor=None)[...] = output
    return time.perf_counter() - start, pixels.nbytes


def scipy_filter(block):
    import scipy.ndimage

    return scipy.ndimage.gaussian_filter(block, 2.0, truncate=4.0, mode="nearest") >= 120


def scipy_run(client, source, destination):
    import dask.array as da

    shutil.rmtree(destination, ignore_errors=True)
    start = time.perf_counter()
    volume = da.from_zarr(source)
    out = volume.map_overlap(scipy_filter, depth=8, boundary="none", dtype=bool)
    # Stored uncompressed, as the source is and as vorn.chunked stores its output from it.
    client.compute(out.to_zarr(destination, compute=False, overwrite=True, compressor=None),
                   sync=True)
    return time.perf_counter() - start, volume.nbytes


def rate(seconds, size):
    return size / 1e6 / seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--gib", type=float, default=1.0, help="volume size")
    parser.add_argument("--limit", default="256MiB", help="memory limit of each worker")
    parser.add_argument("--scipy-limit", default="1536MiB",
                        help="memory limit of each worker for map_overlap with scipy")
    parser.add_argument("--dir", default=None, help="where the Zarr arrays go (default: a temp)")
    args = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)  # in order with the workers' warnings
    from distributed import Client

    from vorn import chunked

    folder = tempfile.mkdtemp(prefix="vorn-bench-", dir=args.dir)
    side = 512
    planes = int(args.gib * 2**30 / 4 / side / side) // CHUNK * CHUNK
    try:
        source = os.path.join(folder, "in.zarr")
        make_volume(source, planes, side)
        size = planes * side * side * 4
        print(f"volume {planes}x{side}x{side} float32 = {size / 2**30:.2f} GiB, chunks {CHUNK}^3, "
              f"workers 2 x {args.limit}; load average {os.getloadavg()[0]:.1f}")
        warm = os.path.join(folder, "in-8.zarr")
        crop(source, warm, planes // 8)
        with chunked.local_cluster(2, memory_limit=args.limit) as cluster, \
                Client(cluster) as client:
            # Each side first runs once on an eighth: its workers have imported what they use
            # and the source is in the page cache for both, so neither pays the other's start.
            chunked_run(client, warm, os.path.join(folder, "warm.zarr"))
            idle = client.run(lambda: __import__("psutil").Process().memory_info().rss / 2**20)
            read_through(source)
            sampler = RssSampler(client)
            cpu = sum(client.run(cpu_seconds).values())
            seconds, size = chunked_run(client, source, os.path.join(folder, "out.zarr"))
            cpu = sum(client.run(cpu_seconds).values()) - cpu
            peaks = sampler.stop()
            print(f"chunked, 2 workers: {seconds:.1f} s, {rate(seconds, size):.1f} MB/s, "
                  f"{cpu:.1f} worker CPU s; worker peak RSS "
                  f"{', '.join(f'{p:.0f}' for p in peaks)} MiB (idle "
                  f"{', '.join(f'{p:.0f}' for p in idle.values())}; limit {args.limit})")
            for part in (8, 4, 2, 1):
                cropped = os.path.join(folder, f"in-{part}.zarr")
                if part not in (1, 8):
                    crop(source, cropped, planes // part)
                part_cpu = sum(client.run(cpu_seconds).values())
                part_seconds, part_size = chunked_run(client, cropped if part > 1 else source,
                                                      os.path.join(folder, f"out-{part}.zarr"))
                part_cpu = sum(client.run(cpu_seconds).values()) - part_cpu
                print(f"scaling: {part_size / 2**20:.0f} MiB in {part_seconds:.1f} s "
                      f"({rate(part_seconds, part_size):.1f} MB/s), {part_cpu:.1f} worker CPU s")
                shutil.rmtree(os.path.join(folder, f"out-{part}.zarr"), ignore_errors=True)
        # map_overlap keeps neighbouring chunks in worker memory: under the chunked run's limit
        # its workers pause and the run stalls, so it gets a limit it can finish with.
        with chunked.local_cluster(2, memory_limit=args.scipy_limit) as cluster, \
                Client(cluster) as client:
            scipy_run(client, warm, os.path.join(folder, "scipy.zarr"))
            read_through(source)
            scipy_cpu = sum(client.run(cpu_seconds).values())
            scipy_seconds, _ = scipy_run(client, source, os.path.join(folder, "scipy.zarr"))
            scipy_cpu = sum(client.run(cpu_seconds).values()) - scipy_cpu
            print(f"map_overlap + scipy gaussian_filter, 2 workers x {args.scipy_limit}: "
                  f"{scipy_seconds:.1f} s, "
                  f"{rate(scipy_seconds, size):.1f} MB/s, {scipy_cpu:.1f} worker CPU s; "
                  f"vorn.chunked is {scipy_seconds / seconds:.1f}x faster "
                  f"({scipy_cpu / cpu:.1f}x in CPU time)")
        whole_cpu = cpu_seconds()
        whole_seconds, _ = whole_run(source, os.path.join(folder, "whole.zarr"))
        whole_cpu = cpu_seconds() - whole_cpu
        print(f"whole volume, one process: {whole_seconds:.1f} s, "
              f"{rate(whole_seconds, size):.1f} MB/s, {whole_cpu:.1f} CPU s, peak RSS "
              f"{peak_rss_mib():.0f} MiB; chunked/whole = {whole_seconds / seconds:.2f}x "
              f"(in CPU time {whole_cpu / cpu:.2f}x); load average {os.getloadavg()[0]:.1f}")
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
