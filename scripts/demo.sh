#!/usr/bin/env bash
# Installs what is missing, builds vorn and runs the demo: on its built-in phantoms, or on the
# PNG or NIfTI file given as argument. It writes into vorn-demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build/release --target vorn_demo -j "$(nproc)"
./build/release/examples/vorn_demo "$@"
