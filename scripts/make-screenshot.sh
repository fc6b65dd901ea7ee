#!/usr/bin/env bash
# Draws docs/frames.svg, the picture of the README, from what the command really prints.
#   scripts/make-screenshot.sh PATH_OF_QMXUTIL
set -euo pipefail
qmxutil=$(realpath "$1")
cd "$(dirname "$0")/.."
picture=$PWD/docs/frames.svg

output() {
  local command
  for command in "probe h264-high.264" "frames h264-high.264"; do
    printf '$ qmxutil %s\n' "$command"
    # shellcheck disable=SC2086
    "$qmxutil" $command
  done
}

cd tests/data/clips
output | awk '
  { line[NR] = $0; if (length($0) > widest) widest = length($0) }
  function escaped(text) { gsub(/&/, "\\&amp;", text); gsub(/</, "\\&lt;", text); gsub(/>/, "\\&gt;", text); return text }
  END {
    em = 8.4; leading = 19; left = 16; top = 30
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" font-family=\"DejaVu Sans Mono, Menlo, Consolas, monospace\" font-size=\"14\">\n", widest * em + 2 * left, NR * leading + 28
    print "<rect width=\"100%\" height=\"100%\" rx=\"8\" fill=\"#14181f\"/>"
    for (i = 1; i <= NR; ++i) {
      text = line[i]; y = top + (i - 1) * leading; bar = 0
      if (match(text, /#+$/)) { bar = RLENGTH; start = RSTART - 1; text = substr(text, 1, start) }
      sub(/ +$/, "", text)
      columns = length(text)
      printf "<text x=\"%d\" y=\"%d\" xml:space=\"preserve\" fill=\"%s\"", left, y, text ~ /^\$/ ? "#7ee787" : "#d5dbe3"
      if (columns > 0) printf " textLength=\"%.1f\" lengthAdjust=\"spacingAndGlyphs\"", columns * em
      printf ">%s</text>\n", escaped(text)
      if (bar) printf "<rect x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"11\" rx=\"2\" fill=\"#58a6ff\"/>\n", left + start * em, y - 10, bar * em
    }
    print "</svg>"
  }' >"$picture"
echo "$picture"
