#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test twice: an optimised build with
# warnings as errors (the Python module and its tests included, for Debian's /usr/bin/python3),
# and a debug build under AddressSanitizer, LeakSanitizer and UBSan (the C++ tests: Python cannot
# load a sanitized module without preloading the sanitizer runtime). In between, the operator
# tests run under ThreadSanitizer. Last, the libFuzzer programs are built with clang and replay
# their corpora, so that scripts/fuzz.sh keeps working.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs="$(nproc)"

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DPython_EXECUTABLE=/usr/bin/python3
cmake --build build/release -j "$jobs"
ctest --test-dir build/release --output-on-failure -j "$jobs"
bash scripts/test_wheel.sh build/release  # the wheel, from this build, in a fresh venv

# The operators' worker pool under ThreadSanitizer: only the operator tests, which run every
# operator of the catalog at several thread counts. Address randomisation is off for the run, as
# the sanitizer cannot map its shadow memory under the kernel's widest randomisation.
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DVORN_SANITIZE=thread -DVORN_BUILD_BENCHMARKS=OFF -DVORN_BUILD_PYTHON=OFF \
  -DVORN_BUILD_EXAMPLES=OFF -DVORN_BUILD_TOOLS=OFF -DVORN_INSTALL=OFF
cmake --build build/tsan -j "$jobs" --target vorn_operators_tests
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  setarch "$(uname -m)" -R build/tsan/tests/vorn_operators_tests --gtest_brief=1 > build/tsan/tests.log \
  || { cat build/tsan/tests.log; exit 1; }
echo "ThreadSanitizer: operator tests passed"

cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DVORN_WERROR=ON \
  -DVORN_SANITIZE=address,undefined -DVORN_BUILD_BENCHMARKS=OFF -DVORN_BUILD_PYTHON=OFF
cmake --build build/sanitize -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/sanitize --output-on-failure -j "$jobs"

CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_WERROR=ON \
  -DVORN_BUILD_FUZZERS=ON -DVORN_BUILD_BENCHMARKS=OFF -DVORN_BUILD_PYTHON=OFF
cmake --build build/fuzz -j "$jobs" --target vorn_fuzzers
for target in png_reader nifti_reader nifti_gz_reader; do
  "build/fuzz/fuzz/vorn_fuzz_$target" -runs=0 "fuzz/corpus/$target"
done

# The size of the tests against the code they test: non-blank lines of C++ and Python in tests/,
# python/tests/ and fuzz/ against all the others.
git ls-files '*.cpp' '*.hpp' '*.h' '*.py' | xargs awk 'NF {
    if (FILENAME ~ /^(tests|python\/tests|fuzz)\//) tests++; else code++ }
  END { printf "Tests: %d non-blank lines against %d of code (%.0f%%)\n", tests, code, 100 * tests / code }'
