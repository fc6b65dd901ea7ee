#!/usr/bin/env bash
# Shows a setting changed in a real fixed-size configuration file.
#   scripts/demo-ini.sh PATH_OF_QMXUTIL
set -euo pipefail
qmxutil=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

say() { printf '\n== %s\n' "$1"; }
run() {
  printf '$ qmxutil %s\n' "$*"
  "$qmxutil" "$@"
}
show() {
  local size text
  size=$(stat -c %s recorder.ini)
  text=$(tr -d '\0' <recorder.ini | wc -c)
  tr -d '\0' <recorder.ini | sed 's/^/   | /'
  printf '   %d bytes on storage: %d of text, %d zero bytes of padding\n' "$size" "$text" $((size - text))
}

say "A recorder's settings, in a file that keeps its size"
printf '[picture]\nbrightness = 5\n; at night\ngain = 12\n\n[sound]\nvolume = 3\n' >recorder.ini
run ini set recorder.ini language en --fixed-size 3000 --lock
show

say "Louder. The library traces its commit: in place, under a lock, and synced"
export QMX_TRACE=2
run ini set recorder.ini volume 11 --fixed-size 3000 --lock 2>&1 |
  sed "s/^qmxutil_ini:/   trace: &/; s/: Closing/:\n   Closing/; s/, padding/,\n   padding/"
unset QMX_TRACE
show

say "Read back, for a person and for a script"
run ini list recorder.ini
run ini get recorder.ini volume --json
