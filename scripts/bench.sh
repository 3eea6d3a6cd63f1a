#!/usr/bin/env bash
# Runs the runtime benchmarks in an optimised build and prints medians of repeated runs.
set -euo pipefail
cd "$(dirname "$0")/.."
dpkg-query -W -f='${Status}' libbenchmark-dev 2>/dev/null | grep -q 'install ok installed' || {
  export DEBIAN_FRONTEND=noninteractive; apt-get update -qq; apt-get install -y -qq libbenchmark-dev; }
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench -j"$(nproc 2>/dev/null || echo 2)" --target cvrt_bench
build-bench/bench/cvrt_bench --benchmark_repetitions=7 --benchmark_report_aggregates_only=true "$@"
