#!/usr/bin/env bash
# Checks the layout of every C and C++ file against .clang-format, and the length of its lines (comments are
# not wrapped by the formatter).
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- '*.c' '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run --Werror
if git grep -nE '^.{111}' -- '*.c' '*.cpp' '*.h'; then
  echo "check-format.sh: the lines above are longer than 110 characters" >&2
  exit 1
fi
echo "$(git ls-files -- '*.c' '*.cpp' '*.h' | wc -l) files are laid out as .clang-format says"
