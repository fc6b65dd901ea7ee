#!/usr/bin/env bash
# Runs every test program under valgrind; an error or a leak ends it.
#   scripts/valgrind.sh FOLDER_OF_THE_BUILD
set -euo pipefail
for program in "$1"/tests/*_test; do
  printf '%-24s ' "$(basename "$program")"
  if ! valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
    --errors-for-leak-kinds=definite --child-silent-after-fork=yes "$program" --gtest_brief=1 >"$program.log" 2>&1; then
    echo "failed:"
    tail -n 60 "$program.log"
    exit 1
  fi
  tail -n 1 "$program.log"
done
