#!/usr/bin/env bash
# Holds the pages to what is there:
# - after "<!-- from FILE -->" every line of the next indented block stands in FILE (which is compiled and run),
#   but for blanks at its beginning;
# - links lead to a file, and to a heading of it; the folders that docs/contributing.md names exist;
# - an indented "$ COMMAND" prints what stands below it ("..." is anything), on the clips. What a page runs from its
#   first ffmpeg on waits for a machine that has it.
#   scripts/check-docs.sh FOLDER_OF_THE_BUILD
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "$0")/.."
top=$PWD
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp tests/data/clips/* "$work"
export PATH=$build/tools:$build/examples:$PATH
snippets=0 links=0 outputs=0 left=0
fail() {
  echo "$page: $*" >&2
  exit 1
}

check_snippets() {
  local line text lines file='' in_block=
  while IFS= read -r line; do
    case $line in
      '<!-- from '*' -->')
        file=${line#<!-- from } file=${file% -->} in_block= snippets=$((snippets + 1))
        lines=$'\n'$(sed 's/^ *//' "$file")$'\n' ;;
      '    '*)
        if [ -n "$file" ]; then
          in_block=1
          text=${line#"${line%%[! ]*}"}
          [[ $lines == *$'\n'"$text"$'\n'* ]] || fail "not in $file: $text"
        fi ;;
      '') ;;
      *) [ -z "$in_block" ] || file= ;;
    esac
  done <"$page"
}

check_links() {
  local link file heading
  while read -r link; do
    links=$((links + 1))
    file=${link%%#*} heading=${link#"$file"}
    file=$(dirname "$page")/${file:-$(basename "$page")}
    [ -e "$file" ] || fail "there is no $link"
    [ -z "$heading" ] || sed -n 's/^#* //p' "$file" | tr 'A-Z ' 'a-z-' | tr -cd 'a-z0-9\n-' |
      grep -Fxq "${heading#\#}" || fail "no heading for $link"
  done < <(sed 's/`[^`]*`//g' "$page" | grep -oE '\]\([^):]+\)' | sed 's/^](//; s/)$//')
}

# Runs the command in hand and compares what stands below it in the page.
check_output() {
  [ -n "$command" ] || return 0
  case $command in ffmpeg*) command -v ffmpeg >/dev/null || away=1 ;; esac
  if [ -n "$away" ]; then
    left=$((left + 1))
  else
    outputs=$((outputs + 1))
    printed=$(cd "$work" && eval "$command" 2>&1 </dev/null) || fail "$command ends with $?: $printed"
    pattern=$(sed 's/[][\\*?]/\\&/g; s/\.\.\./*/g' <<<"$shown")
    # shellcheck disable=SC2053
    [[ $printed == $pattern ]] || fail "$command prints:"$'\n'"$printed"
  fi
  command=
}
check_outputs() {
  local line command='' shown='' away=
  while IFS= read -r line; do
    case $line in
      '    $ '*) check_output && command=${line#'    $ '} shown= ;;
      '    '*) shown+=${shown:+$'\n'}${line#    } ;;
      *) check_output ;;
    esac
  done < <(cat "$page" && echo)
}

for page in README.md CHANGELOG.md SECURITY.md docs/*.md; do
  check_snippets
  check_links
  check_outputs
done
page=docs/contributing.md
while read -r folder; do
  [ -d "$top/$folder" ] || fail "there is no folder $folder"
done < <(grep -oE '`[A-Za-z0-9_./-]+/`' "$page" | tr -d '`')
echo "$snippets snippets, $links links and $outputs outputs hold"
[ "$left" = 0 ] || echo "$left commands left out: there is no ffmpeg"
