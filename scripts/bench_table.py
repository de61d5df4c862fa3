"""Writes docs/performance.md from the JSON reports of scripts/bench.sh.

Each row takes the median of a benchmark, its baseline measured in the same run, and the goal.
Usage: bench_table.py RESULTS_DIR OUTPUT_MD
"""
import json
import pathlib
import platform
import re
import subprocess
import sys

TYPES = {1: "8-bit", 2: "16-bit", 3: "float"}
NOISE = 0.97  # ratios of two timings taken together still move by about 3 % here


def medians(folder):
    found = {}
    for report in pathlib.Path(folder).glob("vorn_*.json"):
        for entry in json.loads(report.read_text())["benchmarks"]:
            if entry.get("aggregate_name") == "median":
                name = re.sub(r"/(manual_time|iterations:\d+)", "", entry["run_name"])
                found[name] = entry
    return found


def machine():
    model = "unknown CPU"
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            model = line.split(":", 1)[1].strip()
            break
    cores = subprocess.run(["nproc"], capture_output=True, text=True).stdout.strip()
    compiler = subprocess.run(["c++", "--version"], capture_output=True,
                              text=True).stdout.splitlines()[0]
    return f"{model}, {cores} cores, {platform.system()} {platform.release()}; {compiler}"


def ns(value):
    return f"{value:.1f} ns"


def engine_rows(m):
    recompute = m["BM_RecomputeBeyondFixedCost/4096"]
    beyond, fixed = recompute["beyond_fixed_ns"], recompute["fixed_ns"]
    flat10 = m["BM_UpdateUpToDateTail/10"]["real_time"]
    flat = m["BM_UpdateUpToDateTail/100000"]["real_time"]
    reached = m["BM_InvalidateValidatedChain/1000"]["real_time"] / 1000
    head10 = m["BM_InvalidateInvalidatedHead/10"]["real_time"]
    head = m["BM_InvalidateInvalidatedHead/100000"]["real_time"]
    return [
        ("recompute: engine cost per operator of a stale chain of 4096, beyond the mandated two "
         "clock() reads and timing line", ns(beyond), f"fixed cost {ns(fixed)}", beyond / fixed,
         "≤ 60 ns", beyond <= 60),
        ("up-to-date update() of the tail of a chain of 100,000", ns(flat),
         f"chain of 10: {ns(flat10)}", flat / flat10, "< 20 ns, flat in N",
         flat < 20 and flat / flat10 < 1.2),
        ("invalidating a validated chain of 1000, per operator reached", ns(reached), "", None,
         "≤ 8 ns", reached <= 8),
        ("invalidating an already invalidated head of a chain of 100,000", ns(head),
         f"chain of 10: {ns(head10)}", head / head10, "O(1): ratio ≈ 1", head / head10 < 1.2),
    ]


def mask_rows(m):
    rows = []
    for code, name in TYPES.items():
        for mib in (1, 64, 512):
            entry = m[f"BM_RestrictImageToRoi/{code}/{mib}/0"]
            ratio = entry["vorn_over_plain"]
            rows.append((f"restrictImageToRoi, {name}, {mib} MiB, random mask",
                         f"{entry['vorn_GBps']:.1f} GB/s",
                         f"plain loop for this CPU {entry['plain_GBps']:.1f} GB/s", ratio,
                         "≥ 1 (± 3 %)", ratio >= NOISE))
        halves = m[f"BM_RestrictImageToRoi/{code}/64/1"]["vorn_GBps"]
        random = m[f"BM_RestrictImageToRoi/{code}/64/0"]["vorn_GBps"]
        rows.append((f"restrictImageToRoi, {name}, 64 MiB, random mask against two solid halves",
                     f"{random:.1f} GB/s", f"halves {halves:.1f} GB/s", random / halves,
                     "no slowdown", random / halves >= NOISE))
    return rows


def operator_rows(m):
    bound3 = m["BM_ThreePassBandwidthBound"]["s/pixel"] * 1e9
    rows = []
    for sigma in (1, 2, 4):
        vorn = m[f"BM_GaussianSmoothing/{sigma}"]
        plain = m[f"BM_ScalarSeparableBaseline/{sigma}"]
        tap, plain_tap = vorn["s/pixel/tap"] * 1e12, plain["s/pixel/tap"] * 1e12
        pixel = vorn["s/pixel"] * 1e9
        rows.append((f"Gaussian, 256³ float, sigma {sigma}: per pixel per tap",
                     f"{tap:.0f} ps", f"plain separable loop {plain_tap:.0f} ps",
                     plain_tap / tap, "faster than the plain loop", tap < plain_tap))
        rows.append((f"Gaussian, 256³ float, sigma {sigma}: per pixel, against three passes at "
                     "memory bandwidth", ns(pixel), f"bound {ns(bound3)}", pixel / bound3,
                     "report", None))
    copy = m["BM_CopyPassBound"]["s/pixel"] * 1e9
    for name, label in (("BM_BinaryThreshold", "threshold"), ("BM_CastToUchar", "cast to uchar"),
                        ("BM_Mask", "mask"), ("BM_Statistics", "statistics")):
        pixel = m[name]["s/pixel"] * 1e9
        rows.append((f"{label}, 64 MiB float image, per pixel", ns(pixel),
                     f"one copy pass {ns(copy)}", pixel / copy, "report", None))
    return rows


THREAD_SHAPES = (("256cubed_float", "256³ float"), ("4096squared_uchar", "4096² uchar"),
                 ("64squared_float", "64² float"))


def thread_rows(m):
    """Each operator at every core against one thread, from the same run."""
    rows = []
    for op in ("gaussian", "cast", "threshold", "mask", "stats", "math", "rescale", "median",
               "gradient", "erode", "resample", "label", "fill", "distance"):
        for shape, label in THREAD_SHAPES:
            one = m[f"BM_Threads/{op}/{shape}/1/real_time"]["s/pixel"] * 1e9
            every = m[f"BM_Threads/{op}/{shape}/0/real_time"]["s/pixel"] * 1e9
            small = shape.startswith("64")
            rows.append((f"{op}, {label}, every core: per pixel", f"{every:.3f} ns",
                         f"one thread {one:.3f} ns", one / every,
                         "≤ 1.1× one thread's time" if small else "report speedup",
                         every <= 1.1 * one if small else None))
    return rows


def image_rows(m, memory):
    rows = []
    for name in ("BM_ToVornImage", "BM_FromVornImage"):
        small, large = m[f"{name}/64"]["real_time"], m[f"{name}/4096"]["real_time"]
        rows.append((f"{name[3:]} of a 64 MiB float image", ns(large),
                     f"16 KiB image {ns(small)}", large / small, "O(1): ratio ≈ 1",
                     large / small < 1.2))
    imported = m["BM_ImportImage"]["bytes_per_second"]
    copied = m["BM_MemcpyImage"]["bytes_per_second"]
    rows.append(("import of a 64 MiB float image", f"{imported / 1e9:.1f} GB/s",
                 f"memcpy {copied / 1e9:.1f} GB/s", imported / copied, "≥ 0.9",
                 imported / copied >= 0.9))
    for name, what in (("BM_BytesPerOperator", "an operator with one input and one output "
                        "(its output's image object included)"),
                       ("BM_BytesPerImageObject", "an image object, beyond its pixels")):
        rows.append((f"heap bytes of {what}", f"{m[name]['bytes']:.0f} B", "", None, "report",
                     None))
    for run in memory:
        above = (run["peak_kib"] - run["base_kib"]) / 1024
        ratio = above / run["live_mib"]
        rows.append((f"vorn-run `{run['pipeline']}` on 64 MiB: peak resident size above the "
                     "program's own", f"{above:.1f} MiB",
                     f"live pixel buffers {run['live_mib']} MiB", ratio, "≤ 1.2", ratio <= 1.2))
    return rows


def file_rows(m):
    rows = []
    for case, label in (("png_uchar_1024x1024", "PNG 8-bit 1024²"),
                        ("nii_float_128cubed", "NIfTI float 128³ .nii"),
                        ("niigz_float_128cubed", "NIfTI float 128³ .nii.gz")):
        for verb in ("Read", "Write"):
            rate = m[f"BM_{verb}ImageFile/{case}/real_time"]["bytes_per_second"]
            rows.append((f"{verb.lower()} {label} (page cache, MB/s of pixel bytes)",
                         f"{rate / 1e6:.0f} MB/s", "", None, "report", None))
    return rows


def table(rows):
    lines = ["| case | figure | baseline (same run) | ratio | goal | met |",
             "|---|---|---|---|---|---|"]
    for case, figure, baseline, ratio, goal, met in rows:
        ratio_text = "" if ratio is None else f"{ratio:.2f}"
        met_text = "" if met is None else ("yes" if met else "no")
        lines.append(f"| {case} | {figure} | {baseline} | {ratio_text} | {goal} | {met_text} |")
    return lines


def main():
    folder = pathlib.Path(sys.argv[1])
    m = medians(folder)
    memory = json.loads((folder / "memory.json").read_text())
    lines = [
        "# Performance",
        "",
        "Written by `scripts/bench.sh` from one run of the benchmarks under `bench/` (medians of "
        "5 repetitions; every baseline is measured in the same run, in the same binary, and "
        "where two figures are compared within one benchmark, in alternating order in the same "
        "iterations). Single thread, except the Threads section.",
        "",
        f"Machine: {machine()}.",
        "",
        "## Update engine", "", *table(engine_rows(m)), "",
        "## Restricting to a mask", "", *table(mask_rows(m)), "",
        "## Operators", "", *table(operator_rows(m)), "",
        "## Threads (ratio: speedup over one thread)", "", *table(thread_rows(m)), "",
        "## Images and memory", "", *table(image_rows(m, memory)), "",
        "## Files", "", *table(file_rows(m)), "",
    ]
    python = folder / "python.txt"
    if python.exists():
        lines += ["## Python (scripts/bench_python.py)", ""]
        lines += [f"- {line}" for line in python.read_text().splitlines() if line.strip()]
        lines.append("")
    notes = pathlib.Path(__file__).resolve().parent.parent / "bench" / "performance-notes.md"
    if notes.exists():
        lines += [notes.read_text().rstrip(), ""]
    pathlib.Path(sys.argv[2]).write_text("\n".join(lines))


if __name__ == "__main__":
    main()
