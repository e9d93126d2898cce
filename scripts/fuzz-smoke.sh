#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, ASan, UBSan) and runs
# each for a short while on its seeds: fuzz/corpus and the test fixtures.
# New inputs go to a scratch folder, never into the source tree; a crash,
# a leak, a sanitizer report or a hang fails the run and leaves the input in
# build/fuzz/smoke/<target>/.
#
#   bash scripts/fuzz-smoke.sh [seconds per target, default 60]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
seconds="${1:-60}"

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

declare -A seeds=(
  [fuzz_expr]="fuzz/corpus/expr tests/expr/regressions"
  [fuzz_ntx]="fuzz/corpus/ntx tests/fixtures/ntx"
  [fuzz_ndx]="tests/fixtures/dbase"
  [fuzz_table]="tests/fixtures/tables tests/fixtures/memo"
  [fuzz_memo]="tests/fixtures/memo"
  [fuzz_fox_index]="tests/fixtures/foxpro tests/fixtures/foxpro/realworld"
  [fuzz_fox_leaf]="fuzz/corpus/fox_leaf"
)
targets=(build/fuzz/fuzz/fuzz_*)
if [ ! -x "${targets[0]}" ]; then
  echo "fuzz-smoke: no fuzz targets were built" >&2
  exit 1
fi

run() {
  local program="$1" name
  name="$(basename "$program")"
  local work="build/fuzz/smoke/$name"
  rm -rf "$work" && mkdir -p "$work/new"
  local dirs=()
  for d in ${seeds[$name]:-}; do [ -d "$d" ] && dirs+=("$d"); done
  if "$program" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
      -artifact_prefix="$work/" -print_final_stats=1 "$work/new" "${dirs[@]}" \
      >"$work/log" 2>&1; then
    echo "fuzz-smoke: $name: $(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$work/log" |
      grep -o '[0-9]*$') runs, no finding"
  else
    echo "fuzz-smoke: $name FAILED; see $work/log" >&2
    tail -40 "$work/log" >&2
    return 1
  fi
}

# Two at a time: the machine's two cores.
status=0
pids=()
for program in "${targets[@]}"; do
  run "$program" &
  pids+=($!)
  if [ ${#pids[@]} -eq 2 ]; then
    for p in "${pids[@]}"; do wait "$p" || status=1; done
    pids=()
  fi
done
for p in "${pids[@]}"; do wait "$p" || status=1; done
exit $status
