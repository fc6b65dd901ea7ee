#!/usr/bin/env bash
# Configures and builds one preset, and says how far it is; of the compiler it shows what it complains about.
#   scripts/build.sh PRESET [TARGET] [OPTION_FOR_CMAKE...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=$1
target=${2:-all}
cmake --preset "$preset" "${@:3}" >/dev/null

# A line at each tenth; on a terminal one line that counts.
tenths=0 counting=
cmake --build --preset "$preset" --target "$target" -j "$(nproc)" | while IFS= read -r line; do
  if [[ $line =~ ^\[([1-9][0-9]*)/([0-9]+)\]\  ]]; then
    at=${BASH_REMATCH[1]} all=${BASH_REMATCH[2]}
    if [ -t 1 ]; then
      printf '\rbuild/%s: %d of %d steps' "$preset" "$at" "$all"
      counting=yes
      [ "$at" != "$all" ] || { echo; counting=; }
    elif ((10 * at / all > tenths)); then
      printf 'build/%s: %d of %d steps\n' "$preset" "$at" "$all"
    fi
    tenths=$((10 * at / all))
  elif [[ $line != "[0/"* && $line != "ninja: no work to do." ]]; then
    [ -z "$counting" ] || echo
    counting=
    printf '%s\n' "$line"
  fi
done
