#!/usr/bin/env bash
# Times a whole unattended installation of the demo distribution against unpacking the same
# package with gzip and tar alone, side by side, and prints the medians of N runs of each.
set -euo pipefail
cd "$(dirname "$0")/.."
N=${N:-21}
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target dist >/dev/null
dist=$PWD/build/dist
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

micros() { echo $(( $(date +%s%N) / 1000 )); }
median() { printf '%s\n' "$@" | sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
installs=()
unpacks=()
for _ in $(seq "$N"); do
  rm -rf "$work/inst" "$work/tar" && mkdir "$work/tar"
  start=$(micros)
  (cd "$dist" && printf '\nyes\n' | ./cvinst -d -post-install -destination-dir "$work/inst" >/dev/null)
  installs+=($(( $(micros) - start )))
  start=$(micros)
  (cd "$work/tar" && gzip -dc "$dist/cvpack" | tar xf -)
  unpacks+=($(( $(micros) - start )))
done
i=$(median "${installs[@]}")
u=$(median "${unpacks[@]}")
echo "medians of $N runs: unattended install ${i} us, gzip -dc | tar xf - ${u} us ($(awk -v a="$i" -v b="$u" 'BEGIN {printf "%.1f", a / b}')x)"
