#!/usr/bin/env bash
# Fuzzes the image readers: builds the libFuzzer targets with clang in build/fuzz, then runs
# each reader target for SECONDS (default 600) in turn, as one job, seeded with its corpus
# (fuzz/corpus/<target>) and small real files from Debian packages (python3-nibabel's test
# data, python3-skimage's sample PNGs). A unit counts as a finding when it crashes, holds more
# than 512 MB, asks for more than 256 MB in one allocation, or runs longer than 2 seconds.
# Prints one line per target. New units go to build/fuzz/corpus/<target>, findings to
# build/fuzz/findings/<target>; a finding, once fixed, joins fuzz/corpus/<target> with a test.
#
#   bash scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-600}"
targets=(png_reader nifti_reader nifti_gz_reader)
build=build/fuzz

bash scripts/install-deps.sh
seed_packages=()
for package in python3-nibabel python3-skimage; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    seed_packages+=("$package")
  fi
done
if [ ${#seed_packages[@]} -gt 0 ]; then
  echo "Installing the packages whose files seed the fuzzers: ${seed_packages[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${seed_packages[@]}"
fi

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVORN_BUILD_FUZZERS=ON -DVORN_BUILD_BENCHMARKS=OFF -DVORN_BUILD_PYTHON=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target vorn_fuzzers >/dev/null

# Real files of a few kB: larger ones slow every mutation and add little.
seeds="$build/seeds"
rm -rf "$seeds" && mkdir -p "$seeds"/{png_reader,nifti_reader,nifti_gz_reader}
find /usr/lib/python3/dist-packages/skimage/data -name '*.png' -size -16k \
  -exec cp {} "$seeds/png_reader/" \;
find /usr/lib/python3/dist-packages/nibabel/tests/data -name '*.nii' -size -64k \
  -exec cp {} "$seeds/nifti_reader/" \;
find /usr/lib/python3/dist-packages/nibabel/tests/data -name '*.nii.gz' -size -64k \
  -exec cp {} "$seeds/nifti_gz_reader/" \;
for file in "$seeds"/nifti_reader/*.nii; do
  gzip -c "$file" >"$seeds/nifti_gz_reader/$(basename "$file").gz"
done

for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  mkdir -p "$corpus" "$findings"
  before=$(find "$corpus" -type f | wc -l)
  log="$build/fuzz-$target.log"
  # Fork mode carries on past a finding, so one run reports them all.
  "$build/fuzz/vorn_fuzz_$target" -fork=1 -ignore_crashes=1 -ignore_ooms=1 -ignore_timeouts=1 \
    -max_total_time="$seconds" -rss_limit_mb=512 -malloc_limit_mb=256 -timeout=10 \
    -report_slow_units=2 -artifact_prefix="$findings/" \
    "$corpus" "fuzz/corpus/$target" "$seeds/$target" >"$log" 2>&1 || true
  after=$(find "$corpus" -type f | wc -l)
  executions=$(grep -o '^#[0-9]*' "$log" | tail -1 | tr -d '#')
  count() { find "$findings" -name "$1-*" | wc -l; }
  printf '%s: %s executions, %d new units, %d crashes, %d out-of-memory, %d slow units, %d timeouts\n' \
    "$target" "${executions:-0}" $((after - before)) "$(count crash)" "$(count oom)" \
    "$(count slow-unit)" "$(count timeout)"
done
