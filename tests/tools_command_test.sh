#!/usr/bin/env bash
# qmxutil, all but the stream commands: what it prints, its exit codes, what it refuses, what files are then.
#   tests/tools_command_test.sh PATH_OF_QMXUTIL
set -uo pipefail
qmxutil=$(realpath "$1")
recording=$(dirname "$(realpath "$0")")/data/timed-metadata.mov
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0
fail() { echo "FAILED: $*"; failed=1; }
expect() { # EXIT_CODE TEXT ARGUMENT...: the text is part of what is printed, white space as one blank
  local code=$1 text=$2 got=0
  shift 2
  "$qmxutil" "$@" >out 2>&1 || got=$?
  [ "$got" = "$code" ] && [[ $(tr -s '\n ' ' ' <out) == *"$text"* ]] || fail "$*: exit $got: $(cat out)"
}

# ---- text
head -c 700000 /dev/urandom >bytes # several pieces
for kind in base64 hex; do
  "$qmxutil" text $kind encode bytes >text
  fold -w 76 text | "$qmxutil" text $kind decode | cmp - bytes || fail "$kind"
done
cmp <(base64 -w0 bytes; echo) <("$qmxutil" text base64 encode - <bytes) || fail "other Base64"
expect 0 68656c6c6f0a text hex encode <<<hello
printf 'Size: 1\r\nn=0x1F\nAt: 01:02:03.25\nx\n' >lines
expect 0 3723250 text field time At: <lines
expect 0 '{"line":3,"value":"01"}' text field --json word At: <lines
expect 1 "no line" text field dec Key: <lines
expect 2 KIND text field number <lines
expect 0 "" text base64 decode </dev/null
expect 1 "character 3" text hex decode <<<12g4
expect 1 "cut short" text hex decode <<<123
expect 1 "character 4" text base64 decode <<<'QUJ!'
for text in QUJDRA QQ==QUJD QUJDAB,, QUJD=ABC QQ=A QUJD,ABC Q===; do
  expect 1 Base64 text base64 decode <<<$text
done

# ---- ini: nothing but the named pair ever changes
expect 0 "" ini set a.ini volume 7
expect 0 '{ "key": "volume", "value": "7" }' ini get a.ini volume --json
expect 0 "" ini set a.ini "record.path" "/data 1" --fixed-size 3000 --lock
expect 0 "volume 7 record.path /data 1" ini list a.ini
[ "$(stat -c %s a.ini)" = 4096 ] || fail "the file has not the size asked for"
printf 'subvolume = 1\nvolume = 7\n' >b.ini
printf 'volume = 7\n\0hidden = 1\n' >c.ini
printf 'a =\n\tw=1\n\tx=1\nb = 1\n\t# c\nc = \\\n1' >e.ini
before=$(md5sum ./*.ini)
for words in "a.ini color #fff" "a.ini lume 9" "b.ini volume 8" "c.ini volume 8" "e.ini "{a,x,b,c}" 8" "new/d.ini color #fff"; do
  # shellcheck disable=SC2086
  expect 1 "left unchanged" ini set $words
done
expect 0 '"written": false' ini set b.ini volume 7 --json
expect 1 "stays at 25 bytes" ini set b.ini volume 7 --fixed-size 100
expect 1 "no key" ini get a.ini Volume
expect 1 "No such file" ini set none/deep/a.ini volume 7
expect 2 value ini set a.ini volume
[ "$before" = "$(md5sum ./*.ini)" ] && [ ! -e new ] || fail "a refused change left its mark"

# ---- recordings
printf '\0\0\0\210moov\0\0\0\154mvhd%0100d\0\0\0\024udta\0\0\0\014qmxm\0\0\0\052' 0 >word.mp4
printf '\0\0\0\206moov\0\0\0\154mvhd%0100d\0\0\0\022udta\0\0\0\012qmxm\x34\x12' 0 >short.mp4
printf 'RIFF\x6E\0\0\0AVI LIST\x4E\0\0\0hdrlavih\x38\0\0\0%056dqmxm\1\0\0\0\x2A\0' 0 >byte.avi
before=$(md5sum ./*.mp4 ./*.avi)
expect 2 "from 0 to 255" meta set word.mp4 1 256
expect 2 "from 0 to 65535" meta set short.mp4 2 65536
expect 1 "not made as type 2" meta set word.mp4 2 7
expect 1 "not made as type 1" meta set short.mp4 1 0
expect 1 "reads back as 44" meta set byte.avi 2 300
[ "$before" = "$(md5sum ./*.mp4 ./*.avi)" ] || fail "a refused value was written"
expect 0 '"value": 10' meta set word.mp4 1 010 --json
expect 0 '"value": 10' meta get word.mp4 1 --json
expect 0 4660 meta get short.mp4 2
expect 1 "Is a directory" meta get . 1
expect 0 "-bsf:v dump_extra -f m4v stream.m4v" probe "$recording"
expect 1 "without user data" userdata word.mp4
expect 2 4294968 userdata "$recording" --second 4294968
expect 0 "10 of 10 records written to records, 16 bytes each" userdata "$recording" --size 16 --export records

# ---- the rest
expect 2 LAT gps 9950.0 N 00915.5 W
expect 2 "60 minutes" gps 4575.0 N 00915.5 W
mkdir -p "top/$(printf 'x%.0s' {1..60})" top/a/b
expect 0 '"path": "top/a/b"' find top b --json
expect 1 "1 not looked at" find top none
expect 1 "No such process" kill --pid 2147483647
expect 1 "not running" kill no-such-program
expect 1 '"found": false' which no-such-command --json
expect 2 "no subcommand foo" ini foo
expect 2 "no option --foo" --foo
for words in "gps 1 N 1 E --json" "userdata $recording --json" "cpu --interval 0.01 --json" --help; do
  # shellcheck disable=SC2086
  [ ! -w /dev/full ] || { ! "$qmxutil" $words >/dev/full 2>out && [ -s out ]; } || fail "a full disk: $words"
done
exit $failed
