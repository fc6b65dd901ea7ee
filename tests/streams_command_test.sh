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
while IFS='|' read -r clip _; do
  kind=${kinds[${clip##*.}]}
  "$qmxutil" probe "$clip" --json | grep -q "\"kind\": \"$kind\"" || fail "$clip is not $kind"
  "$qmxutil" probe "$clip" | grep -q "^$clip: " || fail "$clip has no report"
done <ffprobe.txt

for clip in *.264 *.265; do
  bytes=$("$qmxutil" frames "$clip" --json | awk '/"bytes"/ { gsub(/,/, ""); n[i++] = $2 }
    END { for (k = 1; k < i; ++k) sum += n[k]; print n[0] - sum }')
  [ "$bytes" = 0 ] || fail "frames of $clip do not add up to it"
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

expect_exit 2 probe
expect_exit 2 convert --to mp3 h264-high.avcc "$work/x"
expect_exit 1 probe no-such-file
expect_exit 1 probe ffprobe.txt
expect_exit 1 frames mp3-id3.mp3
expect_exit 1 convert --to avcc h265-main.265 "$work/x"
expect_exit 1 convert --to annexb mp3-id3.mp3 "$work/x"
expect_exit 1 convert --to lengths h264-high.264 /no-such-folder/x
