"""Writes docs/performance.md from the JSON reports of scripts/bench.sh.

Each row takes the median of a benchmark, the median of its baseline from the same run, and
the goal. Usage: bench_table.py RESULTS_DIR OUTPUT_MD
"""
import json
import pathlib
import platform
import subprocess
import sys


def medians(folder):
    found = {}
    for report in pathlib.Path(folder).glob("*.json"):
        for entry in json.loads(report.read_text())["benchmarks"]:
            if entry.get("aggregate_name") == "median":
                found[entry["run_name"]] = entry["real_time"]  # nanoseconds
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


def rows(m):
    fixed = m["BM_MandatedFixedCost"]
    stale = m["BM_UpdateStaleChain/4096"] / 4096
    flat10, flat = m["BM_UpdateUpToDateTail/10"], m["BM_UpdateUpToDateTail/100000"]
    reached = m["BM_InvalidateValidatedChain/1000"] / 1000
    head10, head = m["BM_InvalidateInvalidatedHead/10"], m["BM_InvalidateInvalidatedHead/100000"]
    machinery = stale - fixed
    return [
        ("recompute: engine cost per operator of a stale chain of 4096, beyond the mandated "
         "two clock() reads and timing line", machinery, f"fixed cost {fixed:.1f} ns",
         stale / fixed, "≤ 60 ns", machinery <= 60),
        ("up-to-date update() of the tail of a chain of 100,000", flat,
         f"chain of 10: {flat10:.1f} ns", flat / flat10, "< 20 ns, flat in N",
         flat < 20 and flat / flat10 < 1.2),
        ("invalidating a validated chain of 1000, per operator reached", reached, "", None,
         "≤ 8 ns", reached <= 8),
        ("invalidating an already invalidated head of a chain of 100,000", head,
         f"chain of 10: {head10:.1f} ns", head / head10, "O(1): ratio ≈ 1", head / head10 < 1.2),
    ]


def main():
    m = medians(sys.argv[1])
    lines = [
        "# Performance",
        "",
        "Written by `scripts/bench.sh` from one run of the benchmarks under `bench/` (medians of "
        "5 repetitions; every baseline is measured in the same run, in the same binary).",
        "",
        f"Machine: {machine()}.",
        "",
        "| case | figure | baseline (same run) | ratio | goal | met |",
        "|---|---|---|---|---|---|",
    ]
    for case, figure, baseline, ratio, goal, met in rows(m):
        ratio_text = "" if ratio is None else f"{ratio:.2f}"
        lines.append(f"| {case} | {figure:.1f} ns | {baseline} | {ratio_text} | {goal} | "
                     f"{'yes' if met else 'no'} |")
    lines += [
        "",
        "The recompute figure is the difference of two timings dominated by `clock()` system "
        "calls (about a microsecond each on this VM), which move by some hundreds of ns from one "
        "run to the next: compare several runs before reading much into one.",
    ]
    pathlib.Path(sys.argv[2]).write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
