#!/usr/bin/env bash
# Runs every fuzz target for some seconds, each from the committed seeds; new inputs stay in the build folder.
#   scripts/fuzz.sh FOLDER_OF_THE_TARGETS SECONDS_EACH
set -euo pipefail
targets=$1
seconds=$2
top=$(cd "$(dirname "$0")/.." && pwd)
for target in "$targets"/*_fuzz; do
  family=$(basename "$target" _fuzz)
  found="$targets/corpus-$family"
  mkdir -p "$found"
  printf '%-12s ' "$family"
  if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=3 \
    -artifact_prefix="$targets/" "$found" "$top/fuzz/corpus/$family" >"$targets/$family.log" 2>&1; then
    echo "finding:"
    tail -n 40 "$targets/$family.log"
    exit 1
  fi
  awk '/stat::number_of_executed_units/ {print $2 " executions, no finding"}' "$targets/$family.log"
done
