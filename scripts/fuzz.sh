#!/usr/bin/env bash
# Fuzzes the image readers: builds the libFuzzer targets with clang in build/fuzz, then runs
# each reader target (all of them, or those named) for SECONDS (default 600) in turn, as one
# job, seeded with its corpus (fuzz/corpus/<target>) and small real files from Debian packages
# (python3-nibabel's NIfTI test data, python3-skimage's sample PNGs and TIFFs, pydicom's test
# files) and small TIFFs written by tifffile and Pillow in each compression they write. A unit counts as a finding when it crashes, holds more
# than 512 MB, asks for more than 256 MB in one allocation, runs longer than 2 seconds or leaks.
# Prints one line per target. New units go to build/fuzz/corpus/<target>, findings to
# build/fuzz/findings/<target>; a finding, once fixed, joins fuzz/corpus/<target> with a test.
#
#   bash scripts/fuzz.sh [SECONDS [TARGET...]]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-600}"
targets=(png_reader nifti_reader nifti_gz_reader tiff_reader nrrd_reader metaimage_reader
  dicom_reader)
[ $# -gt 1 ] && targets=("${@:2}")
build=build/fuzz

bash scripts/install-deps.sh
seed_packages=()
for package in python3-nibabel python3-skimage python3-tifffile python3-pil python3-pydicom; do
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
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/vorn_fuzz_}" >/dev/null

# Real files of a few kB: larger ones slow every mutation and add little.
seeds="$build/seeds"
rm -rf "$seeds" && mkdir -p "$seeds"/{png_reader,nifti_reader,nifti_gz_reader,tiff_reader} \
  "$seeds"/{nrrd_reader,metaimage_reader,dicom_reader}
find /usr/lib/python3/dist-packages/skimage/data -name '*.png' -size -16k \
  -exec cp {} "$seeds/png_reader/" \;
find /usr/lib/python3/dist-packages/nibabel/tests/data -name '*.nii' -size -64k \
  -exec cp {} "$seeds/nifti_reader/" \;
find /usr/lib/python3/dist-packages/nibabel/tests/data -name '*.nii.gz' -size -64k \
  -exec cp {} "$seeds/nifti_gz_reader/" \;
for file in "$seeds"/nifti_reader/*.nii; do
  gzip -c "$file" >"$seeds/nifti_gz_reader/$(basename "$file").gz"
done
find /usr/lib/python3/dist-packages/skimage/data -name '*.tif' -size -64k \
  -exec cp {} "$seeds/tiff_reader/" \;
# Files with the DICM preamble only: the others are refused at once and teach nothing.
for file in $(find /usr/lib/python3/dist-packages/pydicom/data/test_files -name '*.dcm' -size -16k); do
  if [ "$(dd if="$file" bs=1 skip=128 count=4 2>/dev/null)" = DICM ]; then
    cp "$file" "$seeds/dicom_reader/"
  fi
done
/usr/bin/python3 - "$seeds/tiff_reader" <<'PY'
import sys
import numpy as np
import tifffile
from PIL import Image
folder = sys.argv[1]
ramp = (np.arange(24 * 40).reshape(24, 40) % 253).astype(np.uint8)
tifffile.imwrite(f"{folder}/i16-zlib-tiled.tif", ramp.astype(np.int16) - 99, tile=(16, 16),
                 compression="zlib")
tifffile.imwrite(f"{folder}/f32-big.tif", np.stack([ramp, ramp]).astype(np.float32), bigtiff=True)
tifffile.imwrite(f"{folder}/u16-cm.tif", ramp.astype(np.uint16), resolution=(40.0, 20.0),
                 resolutionunit="CENTIMETER")
for mode in ("L", "RGB"):
    for compression in ("tiff_jpeg", "tiff_lzw", "packbits", "tiff_adobe_deflate"):
        Image.fromarray(ramp).convert(mode).save(f"{folder}/{mode}-{compression}.tif",
                                                 compression=compression)
PY

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
  printf '%s: %s executions, %d new units, %d crashes, %d out-of-memory, %d slow units, %d timeouts, %d leaks\n' \
    "$target" "${executions:-0}" $((after - before)) "$(count crash)" "$(count oom)" \
    "$(count slow-unit)" "$(count timeout)" "$(count leak)"
done
