#!/usr/bin/env bash
# The text commands: both ways and back, values of lines, and what is refused.   text_command_test.sh QMXUTIL
set -euo pipefail
qmxutil=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
is() { [ "$1" = "$2" ] || fail "'$1' is not '$2'"; }
refused() { # EXIT_CODE MESSAGE ARGUMENT... < input
  local code=$1 message=$2 actual=0
  shift 2
  "$qmxutil" text "$@" >"$work/out" 2>"$work/err" || actual=$?
  is "$actual" "$code"
  grep -qF -- "$message" "$work/err" || fail "$* says: $(cat "$work/err")"
}

head -c 700000 /dev/urandom >"$work/bytes" # several pieces
for kind in base64 hex; do
  "$qmxutil" text $kind encode "$work/bytes" >"$work/text"
  fold -w 76 "$work/text" | "$qmxutil" text $kind decode | cmp - "$work/bytes" || fail "$kind"
done
is "$("$qmxutil" text hex encode <<<hello)" 68656c6c6f0a
is "$(base64 -w0 "$work/bytes")" "$("$qmxutil" text base64 encode - <"$work/bytes")"

printf 'Size: 1\r\nn=0x1F\nAt: 01:02:03.25\nx\n' >"$work/lines"
is "$("$qmxutil" text field time At: <"$work/lines")" 3723250
is "$("$qmxutil" text field rest Size: <"$work/lines")" 1
is "$("$qmxutil" text field --json word At: <"$work/lines")" '{"line":3,"value":"01"}'

refused 1 "character 3" hex decode <<<12g4
refused 1 "cut short" hex decode <<<123
refused 1 "character 4" base64 decode <<<'QUJ!'
refused 1 "cut short" base64 decode <<<QUJDRA
refused 1 "ends at character 4" base64 decode <<<'QQ==QUJD'
refused 1 "No such file" base64 encode "$work/none"
refused 1 "no line" field dec Key: <"$work/lines"
refused 2 "KIND" field number <"$work/lines"
[ ! -w /dev/full ] || { ! "$qmxutil" text hex encode "$work/lines" >/dev/full 2>&1 || fail "a full disk"; }
