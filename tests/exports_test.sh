#!/usr/bin/env bash
# What the built libraries show to a linker and a loader: exactly the declared functions and tables, no run-time
# C++ library, and the hardening that a release build promises.
#   exports_test.sh SOURCE BUILD   (in the environment: NM, READELF, SIZE_LIMIT in bytes for libqmxutil.so, or none)
set -euo pipefail
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() {
  echo "exports_test: $*" >&2
  failed=1
}

# check_exports LIBRARY MARK HEADER...: the symbols exported are those declared with MARK.
check_exports() {
  local library=$1 mark=$2
  shift 2
  "$NM" -D --defined-only "$library" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | sort >"$work/exported"
  sed -e '/^#/d' -e '/\\$/d' "$@" | tr '\n' ' ' | sed 's:/\*[^*]*\*\+\([^/*][^*]*\*\+\)*/::g' |
    grep -oE "\b$mark [^;(]*[(;]" | sed -E 's/(\[[^]]*\])* *[(;]$//; s/.*[ *]//' | sort >"$work/declared"
  [ -s "$work/declared" ] || fail "no declarations found in $*"
  diff -u --label "declared in the headers" --label "exported by ${library##*/}" "$work/declared" "$work/exported" >&2 ||
    fail "exports and headers differ"
}

# has LIBRARY TEXT PATTERN WHAT, lacks …: whether a dump has a line like PATTERN.
has() { grep -qE "$3" <<<"$2" || fail "${1##*/}: no $4"; }
lacks() { ! grep -qE "$3" <<<"$2" || fail "${1##*/}: has $4"; }

check_hardening() {
  local library=$1 dynamic segments sections symbols
  dynamic=$("$READELF" -dW "$library")
  segments=$("$READELF" -lW "$library")
  sections=$("$READELF" -SW "$library")
  symbols=$("$NM" -D "$library")
  has "$library" "$dynamic" "SONAME.*\[${library##*/}\.1\]" "SONAME ${library##*/}.1"
  has "$library" "$dynamic" 'BIND_NOW|FLAGS_1.*NOW' "BIND_NOW"
  has "$library" "$segments" 'GNU_RELRO' "RELRO"
  has "$library" "$segments" 'GNU_STACK.* RW ' "stack that is not executable"
  has "$library" "$symbols" 'U __stack_chk_fail' "stack protector"
  has "$library" "$symbols" 'U __[a-z]+_chk' "calls with checked bounds (_FORTIFY_SOURCE)"
  lacks "$library" "$dynamic" 'TEXTREL' "text relocations"
  lacks "$library" "$dynamic" 'NEEDED.*lib(stdc|c\+\+|gcc_s)' "need of a run-time C++ library"
  # Nothing of ours runs at load: the one entry is the compiler's own.
  has "$library" "$sections" '\.init_array +INIT_ARRAY +[0-9a-f]+ [0-9a-f]+ 000008 ' "load without constructors"
}

qmxutil=$build/src/libqmxutil.so
qmxbase=$build/platform/libqmxbase.so
check_exports "$qmxutil" QMX_API "$source"/include/qmxutil_*.h
check_exports "$qmxbase" QMX_BASE_API "$source"/base/qmx_*.h
check_hardening "$qmxutil"
check_hardening "$qmxbase"

has "$qmxutil" "$("$NM" -D "$qmxutil")" 'U QMX_Trace$' "base library outside itself"

size=$(stat -Lc %s "$qmxutil")
echo "libqmxutil.so: $size bytes"
[ -z "${SIZE_LIMIT:-}" ] || [ "$size" -lt "$SIZE_LIMIT" ] || fail "libqmxutil.so is not under $SIZE_LIMIT bytes"
exit $failed
