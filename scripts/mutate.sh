#!/usr/bin/env bash
# Mutation testing: plants one small fault at a time in a copy of the tree, rebuilds, runs the
# unit tests and counts the faults the tests catch ("killed"). A fault that does not compile
# counts as neither. Prints each result, the survivors and the score.
#
#   bash scripts/mutate.sh                      # every mutant of scripts/mutants.txt
#   bash scripts/mutate.sh scripts/mutants.txt 5 9   # only mutants 5 to 9
#
# Mutant file: one mutant a line, "file|text|replacement|what it breaks", where `text` occurs
# exactly once in `file`; blank lines and lines starting with # are skipped. Needs python3.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
mutants="${1:-$root/scripts/mutants.txt}"
first="${2:-1}"
last="${3:-100000}"
work="${VORN_MUTATE_DIR:-/tmp/vorn-mutate}"
jobs="$(nproc)"

rm -rf "$work/tree" && mkdir -p "$work/tree"
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$work/tree" -xf -
cmake -S "$work/tree" -B "$work/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVORN_BUILD_BENCHMARKS=OFF -DVORN_INSTALL=OFF > "$work/configure.log"
cmake --build "$work/build" -j "$jobs" > "$work/build.log"

# Applies (or, with "restore", undoes) mutant $1's replacement in the copy; fails unless the
# text occurs exactly once.
apply() {
  python3 - "$work/tree" "$1" "$2" <<'PY'
import sys
tree, mutant, mode = sys.argv[1], sys.argv[2], sys.argv[3]
path, text, replacement = mutant.split("|")[:3]
path = tree + "/" + path
source = open(path).read()
old, new = (text, replacement) if mode == "apply" else (replacement, text)
if source.count(old) != 1:
    sys.exit(f"{path}: the text occurs {source.count(old)} times: {old!r}")
open(path, "w").write(source.replace(old, new))
PY
}

killed=0; survived=0; invalid=0; number=0
survivors=()
while IFS= read -r line; do
  [[ -z "$line" || "$line" == \#* ]] && continue
  number=$((number + 1))
  (( number < first || number > last )) && continue
  what="${line##*|}"
  apply "$line" apply
  if ! cmake --build "$work/build" -j "$jobs" > "$work/mutant.log" 2>&1; then
    result="does not compile"; invalid=$((invalid + 1))
  elif ctest --test-dir "$work/build" -j "$jobs" --timeout 120 --stop-on-failure \
      -E 'clang_format' > "$work/ctest.log" 2>&1; then
    result="SURVIVED"; survived=$((survived + 1)); survivors+=("$number: $what")
  else
    result="killed by $(grep -m1 -E '\*\*\*(Failed|Exception|Timeout)' "$work/ctest.log" |
      sed -E 's/.*Test +#[0-9]+: ([^ ]+).*/\1/' || true)"
    killed=$((killed + 1))
  fi
  printf '%3d  %-60s %s\n' "$number" "${what:0:60}" "$result"
  apply "$line" restore
done < "$mutants"
cmake --build "$work/build" -j "$jobs" > /dev/null 2>&1 || true

echo
for s in "${survivors[@]}"; do echo "survivor $s"; done
total=$((killed + survived))
echo "killed $killed of $total compiling mutants ($invalid did not compile)"
(( total > 0 )) && echo "score $((100 * killed / total))%"
