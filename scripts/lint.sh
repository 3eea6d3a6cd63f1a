#!/usr/bin/env bash
# The mechanical style checks that CI runs, each failing on any finding:
#  1. no link between the documents (README.md, SECURITY.md, docs/) is broken;
#  2. every tracked C/C++ file is formatted as .clang-format says;
#  3. a clang build (-Wall -Wextra -Wcomma) has no warning (-Werror);
#  4. clang-tidy, with the checks of .clang-tidy, finds nothing over that build's compile database;
#  5. shellcheck finds nothing in the header script of the self-extracting file (POSIX sh).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

echo "== links between the documents"
bash scripts/doclinks.sh

echo "== clang-format"
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run -Werror

echo "== clang build with -Werror (build-clang/)"
CC=clang CXX=clang++ cmake -S . -B build-clang -DCMAKE_BUILD_TYPE=Debug -DCVINST_WERROR=ON \
  -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
cmake --build build-clang -j"$jobs"

echo "== clang-tidy"
# Only the project's own sources; the headers they include are checked through them.
run-clang-tidy -p build-clang -quiet -j"$jobs" '/(installer|runtime|tools|tests|bench)/[^/]*\.cpp$' \
  >build-clang/tidy.log 2>&1 || { grep -E '(warning|error): ' build-clang/tidy.log | sort -u; exit 1; }
echo "no findings"

echo "== shellcheck"
shellcheck -s sh tools/cvmkdist/selfextract.sh
echo "no findings"
