#!/usr/bin/env bash
# Builds the benchmarks (optimised, RelWithDebInfo), runs them with repetitions and writes the
# table of docs/performance.md from the medians: each figure beside its baseline measured in the
# same run, the ratio, the goal and whether it is met. Takes a few minutes; run it on a quiet
# machine.
#
#   bash scripts/bench.sh [BUILD_DIR]      (default build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/release}"
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$build" -j "$(nproc)" --target vorn_update_benchmark

results="$build/bench-results"
mkdir -p "$results"
run() {
  "$build/bench/$1" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_format=json --benchmark_out="$results/$1.json" --benchmark_out_format=json \
    > /dev/null
}
run vorn_update_benchmark
/usr/bin/python3 scripts/bench_table.py "$results" docs/performance.md
echo "wrote docs/performance.md"
