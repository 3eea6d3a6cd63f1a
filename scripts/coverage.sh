#!/usr/bin/env bash
# Line coverage of runtime/ and installer/ with gcov. Builds with CVINST_COVERAGE (g++, Debug) in
# build-cov/, runs the whole ctest suite (unit and end-to-end: every cvinst that a test starts
# adds its counts to the same .gcda files), then prints executed/executable lines per file and
# per directory. Lines are merged over all objects of cvrt, cvinstlib and cvinst, so a header
# line counts once. Exits with the status of the test run.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build-cov -DCVINST_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=gcc \
  -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build build-cov -j"$jobs" >/dev/null
find build-cov -name '*.gcda' -delete
# Some tests run cvinst as uid 65534: the counter files must exist and be writable for it.
# "cvinst -h" writes a zero-count file for every object of the installer.
build-cov/installer/cvinst -h >/dev/null
find build-cov -name '*.gcno' -printf '%h\n' | sort -u | xargs chmod a+rwx
find build-cov -name '*.gcda' -exec chmod a+rw {} +

status=0
ctest --test-dir build-cov -j"$jobs" --output-on-failure || status=$?

objects=(build-cov/runtime/CMakeFiles/cvrt.dir build-cov/installer/CMakeFiles/cvinstlib.dir
         build-cov/installer/CMakeFiles/cvinst.dir)
for dir in "${objects[@]}"; do
  for gcda in "$dir"/*.gcda; do
    (cd "$dir" && gcov -t "$(basename "$gcda")" 2>/dev/null)
  done
done | awk -v root="$root/" '
  # gcov text: "count:line:source"; count "-" marks a line without code, "#####"/"=====" one
  # never run, a number (maybe with "*") one that ran.
  /^ *-: *0:Source:/ { file = substr($0, index($0, "Source:") + 7); sub("^" root, "", file); next }
  file !~ /^(runtime|installer)\// || file ~ /_test\.cpp$/ { next }
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
  }'
exit "$status"
