#!/usr/bin/python3
"""Latency of the slice view while a slider moves, measured in the browser, against
recomputing the whole volume.

    PYTHONPATH=build/release/python /usr/bin/python3 scripts/bench_view.py [--size X Y Z]

On a float volume (default 1024 x 1024 x 256, 1 GiB), the view of `gaussian sigma=S !
threshold lower=T` runs in headless Chromium; sigma moves from 1 to 4 in steps of 0.1, each
step sent by window.vornView.set once the one before is drawn. Printed: median and 95th
percentile of the latency from the event to the pixels drawn (vornView.lastLatencyMs) and of
the engine's part of it; the same for updating the whole volume without regions, for a few
of the same sigmas; and the memory the view holds.
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


def slider(handle, sigmas):
    browser = chrome()
    run = "const done = arguments[arguments.length - 1];"
    try:
        browser.set_script_timeout(600)
        browser.get(handle.url)
        browser.execute_async_script(run + "vornView.started.then(() => done())")
        latencies, computing = [], []
        for sigma in sigmas:
            answer = browser.execute_async_script(
                run + "vornView.set('gaussian', 'sigma', '%g').then(done)" % sigma)
            if "error" in answer:
                raise RuntimeError(answer["error"])
            latencies.append(browser.execute_script("return vornView.lastLatencyMs"))
            computing.append(answer["cost"]["ms"])
        return latencies, computing
    finally:
        browser.quit()


def whole_volume(data, sigmas):
    """Seconds to update the same pipeline without any region, per sigma."""
    image = vorn.ImageObject.from_array(data)
    pipeline = vorn.TextPipeline.build("read file=unused ! gaussian ! threshold lower=50")
    pipeline.silence()
    gaussian, threshold = pipeline.operators()[1:]
    from vorn.view.engine import _Source

    source = _Source(image)
    gaussian.setInputPort(0, source.getOutputPort(0))
    spent = []
    for sigma in sigmas:
        gaussian.setParameterValue("sigma", "%g" % sigma)
        start = time.perf_counter()
        with vorn.capture_output():
            threshold.update()
        spent.append((time.perf_counter() - start) * 1000)
    return spent


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--size", type=int, nargs=3, default=[1024, 1024, 256], metavar="N")
    parser.add_argument("--whole", type=int, default=4, help="whole-volume updates to time")
    args = parser.parse_args()
    data = volume(args.size)
    sigmas = [round(1 + 0.1 * i, 1) for i in range(31)]
    print("volume %s float32, %.2f GiB; pipeline: gaussian sigma=1..4 ! threshold lower=50"
          % ("x".join(map(str, args.size)), data.nbytes / 2**30))
    with vorn.view(data, "gaussian sigma=1 ! threshold lower=50") as handle:
        latencies, computing = slider(handle, sigmas)
        held = handle.engine.held_bytes()
    print("view, %d slider steps (slice %d of axis 2):" % (len(sigmas), args.size[2] // 2))
    print("  event to pixels drawn: median %.1f ms, 95th percentile %.1f ms" % percentiles(latencies))
    print("  engine's part:         median %.1f ms, 95th percentile %.1f ms" % percentiles(computing))
    print("  the view holds %.1f MiB (its operators' images and kept slices), besides the source"
          % (held / 2**20))
    whole = whole_volume(data, sigmas[::len(sigmas) // args.whole][:args.whole])
    print("whole volume, %d updates: median %.1f ms, 95th percentile %.1f ms"
          % ((len(whole),) + percentiles(whole)))
    print("peak resident memory of this process: %.2f GiB"
          % (resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 2**20))


if __name__ == "__main__":
    main()
