#!/usr/bin/env bash
# What the built libraries show to a compiler, a linker and a loader: the committed interface, no run-time C++
# library, and the hardening that a release build promises. The interface, tests/data/abi.txt, lists every exported
# symbol (of a table, its size), and size and offset of every field of every record in the headers. A difference
# means that programs built earlier may break; one that is wanted is committed: exports_test.sh … >tests/data/abi.txt
#   exports_test.sh SOURCE BUILD [compare]   (in the environment: CC, NM, READELF, EMULATOR, and SIZE_LIMIT in
#   bytes for libqmxutil.so, or none)
set -euo pipefail
source=$1
libraries=("$2/src/libqmxutil.so" "$2/platform/libqmxbase.so")
headers=("$source"/base/qmx_*.h "$source"/include/qmxutil_*.h)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() {
  echo "exports_test: $*" >&2
  failed=1
}

# A program that prints the records. Comments away; within "typedef struct NAME { … } NAME;" the name of a field
# is the last word of its line, or stands in (*name) when it is a function's address.
{
  printf '#include "%s"\n' stddef.h stdio.h "${headers[@]##*/}"
  echo 'int main(void) {'
  for header in "${headers[@]}"; do
    "$CC" -w -fpreprocessed -dD -E -P "$header"
  done | tee "$work/code" | awk '
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
  for library in "${libraries[@]}"; do
    echo "# Exported by ${library##*/}; of tables their size in bytes (hexadecimal)"
    "$NM" -D -S --defined-only "$library" |
      awk '$3 == "T" {print $4} $3 ~ /[RDB]/ {print $4, $2}' | sed 's/@@/ /' | LC_ALL=C sort
  done | tee "$work/exported"
  echo "# Records with their size; fields with offset and size"
  ${EMULATOR:-} "$work/layout"
} >"$work/abi.txt"
if [ "${3:-}" != compare ]; then
  cat "$work/abi.txt"
  exit
fi
diff -u --label "tests/data/abi.txt" --label "as built" "$source/tests/data/abi.txt" "$work/abi.txt" ||
  fail "the interface has changed"
sed '/^#/d' "$work/code" | tr '\n' ' ' | grep -oE '\bQMX_(BASE_)?API [^;(]*[(;]' |
  sed -E 's/(\[[^]]*\])* *[(;]$//; s/.*[ *]//' | sort |
  diff - <(sed '/^#/d; s/ .*//' "$work/exported" | sort) ||
  fail "what the headers declare (<) is not what is exported (>)"

# has TEXT PATTERN WHAT, lacks …: whether a dump of the library has a line like PATTERN.
has() { grep -qE "$2" <<<"$1" || fail "${library##*/}: no $3"; }
lacks() { ! grep -qE "$2" <<<"$1" || fail "${library##*/}: has $3"; }
for library in "${libraries[@]}"; do
  dynamic=$("$READELF" -dW "$library")
  segments=$("$READELF" -lW "$library")
  symbols=$("$NM" -D "$library")
  has "$dynamic" "SONAME.*\[${library##*/}\.1\]" "SONAME ${library##*/}.1"
  has "$dynamic" 'BIND_NOW|FLAGS_1.*NOW' "BIND_NOW"
  has "$segments" 'GNU_RELRO' "RELRO"
  has "$segments" 'GNU_STACK.* RW ' "stack that is not executable"
  has "$symbols" 'U __stack_chk_fail' "stack protector"
  has "$symbols" 'U __[a-z]+_chk' "calls with checked bounds (_FORTIFY_SOURCE)"
  lacks "$dynamic" 'TEXTREL' "text relocations"
  lacks "$dynamic" 'NEEDED.*lib(stdc|c\+\+|gcc_s)' "need of a run-time C++ library"
  code=$("${NM%nm}objdump" -d --no-show-raw-insn -j .text "$library" | grep -A1 '^[0-9a-f]* <[A-Za-z0-9_@.]*>:$')
  ! grep -vE '>:$|^--$|endbr64|paciasp|bti' <<<"$code" || fail "${library##*/}: functions not marked as landings"
  # Nothing of ours runs at load: the one entry is the compiler's own.
  sections=$("$READELF" -SW "$library")
  has "$sections" '\.init_array +INIT_ARRAY +[0-9a-f]+ [0-9a-f]+ 000008 ' "load without constructors"
done

size=$(stat -Lc %s "${libraries[0]}")
echo "libqmxutil.so: $size bytes"
[ -z "${SIZE_LIMIT:-}" ] || [ "$size" -lt "$SIZE_LIMIT" ] || fail "that is not under $SIZE_LIMIT"
exit $failed
