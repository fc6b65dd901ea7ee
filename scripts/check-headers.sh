#!/usr/bin/env bash
# Compiles every public header alone, as C11 and as C++17, with all warnings as errors.
set -euo pipefail
cd "$(dirname "$0")/.."
flags=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only -Iinclude -Ibase)
for header in include/*.h base/*.h; do
  "${CC:-cc}" -std=c11 "${flags[@]}" -x c - <<<"#include \"$(basename "$header")\"
extern int unit_is_not_empty;"
  "${CXX:-c++}" -std=c++17 "${flags[@]}" -x c++ - <<<"#include \"$(basename "$header")\""
done
echo "$(ls include/*.h base/*.h | wc -l) headers compile alone as C11 and C++17"
