#!/usr/bin/env bash
# Line coverage of runtime/, installer/ and tools/ with gcov. Builds with CVINST_COVERAGE (g++,
# Debug) in build-cov/, runs the whole ctest suite (unit and end-to-end: every cvinst, cvmkdist,
# cvcheck and cvbc that a test starts adds its counts to the same .gcda files), then prints
# executed/executable lines per file and per directory. Lines are merged over all objects built
# from the three directories, so a header line counts once. Fails when the tests fail or when a
# directory's share of executed lines is under its floor below.
set -euo pipefail

# Floors, in percent of executable lines executed by the tests; CI fails under any of them.
RUNTIME_FLOOR=95
INSTALLER_FLOOR=95
TOOLS_FLOOR=90

cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build-cov -DCVINST_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=gcc \
  -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build build-cov -j"$jobs" >/dev/null
find build-cov -name '*.gcda' -delete
# Some tests run the programs as uid 65534: the counter files must exist and be writable for it.
# A run that only prints the usage writes a zero-count file for every object of the program.
build-cov/installer/cvinst -h >/dev/null
for tool in cvmkdist cvcheck cvbc; do build-cov/bin/$tool --help >/dev/null 2>&1 || true; done
find build-cov -name '*.gcno' -printf '%h\n' | sort -u | xargs chmod a+rwx
find build-cov -name '*.gcda' -exec chmod a+rw {} +

status=0
ctest --test-dir build-cov -j"$jobs" --output-on-failure || status=$?

for gcda in $(find build-cov/runtime build-cov/installer build-cov/tools -name '*.gcda' | sort); do
  (cd "$(dirname "$gcda")" && gcov -t "$(basename "$gcda")" 2>/dev/null)
done | awk -v root="$root/" '
  # gcov text: "count:line:source"; count "-" marks a line without code, "#####"/"=====" one
  # never run, a number (maybe with "*") one that ran.
  /^ *-: *0:Source:/ { file = substr($0, index($0, "Source:") + 7); sub("^" root, "", file); next }
  file !~ /^(runtime|installer|tools)\// || file ~ /_test\.cpp$/ { next }
  {
    split($0, f, ":"); count = f[1]; gsub(/ /, "", count); line = f[2] + 0
    if (count == "-" || line == 0) next
    key = file SUBSEP line
    if (!(key in hit)) { hit[key] = 0; total[file]++ }
    if (count ~ /^[0-9]/ && !hit[key]) { hit[key] = 1; covered[file]++ }
  }
  END {
    for (file in total) {
      dir = file; sub(/\/.*/, "", dir)
      dirTotal[dir] += total[file]; dirCovered[dir] += covered[file]
      printf "  %-28s %5d / %5d  %5.1f%%\n", file, covered[file], total[file], 100 * covered[file] / total[file] | "sort"
    }
    close("sort")
    for (dir in dirTotal)
      printf "%s/: %d of %d lines executed, %.1f%%\n", dir, dirCovered[dir], dirTotal[dir], 100 * dirCovered[dir] / dirTotal[dir]
  }' | tee build-cov/coverage.txt

# Each directory against its floor.
for floor in "runtime $RUNTIME_FLOOR" "installer $INSTALLER_FLOOR" "tools $TOOLS_FLOOR"; do
  set -- $floor
  pct=$(awk -v d="$1/:" '$1 == d { sub(/%$/, "", $NF); print $NF }' build-cov/coverage.txt)
  if [ -z "$pct" ] || awk -v p="$pct" -v f="$2" 'BEGIN { exit !(p < f) }'; then
    echo "coverage.sh: $1/ has ${pct:-no}% of its lines executed, under the floor of $2%" >&2
    status=1
  fi
done
exit "$status"
