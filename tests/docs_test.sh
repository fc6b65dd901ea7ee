#!/usr/bin/env bash
# Snippets of the documentation do not rot: behind a line "<!-- from FILE -->" every line of the next indented
# block stands in FILE (which is compiled and run), but for blanks at its beginning.
#   docs_test.sh SOURCE
set -euo pipefail
cd "$1"
snippets=0
for page in README.md docs/*.md; do
  [ -e "$page" ] || continue
  file=
  in_block=
  while IFS= read -r line; do
    case $line in
      '<!-- from '*' -->') file=${line#<!-- from } file=${file% -->} in_block= snippets=$((snippets + 1)) ;;
      '    '*)
        if [ -n "$file" ]; then
          in_block=1
          text=${line#"${line%%[! ]*}"}
          sed 's/^ *//' "$file" | grep -Fxq -- "$text" || { echo "$page: not in $file: $text"; exit 1; }
        fi ;;
      '') ;;
      *) [ -z "$in_block" ] || file= ;;
    esac
  done <"$page"
done
[ "$snippets" -gt 0 ]
echo "$snippets snippets are in the files they are from"
