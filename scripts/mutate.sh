#!/usr/bin/env bash
# Mutation testing: plants one small fault at a time in a copy of the tree, rebuilds, runs the
# unit tests and counts the faults the tests catch ("killed"). A fault that does not compile
# counts as neither. Prints each result, the survivors and the score.
#
#   bash scripts/mutate.sh                      # every mutant of scripts/mutants.txt
#   bash scripts/mutate.sh scripts/mutants.txt 5 9   # only mutants 5 to 9
#   VORN_MUTATE_EVERY_TEST=1 bash scripts/mutate.sh  # run every test on each mutant, and list
#                                                    # in $work/kills.txt which tests kill it
# VORN_MUTATE_TIMEOUT sets the seconds a test may take (default 120), VORN_MUTATE_SKIP a regular
# expression of further tests to leave out.
#
# Mutant file: one mutant a line, "file|text|replacement|what it breaks", where `text` occurs
# exactly once in `file` (a | inside a field is written \|); blank lines and lines starting with
# # are skipped. Needs python3.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
mutants="${1:-$root/scripts/mutants.txt}"
first="${2:-1}"
last="${3:-100000}"
work="${VORN_MUTATE_DIR:-/tmp/vorn-mutate}"
jobs="$(nproc)"

rm -rf "$work/tree" && mkdir -p "$work/tree"
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$work/tree" -xf -
# Test programs are not relinked when only the libraries change, and the core is linked without
# link-time optimisation: a mutant rebuilds one file and relinks one library quickly.
cmake -S "$work/tree" -B "$work/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN_LTO=OFF \
  -DVORN_BUILD_BENCHMARKS=OFF -DVORN_INSTALL=OFF -DCMAKE_LINK_DEPENDS_NO_SHARED=ON \
  -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DPython_EXECUTABLE=/usr/bin/python3 \
  > "$work/configure.log"
cmake --build "$work/build" -j "$jobs" > "$work/build.log"

# Plants mutant $1 in the copy and keeps the file as it was in $work/saved (its path in
# $work/saved.path) for restore; fails unless the mutant's text occurs exactly once.
apply() {
  python3 - "$work" "$1" <<'PY'
import re, sys
work, mutant = sys.argv[1], sys.argv[2]
fields = [f.replace("\\|", "|") for f in re.split(r"(?<!\\)\|", mutant)]
path, text, replacement = work + "/tree/" + fields[0], fields[1], fields[2]
source = open(path).read()
if source.count(text) != 1:
    sys.exit(f"{path}: the text occurs {source.count(text)} times: {text!r}")
open(work + "/saved", "w").write(source)
open(work + "/saved.path", "w").write(path)
open(path, "w").write(source.replace(text, replacement))
PY
}

restore() { cp "$work/saved" "$(cat "$work/saved.path")"; }

# The names of the tests the last ctest run lists as failed, on one line.
failedTests() {
  sed -nE 's/^[[:space:]]+[0-9]+ - ([^ ]+).*/\1/p' "$work/ctest.log" | tr '\n' ' '
}

stop=(--stop-on-failure)
[[ -n "${VORN_MUTATE_EVERY_TEST:-}" ]] && stop=()
: > "$work/kills.txt"
killed=0; survived=0; invalid=0; number=0
survivors=()
while IFS= read -r line; do
  [[ -z "$line" || "$line" == \#* ]] && continue
  number=$((number + 1))
  (( number < first || number > last )) && continue
  what="${line##*|}"
  apply "$line"
  if ! cmake --build "$work/build" -j "$jobs" > "$work/mutant.log" 2>&1; then
    result="does not compile"; invalid=$((invalid + 1))
  elif ctest --test-dir "$work/build" -j "$jobs" --timeout "${VORN_MUTATE_TIMEOUT:-120}" \
      "${stop[@]}" -E "clang_format|consumer_find_package${VORN_MUTATE_SKIP:+|$VORN_MUTATE_SKIP}" \
      > "$work/ctest.log" 2>&1; then
    result="SURVIVED"; survived=$((survived + 1)); survivors+=("$number: $what")
  else
    failed="$(failedTests)"
    result="killed by ${failed%% *}"
    killed=$((killed + 1))
    echo "$number $failed" >> "$work/kills.txt"
  fi
  printf '%3d  %-60s %s\n' "$number" "${what:0:60}" "$result"
  restore
done < "$mutants"
cmake --build "$work/build" -j "$jobs" > /dev/null 2>&1 || true

echo
for s in "${survivors[@]}"; do echo "survivor $s"; done
total=$((killed + survived))
echo "killed $killed of $total compiling mutants ($invalid did not compile)"
(( total > 0 )) && echo "score $((100 * killed / total))%"
