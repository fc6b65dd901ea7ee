#!/usr/bin/env bash
# Installs the build into an empty prefix and uses it as a stranger would: every example by pkg-config as C and by
# CMake as C++, a program of its own that runs, the command, its man page and its completion.
#   install_test.sh SOURCE BUILD   (in the environment: CC, TOOLCHAIN, EMULATOR)
set -euo pipefail
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
run() { LD_LIBRARY_PATH=$prefix/lib ${EMULATOR:-} "$@"; }
fail() {
  echo "install_test: $*" >&2
  exit 1
}

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix" # nothing may remember where it was installed
prefix=$work/prefix
! grep -rIl "$work\|$build\|$source" "$prefix" || fail "these files know the place they were made in"

mkdir "$work/app"
cp "$source"/examples/*.c "$work/app/" 2>/dev/null || true
cat >"$work/app/position.c" <<'END'
#include <qmxbase.h>
#include <qmxutil.h>
#include <stdio.h>

int main(void) {
  const GpsMapPoint point = QMXUtil_GPSConvToMap(0, 1, 4530.0F, 100.0F);
  char text[64];
  QMX_snprintf(text, sizeof text, "position %d %d", (int)point.latitudeE5, (int)point.longitudeE5);
  puts(text);
  return 0;
}
END
run_position() {
  local said
  said=$(run "$1")
  [ "$said" = "position -4550000 100000" ] || fail "$1 said: $said"
}

pc=$(find "$prefix" -name qmxutil.pc -printf '%h')
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs qmxutil)
for program in "$work"/app/*.c; do
  # shellcheck disable=SC2086
  "${CC:-cc}" -std=c11 -Wall -Wextra -Wpedantic -Werror -o "${program%.c}-c" "$program" $flags
done
run_position "$work/app/position-c"

cat >"$work/app/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.16)
project(app LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(qmxutil 1.0 REQUIRED)
file(GLOB programs *.c)
set_source_files_properties(${programs} PROPERTIES LANGUAGE CXX)
foreach(program ${programs})
  get_filename_component(name ${program} NAME_WE)
  add_executable(${name} ${program})
  target_link_libraries(${name} PRIVATE qmxutil::qmxutil)
endforeach()
END
cmake -S "$work/app" -B "$work/app/build" -Dqmxutil_DIR="$pc/../cmake/qmxutil" \
  ${TOOLCHAIN:+-DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN"} >/dev/null
cmake --build "$work/app/build" -j 2 >"$work/log" 2>&1 || { cat "$work/log"; fail "the CMake build"; }
run_position "$work/app/build/position"

[ "$(run "$prefix/bin/qmxutil" gps 4530.0 S 00100.0 E)" = "-45.50000 1.00000" ] || fail "the installed command"
run "$prefix/bin/qmxutil" --help | sed -n '/^Subcommands:/,$s/^  \([a-z0-9-]\+\).*/\1/p' >"$work/subcommands"
[ -s "$work/subcommands" ] || fail "the command lists no subcommands"
page=$prefix/share/man/man1/qmxutil.1
while read -r name; do
  grep -qE "^\.(BI|B|BR) \"?$name\\b" "$page" || fail "the man page says nothing of $name"
done <"$work/subcommands"

if [ -z "${EMULATOR:-}" ]; then
  completed=$(PATH=$prefix/bin:$PATH bash -c "
    source '$prefix/share/bash-completion/completions/qmxutil'
    COMP_WORDS=(qmxutil meta '') COMP_CWORD=2; _qmxutil; echo \${COMPREPLY[*]}
    COMP_WORDS=(qmxutil userdata --js) COMP_CWORD=2; _qmxutil; echo \${COMPREPLY[*]}")
  [ "$completed" = $'get set\n--json' ] || fail "completion gave: $completed"
fi
