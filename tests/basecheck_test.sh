#!/usr/bin/env bash
# Over base libraries with one fault each, basecheck names the promise that the fault breaks. Over the stand-in, the
# trace filter shows the messages that it says.
#   basecheck_test.sh COMMAND_WITH_FAULTS
set -euo pipefail
command=$(realpath "$1")
data=$(cd "$(dirname "$0")/data" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "basecheck_test: $*" >&2; exit 1; }

grep -oP '(?<=is\(")[^"]+' "$data/../support/deviating_base.cpp" | sort -u >"$work/faults"
while read -r group promise; do
  code=0
  QMX_DEVIATION="$group $promise" "$command" basecheck "$work" --group "$group" --limit 2 \
    --media "$data/timed-metadata.mov" >"$work/out" 2>&1 || code=$?
  [ "$code" = "$(grep -cm1 'DIFFERS$' "$work/out")" ] || fail "exit code $code: $(cat "$work/out")"
  grep -qE "^$group +$promise.* (DIFFERS|not relied on)$" "$work/out" || fail "$promise: $(cat "$work/out")"
done <"$work/faults"

cp "$data/clips/h265-main.hvcc" "$work"
cd "$work"
while IFS='|' read -r filter messages; do
  export QMX_DEVIATION=none QMX_TRACE=$filter
  rm -f file.ini
  for words in "userdata missing" "ini set file.ini key value" "probe h265-main.hvcc"; do
    # shellcheck disable=SC2086
    "$command" $words 2>&1 >/dev/null | grep -oE '^[a-z_]+:[1-3] ' || true
  done | sort -u >shown
  [ "$(tr -d '\n' <shown)" = "$messages" ] || fail "with the filter '$filter' come $(cat shown)"
done <<'END'
|qmxutiluserdata:1 
2|qmxutil_ini:2 qmxutiluserdata:1 
3,qmxutil_ini=1,qmxutil_ini=2|qmxutil_ini:2 qmxutiluserdata:1 utilvideo:3 
qmxutil_in=3,qmxutil_ini_=3 utilvideo=3|qmxutiluserdata:1 utilvideo:3 
qmxutil_ini=1 2,,qmxutiluserdata=0|
4,20,x,qmxutil_ini=,=,utilvideo,/|qmxutiluserdata:1 
END
