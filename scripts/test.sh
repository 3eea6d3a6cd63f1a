#!/usr/bin/env bash
# Checks the style (scripts/lint.sh), builds the project twice (plain, and with AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs every test: unit and end-to-end tests of both builds, then
# the coverage build's run against the floors of scripts/coverage.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

# Formatting, clang warnings and clang-tidy first: they fail fast.
bash scripts/lint.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

# Line coverage (gcov, build-cov/): fails when runtime/, installer/ or tools/ falls under its floor.
bash scripts/coverage.sh

cmake -S . -B build-asan -DCVINST_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-asan -j"$jobs"
ctest --test-dir build-asan --output-on-failure -j"$jobs" -L unit
# The end-to-end runs once more against the sanitized installer; a sanitizer report makes the
# installer exit with 86, which no test expects.
ASAN_OPTIONS=exitcode=86 UBSAN_OPTIONS=exitcode=86:print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -L e2e

# Every fuzz target for 20 seconds from its seed corpus (clang, ASan + UBSan, build-fuzz/).
bash scripts/fuzz.sh 20
