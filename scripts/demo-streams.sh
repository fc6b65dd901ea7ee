#!/usr/bin/env bash
# Shows what the library knows of real streams: clips probed, cut into frames, their configuration converted.
#   scripts/demo-streams.sh PATH_OF_QMXUTIL
set -euo pipefail
qmxutil=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$(dirname "$0")"/../tests/data/clips/* "$work"
cd "$work"

say() { printf '\n== %s\n' "$1"; }
run() {
  printf '$ qmxutil %s\n' "$*"
  "$qmxutil" "$@"
}

say "What a player gets with a track: a decoder configuration. What is in it?"
run probe h264-high.avcc

say "Made into what a decoder takes, NAL units behind start codes; and back"
run convert --to annexb h264-high.avcc parameter-sets.264
run convert --to avcc parameter-sets.264 back.avcc
cmp -n "$(stat -c %s back.avcc)" back.avcc h264-high.avcc
echo "The same record, less the four bytes after its parameter sets."

say "The track's samples, converted likewise, and cut into frames"
run convert --to annexb h264-high.samples track.264
run frames track.264

say "Other streams: H.265, MPEG-4, MP3 after an ID3 tag, AAC's two bytes"
run probe h265-main10.265
run probe mpeg4-advanced.m4v
run probe mp3-id3.mp3
run probe aac-44100-2.asc --codec aac
