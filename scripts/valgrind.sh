#!/usr/bin/env bash
# Runs every test program under valgrind; an error or a leak ends it. Left out: the tests whose children end in the
# middle of a commit, or without the thread that held a block; and two tests of what valgrind answers itself: the
# refusal of SIGKILL, and by how much two texts differ.
#   scripts/valgrind.sh FOLDER_OF_THE_BUILD
set -euo pipefail
check() {
  local program=$1 left_out=SignalTest.RefusedNumbersAreTracedAndChangeNothing
  left_out+=:TextTest.ComparisonIgnoresTheCaseOfLettersOnly
  left_out+=:IniTest.AProcessThatEndsInACommitLeavesTheOldTextOrTheNewOne
  left_out+=:TimerTest.AChildDoesNotWaitForACallbackOfItsParent
  if valgrind --quiet --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
    --errors-for-leak-kinds=definite --child-silent-after-fork=yes "$program" --gtest_brief=1 \
    --gtest_filter=-$left_out >"$program.log" 2>&1; then
    printf '%-24s %s\n' "$(basename "$program")" "$(tail -n 1 "$program.log")"
  else
    tail -n 60 "$program.log"
    printf '%-24s failed\n' "$(basename "$program")"
    return 1
  fi
}
export -f check
find "$1/tests" -name '*_test' -type f -print0 |
  xargs -0 -P "$(nproc)" -I{} bash -c 'check "$1"' _ {}
