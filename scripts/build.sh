#!/usr/bin/env bash
# Configures and builds one preset, and says how far it is; of the compiler it shows what it complains about.
#   scripts/build.sh PRESET [TARGET] [OPTION_FOR_CMAKE...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=$1
target=${2:-all}
cmake --preset "$preset" "${@:3}" >/dev/null
progress=tenths # a line at each tenth; on a terminal one line that counts
[ ! -t 1 ] || progress=steps
cmake --build --preset "$preset" --target "$target" -j "$(nproc)" | awk -v name="build/$preset" -v progress=$progress '
  match($1, /^\[[0-9]+\/[0-9]+\]$/) {
    split(substr($1, 2, RLENGTH - 2), step, "/")
    if (progress == "steps") printf "\r%s: %d of %d steps", name, step[1], step[2]
    else if (int(10 * step[1] / step[2]) > tenths) printf "%s: %d of %d steps\n", name, step[1], step[2]
    tenths = int(10 * step[1] / step[2])
    begun = 1
    fflush()
    next
  }
  /^ninja: no work to do\.$/ { next }
  { if (begun && progress == "steps") print ""; begun = 0; print; fflush() }
  END { if (begun && progress == "steps") print "" }'
