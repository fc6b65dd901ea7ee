#!/usr/bin/env bash
# Checks the layout of every C and C++ file against .clang-format.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z -- '*.c' '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run --Werror
echo "$(git ls-files -- '*.c' '*.cpp' '*.h' | wc -l) files are laid out as .clang-format says"
