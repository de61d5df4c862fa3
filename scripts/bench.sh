#!/usr/bin/env bash
# Builds the benchmarks (optimised, RelWithDebInfo), runs them with repetitions, measures the
# peak memory of vorn-run pipelines, and writes docs/performance.md from the medians: each figure
# beside its baseline measured in the same run, the ratio, the goal and whether it is met. Takes
# about ten minutes; run it on a quiet machine.
#
#   bash scripts/bench.sh [BUILD_DIR]      (default build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/release}"
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
programs=(vorn_update_benchmark vorn_restrict_benchmark vorn_image_benchmark
  vorn_operators_benchmark vorn_threads_benchmark)
cmake --build "$build" -j "$(nproc)" --target "${programs[@]}" vorn_peak_memory vorn-run
cmake --build "$build" -j "$(nproc)" --target vorn_python_package 2>/dev/null || true

results="$build/bench-results"
rm -rf "$results" && mkdir -p "$results"
for program in "${programs[@]}"; do
  echo "running $program"
  "$build/bench/$program" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_out="$results/$program.json" \
    --benchmark_out_format=json > /dev/null
done
echo "measuring vorn-run's peak memory"
/usr/bin/python3 scripts/bench_memory.py "$build/bench/vorn_peak_memory" \
  "$build/tools/vorn-run/vorn-run" "$results"
if [[ -d "$build/python/vorn" ]]; then
  echo "measuring the Python module"
  PYTHONPATH="$build/python" /usr/bin/python3 scripts/bench_python.py "$results/python.txt" \
    > /dev/null
fi
/usr/bin/python3 scripts/bench_table.py "$results" docs/performance.md
echo "wrote docs/performance.md"
