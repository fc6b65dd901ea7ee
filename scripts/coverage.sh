#!/usr/bin/env bash
# Prints how much of the library the fuzz seeds alone reach, and how much seeds and tests reach together. Of the
# seeds it also says, file by file, what share of the functions that they enter they reach, and which they leave
# out: the parsers beside what no file's content gets to (processes, timers, memory accounting).
#   scripts/coverage.sh FOLDER_OF_THE_COVERAGE_BUILD
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
table() {
  printf '\n%s\n' "$1"
  (cd "$top" && gcovr --root . --object-directory "$build" --filter src/ --filter platform/ \
    --exclude-throw-branches)
}
entered_functions() {
  printf '\nOf the functions that the fuzz seeds enter\n'
  find "$build/src" "$build/platform" -name '*.gcda' -print0 |
    xargs -0 gcov --json-format --stdout --demangled-names 2>/dev/null |
    jq -r --arg top "$top/" '
      .files[] | select(.file | test("/src/qmxutil_[a-z]+.cpp$|/platform/reader/[a-z]+.cpp$"))
      | ([.functions[] | select(.execution_count > 0) | .name]) as $entered
      | select($entered != [])
      | [.lines[] | select(.function_name as $name | $entered | index($name))] as $lines
      | ([$lines[] | select(.count > 0)] | length) as $reached
      | "\(.file | ltrimstr($top)): \($reached) of \($lines | length) lines, \(100 * $reached / ($lines | length) | floor)%",
        (.functions[] | select(.execution_count == 0) | "    not entered: \(.demangled_name)")'
}
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -R '^seeds\.' --output-on-failure -Q
table "Reached by the fuzz seeds alone"
entered_functions
ctest --test-dir "$build" -E '^seeds\.' -j "$(nproc)" --output-on-failure -Q
table "Reached by seeds and tests"
