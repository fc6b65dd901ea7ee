#!/usr/bin/env bash
# Compares the interface of the built library with the committed one, tests/data/abi.txt: every exported symbol
# (of a table, its size), and size and offset of every field of every record in the headers. A difference means
# that programs built earlier may break; one that is wanted is committed: abi_test.sh … >tests/data/abi.txt
#   abi_test.sh SOURCE BUILD [compare]   (in the environment: NM, CC, EMULATOR)
set -euo pipefail
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

headers=("$source"/base/qmx_*.h "$source"/include/qmxutil_*.h)
{
  echo '#include <stddef.h>'
  echo '#include <stdio.h>'
  printf '#include "%s"\n' "${headers[@]##*/}"
  echo 'int main(void) {'
  # Comments away; within "typedef struct NAME { … } NAME;" the name of a field is the last word of its line, or
  # stands in (*name) when it is a function's address.
  for header in "${headers[@]}"; do
    "$CC" -w -fpreprocessed -dD -E -P "$header"
  done | awk '
    /^typedef struct [A-Za-z0-9_]+ \{/ {
      record = $3
      printf "printf(\"%%s %%zu\\n\", \"%s\", sizeof(%s));\n", record, record
      next
    }
    /^\}/ {record = ""}
    record != "" && /;/ {
      field = $0
      if (!sub(/\).*/, "", field) || !sub(/.*\(\*/, "", field)) {
        field = $0
        sub(/(\[[^]]*\])*;.*/, "", field)
        sub(/.*[ *]/, "", field)
      }
      printf "printf(\"  %%s %%zu %%zu\\n\", \"%s\", offsetof(%s, %s), sizeof(((%s*)0)->%s));\n",
        field, record, field, record, field
    }'
  echo 'return 0; }'
} >"$work/layout.c"
"$CC" -std=c11 -I"$source/include" -I"$source/base" -o "$work/layout" "$work/layout.c"

{
  echo "# Exported symbols; of tables their size in bytes (hexadecimal)"
  "$NM" -D -S --defined-only "$build/src/libqmxutil.so" |
    awk '$3 == "T" {print $4} $3 ~ /[RDB]/ {print $4, $2}' | sed 's/@@/ /' | LC_ALL=C sort
  echo "# Records with their size; fields with offset and size"
  ${EMULATOR:-} "$work/layout"
} >"$work/abi.txt"
if [ "${3:-}" = compare ]; then
  diff -u --label "tests/data/abi.txt" --label "as built" "$source/tests/data/abi.txt" "$work/abi.txt"
else
  cat "$work/abi.txt"
fi
