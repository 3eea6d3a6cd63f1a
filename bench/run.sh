#!/usr/bin/env bash
# Installation benchmarks side by side with tar, and the microbenchmarks.
#
#   bash bench/run.sh [full] [tenth] [micro]      (default: all three)
#
# full/tenth: a generated editor-like payload of about 142 MB in about 3000 files, or a tenth
# of it, is packed by cvmkdist into a distribution (cached under build-bench/bench-work while
# the generator, the demo payload and cvmkdist stay the same). After one warm-up round, rounds
# of three runs, each into a fresh empty directory and in an order that rotates from round to
# round, time
#   tar     tar xzf cvpack
#   install a complete unattended installation: setup.ini with DestinationDir, -post-install,
#           the banner and the agreement answered on standard input
#   skip    the same with -s (no verification)
# Then the verification pass alone (bench/verify_timer over an unpacked tree) is timed in
# alternation with cat of the same files to /dev/null. Each line gives the median, the range
# and the median of the per-round ratios.
# micro: the Google Benchmark microbenchmarks, medians of five repetitions.
#
# Environment: ROUNDS (rounds for the full payload, default 11), ROUNDS_TENTH (default 21),
# BENCH_WORK (work directory, default build-bench/bench-work).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build-bench
work=${BENCH_WORK:-$build/bench-work}
rounds_full=${ROUNDS:-11}
rounds_tenth=${ROUNDS_TENTH:-21}
parts=("$@")
[ ${#parts[@]} -gt 0 ] || parts=(full tenth micro)

if ! dpkg-query -W -f='${Status}' libbenchmark-dev 2>/dev/null | grep -q 'install ok installed'; then
  bash scripts/setup.sh
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target cvinst cvmkdist messages genpayload verify_timer cvrt_bench >/dev/null

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"

# median, minimum and maximum of the numbers on standard input
stats() { sort -g | awk '{v[NR] = $1} END {printf "%s %s %s\n", v[int((NR + 1) / 2)], v[1], v[NR]}'; }
ms() { awk -v us="$1" 'BEGIN {printf "%.1f", us / 1000}'; }
micros() { local t=${EPOCHREALTIME/./}; echo $((10#$t)); }

# The distribution for one payload size, rebuilt only when its inputs changed.
make_dist() {
  local name=$1 divisor=$2 dir=$work/$1
  local key
  key=$( (sha256sum "$build/bench/genpayload" "$build/tools/cvmkdist"; find demo/payload -type f -print0 |
          sort -z | xargs -0 sha256sum; echo "$divisor") | sha256sum | cut -c1-16)
  if [ ! -f "$dir/dist/cvpack" ] || [ "$(cat "$dir/key" 2>/dev/null)" != "$key" ]; then
    echo "building the $name distribution (once)..."
    rm -rf "$dir" && mkdir -p "$dir"
    "$build/bench/genpayload" "$dir/payload" "$divisor"
    cp -R demo/payload/. "$dir/payload/"
    # One fixed time on every entry: the same payload packs into the same bytes.
    find "$dir/payload" -exec touch -h -d @1700000000 {} +
    "$build/tools/cvmkdist" --payload "$dir/payload" --package cvpack --out "$dir/dist" \
      --installer "$build/installer/cvinst" --messages "$build/cdinst.cvb" --license demo/payload/license.txt
    rm -rf "$dir/payload"
    echo "$key" >"$dir/key"
  fi
  # Always the installer just built.
  cp -f "$build/installer/cvinst" "$build/cdinst.cvb" "$dir/dist/"
  printf '[unattended]\nDestinationDir=%s\n' "$dir/run/install" >"$dir/dist/setup.ini"
}

# A fresh, empty target directory with nothing of the previous run left to write back.
fresh() {
  rm -rf "$1" && mkdir -p "$1"
  sync
}

# One timed run of the given kind; prints microseconds.
run_one() {
  local kind=$1 dir=$2 start end
  case $kind in
    tar)
      fresh "$dir/run/tar"
      start=$(micros)
      (cd "$dir/run/tar" && tar xzf "$dir/dist/cvpack")
      end=$(micros) ;;
    install|skip)
      fresh "$dir/run/install"
      local flags=(-post-install)
      [ "$kind" = skip ] && flags+=(-s)
      start=$(micros)
      if ! (cd "$dir/dist" && printf '\nyes\n' | ./cvinst "${flags[@]}" >"$dir/run/$kind.log" 2>&1); then
        echo "cvinst ${flags[*]} failed; see $dir/run/$kind.log" >&2
        exit 1
      fi
      end=$(micros)
      grep -q 'INSTALLATION SUCCESSFULLY COMPLETED' "$dir/run/$kind.log" ||
        { echo "cvinst ${flags[*]} did not complete; see $dir/run/$kind.log" >&2; exit 1; } ;;
  esac
  echo $((end - start))
}

report() {  # label, file of values, unit divisor note
  local label=$1 file=$2 m lo hi
  read -r m lo hi < <(stats <"$file")
  printf '  %-34s median %8s ms   range %8s - %8s ms\n' "$label" "$(ms "$m")" "$(ms "$lo")" "$(ms "$hi")"
}

ratio_report() {  # label, file of per-round ratios
  local m lo hi
  read -r m lo hi < <(stats <"$2")
  printf '  %-34s median %8.3f      range %8.3f - %8.3f\n' "$1" "$m" "$lo" "$hi"
}

bench_size() {
  local name=$1 divisor=$2 rounds=$3 dir=$work/$1
  make_dist "$name" "$divisor"
  local files bytes
  files=$(tar tzf "$dir/dist/cvpack" | grep -vc '/$')
  bytes=$(gzip -dc "$dir/dist/cvpack" | wc -c)
  echo
  echo "== $name: cvpack $(stat -c %s "$dir/dist/cvpack") bytes, $files files, $bytes bytes unpacked (tar stream)"
  local t=$dir/times
  rm -rf "$t" && mkdir -p "$t"
  local kinds=(tar install skip) order kind
  local -A took=()
  for kind in "${kinds[@]}"; do run_one "$kind" "$dir" >/dev/null; done   # warm-up
  echo "  load: $(cut -d' ' -f1-3 /proc/loadavg) (rounds: $rounds)"
  for ((r = 0; r < rounds; r++)); do
    order=("${kinds[@]:r%3}" "${kinds[@]:0:r%3}")
    for kind in "${order[@]}"; do
      took[$kind]=$(run_one "$kind" "$dir")
      echo "${took[$kind]}" >>"$t/$kind"
    done
    awk -v a="${took[install]}" -v b="${took[tar]}" 'BEGIN {print a / b}' >>"$t/install-ratio"
    awk -v a="${took[skip]}" -v b="${took[tar]}" 'BEGIN {print a / b}' >>"$t/skip-ratio"
  done
  report "tar xzf cvpack" "$t/tar"
  report "cvinst (unattended, complete)" "$t/install"
  report "cvinst -s" "$t/skip"
  ratio_report "install / tar, per round" "$t/install-ratio"
  ratio_report "install -s / tar, per round" "$t/skip-ratio"

  # Verification alone, over the tree the last tar run left, against cat of the same files.
  local tree=$dir/run/tar
  local files_listed=()
  mapfile -t files_listed < <(sed 's/ [-0-9]* [-0-9]*$//' "$tree/distribfilelist")
  "$build/bench/verify_timer" "$tree" >/dev/null 2>&1 || { echo "verification of $tree failed" >&2; exit 1; }
  (cd "$tree" && cat -- "${files_listed[@]}" >/dev/null)
  echo "  load: $(cut -d' ' -f1-3 /proc/loadavg) (verification rounds: $rounds)"
  local start end v c inner
  for ((r = 0; r < rounds; r++)); do
    # verify then cat in even rounds, cat then verify in odd ones
    for step in 0 1; do
      if [ $(((r + step) % 2)) -eq 0 ]; then
        start=$(micros)
        inner=$("$build/bench/verify_timer" "$tree" 2>&1 >/dev/null | awk '/^verify_us/ {print $2}')
        end=$(micros)
        v=$((end - start))
        echo "$inner" >>"$t/verify-inner"
      else
        start=$(micros)
        (cd "$tree" && cat -- "${files_listed[@]}" >/dev/null)
        end=$(micros)
        c=$((end - start))
      fi
    done
    echo "$v" >>"$t/verify"
    echo "$c" >>"$t/cat"
    awk -v a="$v" -v b="$c" 'BEGIN {print a / b}' >>"$t/verify-ratio"
  done
  report "verification (verify_timer)" "$t/verify"
  report "  the pass alone, timed inside" "$t/verify-inner"
  report "cat of the ${#files_listed[@]} listed files" "$t/cat"
  ratio_report "verification / cat, per round" "$t/verify-ratio"
  rm -rf "$dir/run"
}

for part in "${parts[@]}"; do
  case $part in
    full) bench_size full 1 "$rounds_full" ;;
    tenth) bench_size tenth 10 "$rounds_tenth" ;;
    micro)
      echo
      echo "== microbenchmarks (medians of 5 repetitions; load $(cut -d' ' -f1-3 /proc/loadavg))"
      csv=$work/micro.csv
      mkdir -p "$work"
      "$build/bench/cvrt_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
        --benchmark_out="$csv" --benchmark_out_format=csv 2>/dev/null | grep -E '_median|^Benchmark|^---'
      # byte sums against memcpy: bytes per second over the same buffer
      awk -F, '/_median"/ && /BM_(ByteSum|ByteSumSse2|Memcpy)\// {
                 name = $1; gsub(/"/, "", name); sub(/_median$/, "", name)
                 split(name, p, "/"); rate[p[1], p[2]] = $6; sizes[p[2]] = 1 }
               END { for (s in sizes) printf "  %9d bytes: byte sum / memcpy %.2f  (SSE2 kernel %.2f)\n", s,
                     rate["BM_ByteSum", s] / rate["BM_Memcpy", s], rate["BM_ByteSumSse2", s] / rate["BM_Memcpy", s] }' \
        "$csv" | sort -n ;;
    *) echo "unknown part '$part' (full, tenth, micro)" >&2; exit 2 ;;
  esac
done
echo
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
