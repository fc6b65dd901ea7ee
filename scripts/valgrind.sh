#!/usr/bin/env bash
# Runs every test program under valgrind; an error or a leak ends it. Left out: the one whose children are stopped in
# the middle of a commit, and hold what they held; and two tests of what valgrind answers itself: the refusal of
# SIGKILL, and by how much two texts differ.
#   scripts/valgrind.sh FOLDER_OF_THE_BUILD
set -euo pipefail
left_out=SignalTest.RefusedNumbersAreTracedAndChangeNothing:TextTest.ComparisonIgnoresTheCaseOfLettersOnly
for program in "$1"/tests/*_test; do
  [ "$(basename "$program")" != ini_power_test ] || continue
  printf '%-24s ' "$(basename "$program")"
  if ! valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
    --errors-for-leak-kinds=definite --child-silent-after-fork=yes "$program" --gtest_brief=1 \
    --gtest_filter=-$left_out >"$program.log" 2>&1; then
    echo "failed:"
    tail -n 60 "$program.log"
    exit 1
  fi
  tail -n 1 "$program.log"
done
