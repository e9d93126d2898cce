#!/usr/bin/env bash
# The main job: builds the kestrel tool with the default preset and runs it on
# the sample data in data/ (a dBASE III table with memos, and a Clipper table
# with memos and eight NTX indexes).  Nothing in data/ is changed: commands
# that write work on copies in a temporary directory.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

bash scripts/install-deps.sh
cmake --preset default > /dev/null
cmake --build --preset default --target kestrel_tool
tool=build/default/tools/kestrel/kestrel
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run() {
  echo "\$ kestrel $*"
  "$tool" "$@" > "$work/out" 2>&1 || echo "(exit status $?)"
  head -n 12 "$work/out"
  [ "$(wc -l < "$work/out")" -le 12 ] || echo "... ($(wc -l < "$work/out") lines)"
  echo
}

run version
run date 07/04/76 --from 2 --to 15
run date --today --details
run info data/plain.dbf
run dump data/plain.dbf
run info data/staff.dbf --dialect 6
run dump data/staff.dbf --dialect 6 --format json
run memo data/staff.dbf NOTES 3 --dialect 6
run eval data/staff.dbf 3 "CITY+STR(AGE,3)+DTOC(HIRED,1)" --dialect 6
run check data/scitynm.ntx
run index keys data/scitynm.ntx

# Commands that write: on copies.
cp data/staff.dbf data/staff.dbt "$work/"
run index build "$work/staff.dbf" "$work/byname.ntx" NAME --length 20 --dialect 6
run check "$work/byname.ntx"
run index keys "$work/byname.ntx"
run pack "$work/staff.dbf" --dialect 6
run locks "$work/staff.dbf" --dialect 6
