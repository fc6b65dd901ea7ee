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

check() { # "GROUP PROMISE"
  local code=0 out
  out=$(QMX_DEVIATION=$1 "$command" basecheck "$work" --group "$1" --media "$data/timed-metadata.mov" 2>&1) || code=$?
  [ "$code" = "$(grep -cm1 'DIFFERS$' <<<"$out")" ] || fail "exit code $code: $out"
  grep -qE "^${1%% *} +${1#* }.* (DIFFERS|not relied on)$" <<<"$out" || fail "$1: $out"
}
grep -oP '(?<=is\(")[^"]+' "$data/../support/deviating_base.cpp" | sort -u >"$work/faults"
checks=()
while read -r fault; do
  check "$fault" & # each waits more than it works
  checks+=($!)
done <"$work/faults"
for check in "${checks[@]}"; do wait "$check"; done

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
