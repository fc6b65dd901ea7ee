#!/usr/bin/env bash
# Prints how much of the library the fuzz seeds alone reach, and how much seeds and tests reach together.
#   scripts/coverage.sh FOLDER_OF_THE_COVERAGE_BUILD
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$1
table() {
  printf '\n%s\n' "$1"
  (cd "$top" && gcovr --root . --object-directory "$build" --filter src/ --filter platform/ \
    --exclude-throw-branches)
}
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -R '^seeds\.' --output-on-failure -Q
table "Reached by the fuzz seeds alone"
ctest --test-dir "$build" -E '^seeds\.' -j "$(nproc)" --output-on-failure -Q
table "Reached by seeds and tests"
