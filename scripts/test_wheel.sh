#!/usr/bin/env bash
# Installs vorn as a pip user does and uses it. Builds the wheel from a configured build folder
# (default build/release, whose objects the packaging reuses), installs it into a fresh virtual
# environment that sees Debian's NumPy and Dask, and there, outside the source tree and with
# neither LD_LIBRARY_PATH nor PYTHONPATH, runs scripts/check_wheel.py: a pipeline from NumPy,
# vorn-run, the versions, and a batch on a distributed.LocalCluster of that environment.
set -euo pipefail
cd "$(dirname "$0")/.."
build="$(realpath "${1:-build/release}")"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
step() { echo "test_wheel: $1 (${SECONDS}s)"; }

/usr/bin/python3 -m venv --system-site-packages "$work/builder"
VORN_BUILD_DIR="$build" CMAKE_BUILD_PARALLEL_LEVEL="$(nproc)" "$work/builder/bin/pip" wheel -q \
  --no-build-isolation --no-index --no-deps . -w "$work/dist"
wheels=("$work"/dist/*.whl)
[ ${#wheels[@]} -eq 1 ] || { echo "test_wheel: expected one wheel, got ${wheels[*]}" >&2; exit 1; }
step "built $(basename "${wheels[0]}")"

/usr/bin/python3 -m venv --system-site-packages "$work/env"
"$work/env/bin/pip" install -q --no-index "${wheels[0]}"
step "installed into a fresh environment"

cp scripts/check_wheel.py "$work/"
(cd "$work" && env -u LD_LIBRARY_PATH -u PYTHONPATH PATH="$work/env/bin:$PATH" timeout 600 \
  "$work/env/bin/python" check_wheel.py "$build/vorn-config-version.cmake")
step "checked"
