#!/usr/bin/env bash
# Makes tests/data/timed-metadata.mov and .avi with ffmpeg: ten seconds of video and a data stream with a
# record of 64 bytes a second ("record 0......" to "record 9......"). In the MOV it is a timed metadata
# track: gpmd is the one tag of a data stream for which ffmpeg writes the handler `meta`, and MOV the one
# container it does so in.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
records=$(mktemp)
trap 'rm -f "$records"' EXIT
for i in 0 1 2 3 4 5 6 7 8 9; do
  printf 'record %d%s' "$i" "$(printf '.%.0s' {1..56})"
done >"$records"
for kind in mov avi; do
  tag=()
  if [ "$kind" = mov ]; then tag=(-tag:d gpmd -metadata:s:d handler_name=records); fi
  ffmpeg -hide_banner -loglevel error -y -bitexact \
    -f lavfi -i testsrc=size=64x48:rate=5:duration=10 -f data -raw_packet_size 64 -i "$records" \
    -map 0:v -map 1:d -c:v mpeg4 -q:v 31 -flags:v +bitexact -c:d copy "${tag[@]}" \
    -bsf:d setts=pts=N:dts=N:time_base=1/1 "$top/tests/data/timed-metadata.$kind"
done
