#!/usr/bin/env bash
# Installs the Debian packages vorn builds with, when any is missing. A no-op when all are
# there; when something is missing and this is not root, says what to run and fails.
set -euo pipefail

packages=(cmake make g++ libboost-dev libgtest-dev libbenchmark-dev
  libpng-dev libnifti2-dev zlib1g-dev libtiff-dev libtbb-dev libgdcm-dev
  python3-dev pybind11-dev python3-numpy python3-pytest python3-dask python3-distributed python3-zarr
  python3-venv python3-pip python3-setuptools python3-wheel python3-mypy ccache
  dpkg-dev file pkg-config graphviz doxygen
  clang libclang-rt-dev  # the libFuzzer programs, which test.sh builds
  python3-tifffile python3-nibabel python3-pydicom python3-pil  # the real-file tests compare with what they read
  python3-skimage  # its sample photographs: the demo test runs on one
  python3-scipy  # the reference scripts/bench_scipy_*.py time vorn against
  python3-tornado chromium chromium-driver python3-selenium  # vorn.view and its browser test
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "vorn needs these Debian packages, which are missing: ${missing[*]}" >&2
  echo "Install them as root:  apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "Installing missing Debian packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
