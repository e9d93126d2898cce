#!/usr/bin/env bash
# Builds the kestrel tool with the default preset and runs each of its
# subcommands that exists on the sample data in data/.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

bash scripts/install-deps.sh
cmake --preset default > /dev/null
cmake --build --preset default --target kestrel_tool
tool=build/default/tools/kestrel/kestrel

# The subcommands this build of the tool has (from its own help text).
commands=$("$tool" --help | awk '/^Subcommands:/ {on = 1; next} on && NF {print $1}')
has() { grep -qx "$1" <<< "$commands"; }
run() {
  echo "\$ kestrel $*"
  "$tool" "$@" > /tmp/kestrel-demo.$$ 2>&1 || echo "(exit status $?)"
  head -n 12 /tmp/kestrel-demo.$$
  [ "$(wc -l < /tmp/kestrel-demo.$$)" -le 12 ] || echo "..."
  rm -f /tmp/kestrel-demo.$$
  echo
}

echo "kestrel subcommands: $(echo $commands)"
echo
run version
if has date; then
  run date --styles
  run date 07/04/76 --details
  run date --today --details
fi
for table in data/*.dbf; do
  has info && run info "$table"
  has dump && run dump "$table"
done
# Subcommands added since this script was written: show how to use them.
for c in $commands; do
  case "$c" in version | date | info | dump) ;; *) run "$c" --help ;; esac
done
exit 0
