#!/usr/bin/env bash
# Builds the example of a device's own base library, builds and installs libqmxutil over it without the stand-in, and
# runs a program that sees the device's trace and memory at work; holds the example to the contract.
#   porting_test.sh SOURCE BUILD   (in the environment: CC, TOOLCHAIN, EMULATOR)
set -euo pipefail
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "porting_test: $*" >&2
  exit 1
}
build() { # FOLDER OPTIONS...
  cmake -S "$1" -B "$2" -G Ninja ${TOOLCHAIN:+-DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN"} "${@:3}" >"$work/log" &&
    cmake --build "$2" -j 2 >>"$work/log" 2>&1 || { cat "$work/log"; fail "building $1"; }
}

build "$source/examples/base_library" "$work/base"
device_base=$work/base/libdevicebase.so
run=(env LD_PRELOAD="$device_base")
[ -z "${EMULATOR:-}" ] || read -ra run <<<"$EMULATOR -E LD_PRELOAD=$device_base"
"${run[@]}" "$build/tools/qmxutil" basecheck "$work" --media "$source/tests/data/timed-metadata.mov" >"$work/checked" &&
  grep -q "$device_base" "$work/checked" || { cat "$work/checked"; fail "the example differs from the contract"; }
build "$source" "$work/qmxutil" -DCMAKE_BUILD_TYPE=Debug -DQMX_BASE_LIBRARY="$device_base" \
  -DQMX_BUILD_TOOL=OFF -DQMX_BUILD_EXAMPLES=OFF
prefix=$work/prefix
cmake --install "$work/qmxutil" --prefix "$prefix" >/dev/null
[ -z "$(find "$work/qmxutil" "$prefix" -name 'libqmxbase*')" ] || fail "a stand-in was built all the same"

mkdir "$work/app"
cat >"$work/app/app.c" <<'END'
#include <qmxbase.h>
#include <qmxutil.h>
#include <stddef.h>
#include <stdio.h>

extern size_t device_base_in_use(void);

int main(void) {
  char* text = QMXUtilStrdup("device");
  printf("%s %d", text, device_base_in_use() > 0);
  QMX_Free(text, 0);
  printf(" %d\n", device_base_in_use() > 0);
  return QMXUtil_UserDataOpen(NULL, 1) != NULL;
}
END
check_app() {
  LD_LIBRARY_PATH=$prefix/lib:$work/base ${EMULATOR:-} "$1" >"$work/said" 2>"$work/traced"
  [ "$(cat "$work/said")" = "device 1 0" ] || fail "$1 said: $(cat "$work/said")"
  grep -qE '^<3>qmxutiluserdata qmxutil_userdata.cpp:[0-9]+ QMXUtil_UserDataOpen: Invalid arguments \(\(null\), 1\)' \
    "$work/traced" || fail "$1 traced: $(cat "$work/traced")"
}
# shellcheck disable=SC2046
"${CC:-cc}" -std=c11 -Wall -Werror -o "$work/app/app" "$work/app/app.c" \
  $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs qmxutil)
check_app "$work/app/app"

cat >"$work/app/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.16)
project(app LANGUAGES C)
find_package(qmxutil REQUIRED)
add_executable(app app.c)
target_link_libraries(app PRIVATE qmxutil::qmxutil)
END
build "$work/app" "$work/app/build" -Dqmxutil_DIR="$prefix/lib/cmake/qmxutil"
check_app "$work/app/build/app"
