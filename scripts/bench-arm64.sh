#!/usr/bin/env bash
# Instructions that the library executes on the device's architecture, counted under the emulator.
#   scripts/bench-arm64.sh table BUILD [PATTERN]   rows beside their peers
#   scripts/bench-arm64.sh check BUILD TSV         fails when a row takes over 3 % more than TSV has, or is in one only
#   scripts/bench-arm64.sh accept BUILD TSV        writes TSV
set -euo pipefail

action=$1
build=$2/bench
peers=$(dirname "$2")/arm64-peers/root

# The environment is empty and addresses are not random, so that figures are the same from run to run.
count() {
  setarch -R env -i qemu-aarch64 -plugin "$build/count_plugin.so" -L "$peers" "$build/qmxutil_count" "$@"
}

# Ours, a row of work once.
ours() {
  echo "# instructions per unit of work, $(aarch64-linux-gnu-g++ --version | head -n 1)"
  count | awk -F'\t' '!seen[$1]++ {printf "%s\t%s\n", $1, $3}'
}

case $action in
  table)
    printf '%-60s %12s  %-36s %12s %7s\n' work instructions peer 'its number' ratio
    count "${3:-.}" | awk -F'\t' '{printf "%-60s %12d  %-36s %12d %7.2f\n", $1, $3, $2, $4, $3 / $4}' ;;
  accept) ours >"$3.new" && mv "$3.new" "$3" ;;
  check)
    ours | awk -F'\t' -v file="$3" '
      function fail(text) { print "bench-arm64: " text; failed = 1 }
      FNR == NR { wanted[$1] = $2; next }
      FNR == 1 && !($0 in wanted) { print "counted now: " $0 }
      /^#/ { next }
      !($1 in wanted) { fail("\"" $1 "\" is not in " file); next }
      $2 > wanted[$1] * 1.03 { fail("\"" $1 "\" takes " $2 " instructions, " wanted[$1] " in " file) }
      { delete wanted[$1]; ++rows }
      END {
        for (name in wanted) if (name !~ /^#/) fail("\"" name "\" is in " file " but was not counted")
        if (failed) print "Accept with: make bench-arm64-accept"
        else print rows " rows within 3 % of " file
        exit failed
      }' "$3" - ;;
esac
