#!/usr/bin/python3
"""Latency of the slice view while a slider moves, measured in the browser, against
recomputing the whole volume.

    PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_view.py [--size X Y Z]

On a float volume (default 1024 x 1024 x 256, 1 GiB), two views run in headless Chromium, each
step sent once the one before is drawn: `gaussian sigma=S ! threshold lower=50` with sigma moving
from 1 to 4 in steps of 0.1 on the middle slice of axis 2, and `median size=3` with the slice
moving along axis 2 (31 slices never seen before). Printed for each: median and 95th percentile
of the latency from the event to the pixels drawn (vornView.lastLatencyMs), of the engine's
part of it and of the page's (vornView.lastDrawMs); the same for updating the whole volume
without regions, a few times; and the memory the view holds.
"""
import argparse
import resource
import shutil
import statistics
import time

import numpy as np

import vorn


def percentiles(values):
    ordered = sorted(values)
    return statistics.median(ordered), ordered[min(len(ordered) - 1, int(0.95 * len(ordered)))]


def volume(size):
    x, y, z = size
    rng = np.random.default_rng(1)
    data = rng.normal(0.0, 20.0, (z, y, x)).astype(np.float32)
    data[z // 4:3 * z // 4, y // 4:3 * y // 4, x // 4:3 * x // 4] += 100.0
    return data


def chrome():
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1300,800"):
        options.add_argument(flag)
    return webdriver.Chrome(options=options, service=Service(shutil.which("chromedriver")))


def slider(handle, warmup, steps):
    """Latencies (event to pixels drawn) and engine times of `steps`, scripts of the page's
    interface answering a promise, after `warmup`, one such script not timed."""
    browser = chrome()
    run = "const done = arguments[arguments.length - 1];"
    try:
        browser.set_script_timeout(600)
        browser.get(handle.url)
        browser.execute_async_script(run + "vornView.started.then(() => done())")
        browser.execute_async_script(run + warmup + ".then(done)")
        latencies, computing, drawing = [], [], []
        for step in steps:
            answer = browser.execute_async_script(run + step + ".then(done)")
            if "error" in answer:
                raise RuntimeError(answer["error"])
            latencies.append(browser.execute_script("return vornView.lastLatencyMs"))
            drawing.append(browser.execute_script("return vornView.lastDrawMs"))
            computing.append(answer["cost"]["ms"])
        return latencies, computing, drawing
    finally:
        browser.quit()


def whole_volume(data, text, stage, parameter, values):
    """Milliseconds to update `text` without any region, once per value of the parameter."""
    image = vorn.ImageObject.from_array(data)
    pipeline = vorn.TextPipeline.build("read file=unused ! " + text)
    pipeline.silence()
    ops = pipeline.operators()[1:]
    from vorn.view.engine import _Source

    source = _Source(image)
    ops[0].setInputPort(0, source.getOutputPort(0))
    changed = ops[[op.getName() for op in ops].index(stage)]
    spent = []
    for value in values:
        changed.setParameterValue(parameter, value)
        start = time.perf_counter()
        with vorn.capture_output():
            ops[-1].update()
        spent.append((time.perf_counter() - start) * 1000)
    return spent


def report(data, text, warmup, steps, what, whole):
    with vorn.view(data, text) as handle:
        latencies, computing, drawing = slider(handle, warmup, steps)
        held = handle.engine.held_bytes()
    print("%s, %d steps (%s):" % (text, len(steps), what))
    print("  event to pixels drawn: median %.1f ms, 95th percentile %.1f ms" % percentiles(latencies))
    print("  engine's part:         median %.1f ms, 95th percentile %.1f ms" % percentiles(computing))
    print("  the page's decoding and painting: median %.1f ms, 95th percentile %.1f ms"
          % percentiles(drawing))
    print("  the view holds %.1f MiB (its operators' images and kept slices), besides the source"
          % (held / 2**20))
    spent = whole_volume(data, text, *whole)
    print("  whole volume, %d updates: median %.1f ms, 95th percentile %.1f ms"
          % ((len(spent),) + percentiles(spent)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=int, nargs=3, default=[1024, 1024, 256], metavar="N")
    parser.add_argument("--whole", type=int, default=4, help="whole-volume updates to time")
    args = parser.parse_args()
    data = volume(args.size)
    print("volume %s float32, %.2f GiB" % ("x".join(map(str, args.size)), data.nbytes / 2**30))
    sigmas = ["%.1f" % (1 + 0.1 * i) for i in range(31)]
    middle = args.size[2] // 2
    start = "vornView.show(2, %d)" % middle
    report(data, "gaussian sigma=1 ! threshold lower=50", start,
           ["vornView.set('gaussian', 'sigma', '%s')" % sigma for sigma in sigmas],
           "sigma 1 to 4 on slice %d of axis 2" % middle,
           ("gaussian", "sigma", sigmas[::len(sigmas) // args.whole][:args.whole]))
    # Slices never seen before; the whole volume is recomputed by changing the thread count's
    # text alone (2 and empty both mean the machine's two cores here).
    indices = [(middle + 1 + k) % args.size[2] for k in range(31)]
    report(data, "median size=3", start, ["vornView.show(2, %d)" % i for i in indices],
           "new slices of axis 2", ("median", "threads", ["2", ""][:max(1, args.whole // 2)]))
    print("peak resident memory of this process: %.2f GiB"
          % (resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 2**20))


if __name__ == "__main__":
    main()
