#!/usr/bin/env bash
# qmxutil ini: what it prints, its exit codes, and that it refuses what could not be read back.
#   tests/ini_command_test.sh PATH_OF_QMXUTIL
set -uo pipefail
qmxutil=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0

# expect EXIT_CODE OUTPUT ARGUMENTS...: standard output, line breaks as spaces
expect() {
  local code=$1 output=$2 got got_code=0
  shift 2
  "$qmxutil" ini "$@" >out 2>error || got_code=$?
  got=$(tr -s '\n ' ' ' <out)
  if [ "$got" != "$output" ] || [ "$got_code" != "$code" ] || { [ "$code" != 0 ] && [ ! -s error ]; }; then
    printf 'ini %s: exit %s, printed "%s"\n' "$*" "$got_code" "$got"
    failed=1
  fi
}

expect 0 "" set a.ini volume 7
expect 0 "7 " get a.ini volume
expect 0 '{ "key": "volume", "value": "7" } ' get a.ini volume --json
expect 0 "" set a.ini "record.path" "/data 1" --fixed-size 3000 --lock
expect 0 "volume 7 record.path /data 1 " list a.ini
[ "$(stat -c %s a.ini)" = 4096 ] || { echo "the file has not the size asked for"; failed=1; }
before=$(md5sum a.ini)
expect 1 "" set a.ini color "#fff"
expect 1 "" set a.ini lume 9
expect 1 "" get a.ini Volume
expect 1 "" get none.ini volume
expect 1 "" set none/deep/a.ini volume 7
expect 2 "" set a.ini volume
expect 2 "" set a.ini volume 7 --fixed-size -1
[ "$before" = "$(md5sum a.ini)" ] || { echo "a refused change was written"; failed=1; }
exit $failed
