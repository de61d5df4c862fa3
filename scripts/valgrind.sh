#!/usr/bin/env bash
# Runs every test program of a RelWithDebInfo build under valgrind's memcheck: the GoogleTest
# programs and the fuzz corpus replays. Prints, per program, its memcheck errors and the bytes
# definitely lost, and fails when any program fails, reports an error or loses memory for good.
#
#   scripts/valgrind.sh [BUILD_DIR]     (default build/valgrind, configured when missing)
#
# Slow (minutes), hence not part of scripts/test.sh. A sanitizer build cannot be used: the
# sanitizers' runtimes and valgrind do not mix.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/valgrind}"

if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_BUILD_BENCHMARKS=OFF
fi
if grep -Eq '^VORN_SANITIZE:STRING=.+' "$build/CMakeCache.txt" ||
   grep -Eq '^VORN_BUILD_FUZZERS:BOOL=ON' "$build/CMakeCache.txt"; then
  echo "valgrind.sh: $build is a sanitizer or fuzzing build; use a plain one" >&2
  exit 2
fi
cmake --build "$build" -j "$(nproc)"

logs="$build/valgrind-logs"
rm -rf "$logs"
mkdir -p "$logs"
root="$(pwd)"
failed=0

# run NAME PROGRAM ARGS...: one program under memcheck, from the program's own folder as ctest
# runs it; children (death tests fork) write their own log. Allocators a test program defines
# itself (the image tests count and refuse pixel allocations in their own operator new[]) stay in
# place: valgrind cannot throw std::bad_alloc from its own and would abort instead.
run() {
  local name="$1" program="$2"
  shift 2
  local status=0
  (cd "$(dirname "$program")" &&
    valgrind --tool=memcheck --error-exitcode=1 --leak-check=full \
      --errors-for-leak-kinds=definite --soname-synonyms=somalloc=nouserintercepts \
      --log-file="$root/$logs/$name.%p.log" \
      "./$(basename "$program")" "$@" >"$root/$logs/$name.out" 2>&1) || status=$?
  local errors lost
  errors=$(cat "$logs/$name".*.log | sed -n 's/.*ERROR SUMMARY: \([0-9,]*\) errors.*/\1/p' |
    tr -d , | awk '{ sum += $1 } END { print sum + 0 }')
  lost=$(cat "$logs/$name".*.log | sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' |
    tr -d , | awk '{ sum += $1 } END { print sum + 0 }')
  printf '%-36s exit %-3s errors %-6s definitely lost %s bytes\n' "$name" "$status" "$errors" "$lost"
  if [[ $status -ne 0 || $errors -ne 0 || $lost -ne 0 ]]; then failed=1; fi
}

start=$SECONDS
for program in "$build"/tests/vorn_*_tests; do
  run "$(basename "$program")" "$program"
done
for program in "$build"/fuzz/vorn_fuzz_replay_*; do
  name="$(basename "$program")"
  run "$name" "$program" "$root/fuzz/corpus/${name#vorn_fuzz_replay_}"
done
echo "valgrind.sh: $((SECONDS - start)) s; logs in $logs"
exit "$failed"
