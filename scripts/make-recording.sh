#!/usr/bin/env bash
# Makes the recordings of tests/data anew with ffmpeg: ten seconds of video and a data stream with a record of 64
# bytes a second ("record 0......" to "record 9......"). In MOV files it is a timed metadata track: gpmd is the
# one tag of a data stream for which ffmpeg writes the handler `meta`, and MOV the one container it does so in.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for i in 0 1 2 3 4 5 6 7 8 9; do
  printf 'record %d%s' "$i" "$(printf '.%.0s' {1..56})"
done >"$work/records"

# recording CONTAINER TIME_OF_RECORD_N TIME_BASE NAME options…
recording() {
  local container=$1 time=$2 time_base=$3 name=$4
  shift 4
  local tag=()
  if [ "$container" = mov ]; then tag=(-tag:d gpmd -metadata:s:d handler_name=records); fi
  ffmpeg -hide_banner -loglevel error -y -bitexact \
    -f lavfi -i testsrc=size=64x48:rate=5:duration=10 -f data -raw_packet_size 64 -i "$work/records" \
    -map 0:v -map 1:d -c:v mpeg4 -q:v 31 -flags:v +bitexact -c:d copy "${tag[@]}" \
    -bsf:d "setts=pts=$time:dts=$time:time_base=$time_base" "$@" -f "$container" "$name"
}
cut_off() { # NAME SIZE: of what is written to a pipe, where no header is written a second time
  head -c "$2" >"$top/tests/data/$1" || true
}

cd "$top/tests/data"
recording mov N 1/1 timed-metadata.mov
recording avi N 1/1 timed-metadata.avi
# Records every fifth tick: a chunk of no bytes for each of the others.
recording avi 5*N 1/5 ticks.avi -reserve_index_space 0
{ recording avi 5*N 1/5 - -reserve_index_space 0 || true; } 2>/dev/null | cut_off cut-off.avi 4000
# An edit list: records 2040 ms late, and 3 ticks of a clock of 90 kHz, which ffmpeg rounds off.
recording mov 90000*N+183603 1/90000 late.mov -movflags faststart
# Movie fragments, their offsets from the start of the file, of the moof, and of nothing that is said.
# The first one begins before the track does.
recording mov N-2 1/1 fragments.mov -g 5 -avoid_negative_ts disabled -movflags frag_keyframe+empty_moov+frag_discont
recording mov 90000*N+183603 1/90000 fragments-late.mov -g 10 -movflags frag_keyframe+delay_moov+default_base_moof
recording mov N 1/1 fragments-after-moov.mov -g 12 -movflags frag_keyframe+omit_tfhd_offset
{ recording mov N 1/1 - -g 5 -movflags frag_keyframe+empty_moov || true; } 2>/dev/null | cut_off cut-off.mov 5400
