#!/usr/bin/env bash
# Installs the build into an empty prefix, moves it, and uses it as a stranger would: a program by pkg-config, the
# examples by CMake, the command, its man page and completion. The path holds a blank, the umask is a careful one.
#   install_test.sh SOURCE BUILD   (in the environment: CC, TOOLCHAIN, EMULATOR)
set -euo pipefail
umask 077
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/a prefix"
fail() {
  echo "install_test: $*" >&2
  exit 1
}
run() { env -u LD_LIBRARY_PATH ${EMULATOR:-} "$@"; }
# is EXPECTED PROGRAM ARGUMENT...
is() {
  local said
  said=$(run "${@:2}") || fail "$2 ends with $?"
  [ "$said" = "$1" ] || fail "$2 said: $said"
}

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$prefix"
! grep -rIlF -e "$work" -e "$build" -e "$source" "$prefix" || fail "these know where they were made"
closed=$(find "$prefix" -mindepth 1 ! -perm -o+r -o -mindepth 1 -type d ! -perm -o+x)
[ -z "$closed" ] || fail "not for everybody: $closed"

# The examples are installed too: what is built is what is installed.
examples="$prefix/share/doc/qmxutil/examples"
pc=$(dirname "$(find "$prefix" -name qmxutil.pc)")
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs qmxutil)
eval "\"${CC:-cc}\" -std=c11 -Wall -Wextra -Werror -o \"$work/text\" \"$examples/text_values.c\" $flags" \
  "-Wl,-rpath,\"$(dirname "$pc")\""
cmake -S "$examples" -B "$work/built" -DCMAKE_PREFIX_PATH="$prefix" \
  ${TOOLCHAIN:+-DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN"} >/dev/null
cmake --build "$work/built" -j 2 >"$work/log" 2>&1 || { cat "$work/log"; fail "the examples by CMake"; }
expected=$(run "$work/text") || fail "the program built by pkg-config"
is "$expected" "$work/built/example_text_values"

# Taken into another project as it is, under the same name.
cat >"$work/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(app LANGUAGES C CXX)
add_subdirectory("$source" qmxutil)
add_executable(app "$examples/text_values.c")
target_link_libraries(app PRIVATE qmxutil::qmxutil)
END
cmake -S "$work" -B "$work/taken_in" -G Ninja ${TOOLCHAIN:+-DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN"} >/dev/null ||
  fail "add_subdirectory"
[ -z "$(find "$work/taken_in" -name tests -o -name tools)" ] || fail "add_subdirectory brings too much"

is "-45.50000 1.00000" "$prefix/bin/qmxutil" gps 4530.0 S 00100.0 E
# The man page has a section for every subcommand, headed by its name, with each of its options.
page=$prefix/share/man/man1/qmxutil.1
check_page() { # SUBCOMMAND...
  local help section word
  help=$(run "$prefix/bin/qmxutil" "$@" --help)
  section=$(awk -v name="$*" '/^\.TP/ { head = NR + 1; here = 0 }
    { text = $0; gsub(/^\.[A-Z]+ |"/, "", text) } NR == head && text " " ~ "^" name " " { here = 1 } here' "$page")
  [ -n "$section" ] || [ $# = 0 ] || fail "the man page says nothing of $*"
  for word in $(grep -oE '^ +(-.,)?--[a-z-]+' <<<"$help" | grep -oE -- '--[a-z-]+'); do
    [ $# = 0 ] || [ "$word" = --help ] || grep -qF -- "${word//-/\\-}" <<<"$section" || fail "no $* $word there"
  done
  for word in $(sed -n '/^Subcommands:/,$s/^  \([a-z0-9-]\+\).*/\1/p' <<<"$help"); do
    check_page "$@" "$word"
  done
}
check_page

if [ -z "${EMULATOR:-}" ]; then
  completed=$(PATH=$prefix/bin:$PATH bash -c "
    source '$prefix/share/bash-completion/completions/qmxutil'
    for words in 'meta ' 'userdata --js' 'convert --from hvcc' 'text field a'; do
      mapfile -d ' ' -t COMP_WORDS <<<\"qmxutil \$words\"
      COMP_WORDS[-1]=\${COMP_WORDS[-1]%?} COMP_CWORD=\$((\${#COMP_WORDS[@]} - 1))
      _qmxutil
      echo \${COMPREPLY[*]}
    done")
  [ "$completed" = $'get set\n--json\nhvcc hvcc-arrays\naddress' ] || fail "completion gave: $completed"
fi
