#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ (clang, ASan + UBSan, in build-fuzz/) and runs each one in
# turn for the given number of seconds (default 20), starting from a copy of its seed corpus in
# fuzz/corpus/<target>/. Further arguments go to every run (e.g. -runs=5000000 for a long
# campaign). Fails when any target reports a crash, a leak, a sanitizer error or a timeout; the
# reproducer and the log stay in build-fuzz/runs/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
shift || true

cmake -S . -B build-fuzz -DCVINST_FUZZ=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCVINST_WERROR=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
cmake --build build-fuzz -j"$(nproc 2>/dev/null || echo 2)" --target fuzz_all >/dev/null
# Only this build compiles the targets, so clang-tidy checks them here (scripts/lint.sh does the rest).
run-clang-tidy -p build-fuzz -quiet '/fuzz/[^/]*\.cpp$' >build-fuzz/tidy.log 2>&1 ||
  { grep -E '(warning|error): ' build-fuzz/tidy.log | sort -u; exit 1; }

failed=0
for source in fuzz/fuzz_*.cpp; do
  name=$(basename "$source" .cpp)
  name=${name#fuzz_}
  work=build-fuzz/runs/$name
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/findings"
  cp fuzz/corpus/"$name"/* "$work/corpus/"
  # printWrapped cuts its text at 10240 bytes; its inputs must be able to reach past that.
  maxlen=4096
  [ "$name" = wrap ] && maxlen=12288
  start=$(date +%s)
  status=0
  build-fuzz/fuzz/fuzz_"$name" -max_total_time="$seconds" -max_len="$maxlen" -timeout=10 -rss_limit_mb=2048 \
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$work/findings/" "$@" "$work/corpus" \
    >"$work/log" 2>&1 || status=$?
  runs=$(awk '/stat::number_of_executed_units/ {print $2}' "$work/log")
  if [ "$status" -eq 0 ] && [ -z "$(ls -A "$work/findings")" ]; then
    echo "fuzz_$name: ${runs:-?} runs in $(($(date +%s) - start)) s, no findings"
  else
    echo "fuzz_$name: FINDING (exit $status), reproducer in $work/findings/:"
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$work/log" | head -20
    failed=1
  fi
done
exit "$failed"
