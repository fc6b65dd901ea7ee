#!/usr/bin/env bash
# qmxutil probe, frames and convert on every clip: kinds, sums, round trips, exit codes.
#   tests/streams_command_test.sh PATH_OF_QMXUTIL
set -euo pipefail
qmxutil=$(realpath "$1")
cd "$(dirname "$0")/data/clips"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "failed: $*" >&2; exit 1; }
expect_exit() { # STATUS arguments…
  local status=0
  "$qmxutil" "${@:2}" >/dev/null 2>&1 || status=$?
  [ "$status" = "$1" ] || fail "exit $status instead of $1: ${*:2}"
}
# What is reported is what ffprobe says, but that H.264 has the coded size, and none for profile 244.
while IFS='|' read -r clip facts; do
  [ "${clip##*.}" != asc ] || continue
  report=$("$qmxutil" probe "$clip" --json)
  while IFS='=' read -r -d '|' fact value; do
    case ${clip##*.}:$fact in
      264:pic_width_in_mbs_minus1) field=width value=$((16 * value + 16)) ;;
      264:pic_height_in_map_units_minus1) field=height value=$((16 * value + 16)) ;;
      264:max_num_ref_frames) field=referenceFrames ;;
      264:profile_idc | 265:general_profile_idc) field=profile ;;
      avcc:nal_length_size) field=nalLengthSize ;;
      265:chroma_format_idc) field=chromaFormat ;;
      265:coded_width | m??:width | vol:width) field=width ;;
      265:coded_height | m??:height | vol:height) field=height ;;
      *:sample_rate) field=sampleRate ;;
      *:channels | 26?:level | ?vcc:level) field=$fact ;;
      *) continue ;;
    esac
    [[ $clip:$field =~ 444.264:[hrw] || $report =~ \"$field\":\ ${value}[,[:space:]] ]] || fail "$clip: no $field $value"
  done <<<"$facts|"
done <ffprobe.txt
for samples in h264*.samples; do
  "$qmxutil" convert --to annexb "$samples" "$work/annexb" >/dev/null
  "$qmxutil" convert --to lengths "$work/annexb" "$work/lengths" >/dev/null
  cmp "$samples" "$work/lengths"
done

declare -A kinds=([264]=h264 [265]=h265 [avcc]=avcc [hvcc]=hvcc [m1v]=mpeg12 [m2v]=mpeg12 [m4v]=mpeg4 [vol]=mpeg4
  [mp3]=mp3 [asc]=aac)
while IFS='|' read -r clip facts; do
  kind=${kinds[${clip##*.}]}
  codec=$([ "$kind" != aac ] || echo --codec=aac)
  # shellcheck disable=SC2086
  "$qmxutil" probe - $codec --json <"$clip" | grep -qF "\"kind\": \"$kind\"" ||
    fail "$clip is not $kind"
  [[ $kind =~ ^h26 ]] || continue
  frames=$("$qmxutil" frames "$clip" --json)
  bytes=$(grep -o '"bytes":[0-9]*' <<<"$frames" | awk -F: '{ sum += $2 } END { print sum }')
  [ "$bytes" = "$(stat -c %s "$clip")" ] || fail "frames of $clip do not add up to it"
  [[ $facts =~ nb_read_packets=([0-9]+) ]]
  grep -q "^  \"pictures\": ${BASH_REMATCH[1]}$" <<<"$frames" || fail "$clip has other pictures"
done <ffprobe.txt

for clip in *.264 *.265; do
  "$qmxutil" convert --to lengths "$clip" "$work/lengths" >/dev/null
  "$qmxutil" convert --to annexb "$work/lengths" "$work/annexb" >/dev/null
  "$qmxutil" convert --to lengths "$work/annexb" "$work/again" >/dev/null
  cmp "$work/lengths" "$work/again"
done
for record in *.hvcc; do
  "$qmxutil" convert --to annexb "$record" "$work/annexb" >/dev/null
  "$qmxutil" convert --to hvcc-arrays "$work/annexb" "$work/arrays" >/dev/null
  [ "$(stat -c %s "$work/arrays")" = $(($(stat -c %s "$work/annexb") - 6)) ] || fail "arrays of $record"
done

# Containers are named, whatever is in them; what only looks like a stream, and what is cut short, is refused.
recognised() { # KIND, the file on standard input
  cat >"$work/input"
  "$qmxutil" probe "$work/input" --json >"$work/out" 2>/dev/null || true
  grep -qF "\"kind\": \"$1\"" "$work/out" || fail "no $1: $(head -c 20 "$work/input")"
}
printf '\0\0\0\020ftypisom\0\0\0\0\0\0\0\010mdat' | recognised mp4
printf 'RIFF\0\0\0\0AVI LIST' | recognised avi
printf '\x1A\x45\xDF\xA3\x80V_MPEG4/ISO/AVC' | recognised matroska
printf 'G%0187d' 0 0 0 0 0 | recognised mpegts
printf 'ID3\4\0\0\0\0\0\0\xFF\xF1\x50\x80\x01\x1F\xFC\0' | recognised adts
{ head -c 4 h264-high.avcc; printf '\3\1'; tail -c +7 h264-high.avcc; } | recognised avcc
{ head -c 22 h265-main.hvcc; printf '\0'; } | recognised hvcc
printf '\0\0\1\xB3\x14\0\xF0\0\xFF\xFF\xE0\xA0\0\0\0\1\1\x21' >"$work/no-rate.m2v"
tail -c +100 mp3-44100-plain.mp3 >"$work/late.mp3"
head -c 41 h264-high.avcc >"$work/cut.avcc"
echo 'The free text' >"$work/text"
printf 'G%.0s' {1..2000} >"$work/letters"
printf '\0\0\0\020ftypavif\0\0\0\0' >"$work/picture"
printf '\0\0\0\1Bud1\0\0\1\xB6\0\0\1\x20\0\0\1\x67random' >"$work/codes"
for file in "$work"/{no-rate.m2v,late.mp3,cut.avcc,text,letters,picture,codes} aac-8000-1.asc no-such-file ffprobe.txt; do
  expect_exit 1 probe "$file"
done
{ printf '\0\0\1\xB3\0\x10\x40'; cat mpeg4-simple.m4v; } | recognised mpeg4
expect_exit 2 probe
expect_exit 2 convert --to mp3 h264-high.avcc "$work/x"
expect_exit 1 frames mp3-id3.mp3
expect_exit 1 frames --codec h265 h264-slices.264
expect_exit 1 convert --to avcc h265-main.265 "$work/x"
expect_exit 1 convert --to annexb mp3-id3.mp3 "$work/x"
expect_exit 1 convert --to annexb "$work/cut.avcc" "$work/x"
expect_exit 1 convert --to lengths h264-high.264 /no-such-folder/x

# Rows fit the terminal; a recording of 4 GiB takes no more memory than a short one.
rows=$("$qmxutil" frames --codec h265 h264-slices.264 2>/dev/null) || ! grep -E '.{81}' <<<"$rows" ||
  fail "wide rows"
if (ulimit -v 65536 && "$qmxutil" --version) >/dev/null 2>&1; then # not with a sanitizer
  cp h264-high.264 "$work/large"
  truncate -s 4G "$work/large"
  (ulimit -v 65536 && "$qmxutil" probe "$work/large" >/dev/null) || fail "4 GiB in 64 MiB"
  grep -q '10 units, 9 pictures' <("$qmxutil" frames "$work/large" 2>&1) || fail "units before zeros"
fi
