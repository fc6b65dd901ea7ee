#!/usr/bin/env bash
# Runs the tests of a preset; where one was skipped, it says why.
#   scripts/run-tests.sh PRESET [OPTION_FOR_CTEST...]
set -euo pipefail
cd "$(dirname "$0")/.."
ctest --preset "$1" -j "$(nproc)" --progress "${@:2}"
# The log has a block a test; the reason stands in the line after "Skipped".
awk '
  /^[0-9]+\/[0-9]+ Test: / { name = $3 }
  reason { print "skipped: " name ": " $0; reason = 0 }
  /: Skipped$/ { reason = 1 }' "build/$1/Testing/Temporary/LastTest.log"
