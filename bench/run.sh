#!/usr/bin/env bash
# Installation benchmarks side by side with tar, and the microbenchmarks.
#
#   bash bench/run.sh [full] [tenth] [demo] [selfextract] [check] [micro]      (default: all six)
#
# full/tenth: a generated editor-like payload of about 142 MB in about 3000 files, or a tenth
# of it, is packed by cvmkdist into a distribution and a self-extracting file (cached under
# build-bench/bench-work while the generator, the demo payload, cvmkdist, the installer and its
# message file stay the same). After one warm-up round, rounds
# of three runs, each into a fresh empty directory (on a tmpfs, see setup_runs) and in an
# order that rotates from round to round, time
#   tar     tar xzf cvpack
#   install a complete unattended installation: setup.ini with DestinationDir, -post-install,
#           the banner and the agreement answered on standard input
#   skip    the same with -s (no verification)
# Then the verification pass alone (bench/verify_timer over an unpacked tree) is timed in
# alternation with cat of the same files to /dev/null. Each line gives the median, the range
# and the median of the per-round ratios.
# demo: the same three kinds of run over the small demo distribution: the fixed part of an
# installation (the pager, chown, chgrp, the macro translator and so on).
# selfextract: the complete unattended installation of the 142 MB distribution from its
# directory against the same installation through its self-extracting file (sh corvane.run,
# setup.ini in the current directory, TMPDIR beside the installation targets), alternating
# which goes first; the ratio is the median of the per-round ratios. Each round also times the
# file's check alone (--check) and check plus unpacking (--noexec --target), where its extra cost lies.
# check: cvcheck verify over a complete installation of the full payload, in alternation with cat
# of the same files, first with the package's SHA-256 list (distribsha256), then with the byte
# sums alone (the list moved aside).
# micro: the Google Benchmark microbenchmarks, medians of five repetitions.
#
# Environment: ROUNDS (rounds for the full payload, default 11), ROUNDS_TENTH (default 21),
# BENCH_WORK (work directory, default build-bench/bench-work), BENCH_DISK=1 (unpack on disk),
# SELFEXTRACT_BASE=REV (selfextract also times the same archive behind the header script of the
# git revision REV, in the same rounds: the file before and after a change of its script).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build-bench
work=${BENCH_WORK:-$build/bench-work}
rounds_full=${ROUNDS:-11}
rounds_tenth=${ROUNDS_TENTH:-21}
parts=("$@")
[ ${#parts[@]} -gt 0 ] || parts=(full tenth demo selfextract check micro)

if ! dpkg-query -W -f='${Status}' libbenchmark-dev 2>/dev/null | grep -q 'install ok installed'; then
  bash scripts/setup.sh
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j2 --target cvinst cvmkdist cvcheck messages dist genpayload verify_timer cvrt_bench >/dev/null

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"

# median, minimum and maximum of the numbers on standard input
stats() { sort -g | awk '{v[NR] = $1} END {printf "%s %s %s\n", v[int((NR + 1) / 2)], v[1], v[NR]}'; }
ms() { awk -v us="$1" 'BEGIN {printf "%.1f", us / 1000}'; }
micros() { local t=${EPOCHREALTIME/./}; echo $((10#$t)); }
# CPU time (user + system) in microseconds of the children that a subshell waited for, from
# the second line of the times builtin's output ("0m1.234s 0m0.567s").
children_cpu() { awk 'NR == 2 { split($1, u, "m"); split($2, s, "m"); printf "%d\n", (u[1] * 60 + u[2] + s[1] * 60 + s[2]) * 1e6 }'; }

# The distribution for one payload size, rebuilt only when its inputs changed.
make_dist() {
  local name=$1 divisor=$2 dir=$work/$1
  local key
  key=$( (sha256sum "$build/bench/genpayload" "$build/bin/cvmkdist" "$build/installer/cvinst" "$build/cdinst.cvb" \
            "$build/bin/cvcheck"
          find demo/payload -type f -print0 |
          sort -z | xargs -0 sha256sum; echo "$divisor") | sha256sum | cut -c1-16)
  if [ ! -f "$dir/dist/cvpack" ] || [ "$(cat "$dir/key" 2>/dev/null)" != "$key" ]; then
    echo "building the $name distribution (once)..."
    rm -rf "$dir" && mkdir -p "$dir"
    "$build/bench/genpayload" "$dir/payload" "$divisor"
    cp -R demo/payload/. "$dir/payload/"
    # The modes git records, whatever the checkout's umask: cvmkdist refuses group-writable files.
    chmod -R u+w,go-w,a+rX "$dir/payload"
    # One fixed time on every entry: the same payload packs into the same bytes.
    find "$dir/payload" -exec touch -h -d @1700000000 {} +
    "$build/bin/cvmkdist" --payload "$dir/payload" --package cvpack --out "$dir/dist" \
      --installer "$build/installer/cvinst" --messages "$build/cdinst.cvb" --license demo/payload/license.txt \
      --checker "$build/bin/cvcheck" --self-extracting "$dir/corvane.run"
    rm -rf "$dir/payload"
    echo "$key" >"$dir/key"
  fi
}

# Where the runs unpack: a tmpfs of our own, so that every run writes into memory alone.
# On a disk file system the creation of thousands of files depends on what happened there
# before (other users' writes and deletions, write-back), which swamps the difference being
# measured. BENCH_DISK=1, or a machine where the mount is refused, uses a directory on disk
# instead; there each run gets a new directory and nothing is deleted until the end.
runs=$work/runs
target_kind=tmpfs
setup_runs() {
  mkdir -p "$runs"
  if [ "${BENCH_DISK:-0}" != 1 ] && ! mountpoint -q "$runs" && mount -t tmpfs -o size=3g,mode=0755 cvbench "$runs" 2>/dev/null; then
    trap 'cd "$root"; umount "$runs" 2>/dev/null || true' EXIT
  elif ! mountpoint -q "$runs"; then
    target_kind="disk ($(df --output=fstype "$runs" | tail -1))"
    rm -rf "${runs:?}"/*
  fi
}

# A new, empty directory for one run. On tmpfs the tree of the previous run of the same kind
# goes first, so that memory holds at most one tree of each kind.
new_target() {
  local kind=$1 round=$2
  [ "$target_kind" = tmpfs ] && rm -rf "$runs/$kind"-*
  mkdir -p "$runs/$kind-$round"
  echo "$runs/$kind-$round"
}

# One timed run of the given kind; prints its wall-clock and its CPU time in microseconds.
run_one() {
  local kind=$1 dir=$2 round=$3 target start end
  target=$(new_target "$kind" "$round")
  case $kind in
    tar)
      start=$(micros)
      (cd "$target" && tar xzf "$dir/dist/cvpack" && times >"$runs/cpu")
      end=$(micros) ;;
    install|skip)
      printf '[unattended]\nDestinationDir=%s\n' "$target" >"$dir/dist/setup.ini"
      local flags=(-post-install)
      [ "$kind" = skip ] && flags+=(-s)
      start=$(micros)
      if ! (cd "$dir/dist" && printf '\nyes\n' | ./cvinst "${flags[@]}" >"$runs/$kind.log" 2>&1 && times >"$runs/cpu"); then
        echo "cvinst ${flags[*]} failed; see $runs/$kind.log" >&2
        exit 1
      fi
      end=$(micros)
      grep -q 'INSTALLATION SUCCESSFULLY COMPLETED' "$runs/$kind.log" ||
        { echo "cvinst ${flags[*]} did not complete; see $runs/$kind.log" >&2; exit 1; } ;;
    run|runbase)
      # From a directory that holds only setup.ini; the private copy goes under TMPDIR.
      local file=$dir/corvane.run
      [ "$kind" = runbase ] && file=$dir/corvane-base.run
      mkdir -p "$runs/cwd" "$runs/tmp"
      printf '[unattended]\nDestinationDir=%s\n' "$target" >"$runs/cwd/setup.ini"
      start=$(micros)
      if ! (cd "$runs/cwd" && printf '\nyes\n' | TMPDIR=$runs/tmp sh "$file" -- -post-install \
              >"$runs/run.log" 2>&1 && times >"$runs/cpu"); then
        echo "sh corvane.run failed; see $runs/run.log" >&2
        exit 1
      fi
      end=$(micros)
      if ! grep -q 'INSTALLATION SUCCESSFULLY COMPLETED' "$runs/run.log" || [ -n "$(ls -A "$runs/tmp")" ]; then
        echo "sh corvane.run did not complete or left files in TMPDIR; see $runs/run.log" >&2
        exit 1
      fi ;;
    check|unpack)
      # The two parts of the file's own cost: the SHA-256 check alone, and check plus unpacking.
      local option=(--check)
      [ "$kind" = unpack ] && option=(--noexec --target "$target/dist")
      start=$(micros)
      (sh "$dir/corvane.run" "${option[@]}" >/dev/null && times >"$runs/cpu") ||
        { echo "sh corvane.run ${option[*]} failed" >&2; exit 1; }
      end=$(micros) ;;
  esac
  echo "$((end - start)) $(children_cpu <"$runs/cpu")"
}

# Runs one round's kinds in the order given and appends each one's wall-clock and CPU time to
# $t/KIND and $t/KIND-cpu of the caller; the caller's took[KIND] keeps this round's wall-clock time.
time_round() {  # time_round DIST_DIR ROUND KIND...
  local dir=$1 r=$2 kind result wall cpu
  shift 2
  for kind; do
    result=$(run_one "$kind" "$dir" "$r")
    read -r wall cpu <<<"$result"
    took[$kind]=$wall
    echo "$wall" >>"$t/$kind"
    echo "$cpu" >>"$t/$kind-cpu"
  done
}

report() {  # label, file of wall-clock times, file of CPU times (microseconds)
  local label=$1 m lo hi cm
  read -r m lo hi < <(stats <"$2")
  read -r cm _ < <(stats <"$3")
  printf '  %-34s median %8s ms   range %8s - %8s ms   CPU %8s ms\n' "$label" "$(ms "$m")" "$(ms "$lo")" \
    "$(ms "$hi")" "$(ms "$cm")"
}

ratio_report() {  # label, file of per-round ratios
  local m lo hi
  read -r m lo hi < <(stats <"$2")
  printf '  %-34s median %8.3f      range %8.3f - %8.3f\n' "$1" "$m" "$lo" "$hi"
}

# Rounds of tar, complete installation and -s over the distribution in dir/dist; the times go
# into the directory t.
time_rounds() {
  local dir=$1 rounds=$2 t=$3
  rm -rf "$t" && mkdir -p "$t"
  local kinds=(tar install skip) order kind
  local -A took=()
  for kind in "${kinds[@]}"; do run_one "$kind" "$dir" w >/dev/null; done   # warm-up
  echo "  load: $(cut -d' ' -f1-3 /proc/loadavg) (rounds: $rounds, unpacking into $target_kind)"
  for ((r = 0; r < rounds; r++)); do
    order=("${kinds[@]:r%3}" "${kinds[@]:0:r%3}")
    time_round "$dir" "$r" "${order[@]}"
    awk -v a="${took[install]}" -v b="${took[tar]}" 'BEGIN {print a / b}' >>"$t/install-ratio"
    awk -v a="${took[skip]}" -v b="${took[tar]}" 'BEGIN {print a / b}' >>"$t/skip-ratio"
  done
  report "tar xzf cvpack" "$t/tar" "$t/tar-cpu"
  report "cvinst (unattended, complete)" "$t/install" "$t/install-cpu"
  report "cvinst -s" "$t/skip" "$t/skip-cpu"
  ratio_report "install / tar, per round" "$t/install-ratio"
  ratio_report "install -s / tar, per round" "$t/skip-ratio"
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
  time_rounds "$dir" "$rounds" "$t"

  # Verification alone, over the tree the last tar run left, against cat of the same files.
  local tree
  tree=$(ls -d "$runs"/tar-* | tail -1)
  local files_listed=()
  mapfile -t files_listed < <(sed 's/ [-0-9]* [-0-9]*$//' "$tree/distribfilelist")
  "$build/bench/verify_timer" "$tree" >/dev/null 2>&1 || { echo "verification of $tree failed" >&2; exit 1; }
  (cd "$tree" && cat -- "${files_listed[@]}" >/dev/null)
  # On the small tree one pass takes a few milliseconds, less than a time slice of the other
  # processes on a shared machine; there each sample is the mean of ten passes in a row.
  local repeat=$divisor
  echo "  load: $(cut -d' ' -f1-3 /proc/loadavg) (verification rounds: $rounds, $repeat pass(es) a sample)"
  local start end v c m lo hi k
  for ((r = 0; r < rounds; r++)); do
    # verify then cat in even rounds, cat then verify in odd ones
    for step in 0 1; do
      if [ $(((r + step) % 2)) -eq 0 ]; then
        start=$(micros)
        (for ((k = 0; k < repeat; k++)); do "$build/bench/verify_timer" "$tree" >/dev/null || exit 1; done 2>"$runs/inner" &&
          times >"$runs/cpu")
        end=$(micros)
        v=$(((end - start) / repeat))
        awk -v n="$repeat" '/^verify_us/ {sum += $2} END {printf "%d\n", sum / n}' "$runs/inner" >>"$t/verify-inner"
        children_cpu <"$runs/cpu" | awk -v n="$repeat" '{printf "%d\n", $1 / n}' >>"$t/verify-cpu"
      else
        start=$(micros)
        (cd "$tree" && for ((k = 0; k < repeat; k++)); do cat -- "${files_listed[@]}" >/dev/null || exit 1; done &&
          times >"$runs/cpu")
        end=$(micros)
        c=$(((end - start) / repeat))
        children_cpu <"$runs/cpu" | awk -v n="$repeat" '{printf "%d\n", $1 / n}' >>"$t/cat-cpu"
      fi
    done
    echo "$v" >>"$t/verify"
    echo "$c" >>"$t/cat"
    awk -v a="$v" -v b="$c" 'BEGIN {print a / b}' >>"$t/verify-ratio"
    awk -v a="$(tail -1 "$t/verify-inner")" -v b="$c" 'BEGIN {print a / b}' >>"$t/pass-ratio"
  done
  report "verification (verify_timer)" "$t/verify" "$t/verify-cpu"
  read -r m lo hi < <(stats <"$t/verify-inner")
  printf '  %-34s median %8s ms   range %8s - %8s ms\n' "  the pass alone, timed inside" "$(ms "$m")" \
    "$(ms "$lo")" "$(ms "$hi")"
  report "cat of the ${#files_listed[@]} listed files" "$t/cat" "$t/cat-cpu"
  ratio_report "verification / cat, per round" "$t/verify-ratio"
  ratio_report "  the pass alone / cat, per round" "$t/pass-ratio"
  rm -rf "${runs:?}"/*
}

# The part of an installation that does not grow with the payload: the same rounds over the
# demo distribution, whose package holds a handful of small files.
bench_demo() {
  local dir=$work/demo
  rm -rf "$dir" && mkdir -p "$dir" && cp -R "$build/dist" "$dir/dist"
  cp -f "$build/installer/cvinst" "$build/cdinst.cvb" "$dir/dist/"
  echo
  echo "== demo: the demo distribution, $(tar tzf "$dir/dist/cvpack" | grep -vc '/$') files (what every installation costs)"
  time_rounds "$dir" "$rounds_tenth" "$dir/times"
  rm -rf "${runs:?}"/*
}

# dir/corvane-base.run: the archive of dir/corvane.run behind the header script of revision $1,
# its values filled in as cvmkdist does (the header's own size until it settles).
make_base_run() {
  local rev=$1 dir=$2 new=$2/corvane.run header archive_bytes sha size=0 filled i
  header=$(head -c 65536 "$new" | sed -n "s/^header_bytes='\([0-9]*\)'$/\1/p")
  archive_bytes=$(($(stat -c %s "$new") - header))
  tail -c "$archive_bytes" "$new" >"$dir/archive.tar"
  sha=$(sha256sum <"$dir/archive.tar" | cut -c1-64)
  git show "$rev:tools/cvmkdist/selfextract.sh" >"$dir/base.sh"
  for ((i = 0; i < 8; i++)); do
    perl -pe "s/\@ARCHIVE_SHA256\@/$sha/; s/\@ARCHIVE_BYTES\@/$archive_bytes/; s/\@HEADER_BYTES\@/$size/;
              s/9999999999999999/$((size + archive_bytes))/g; s/\@VERSION\@/10.0/; s/\@PACKAGE\@/cvpack/" \
      "$dir/base.sh" >"$dir/base.header"
    filled=$(stat -c %s "$dir/base.header")
    [ "$filled" = "$size" ] && break
    size=$filled
  done
  cat "$dir/base.header" "$dir/archive.tar" >"$dir/corvane-base.run"
  rm -f "$dir/archive.tar" "$dir/base.sh" "$dir/base.header"
}

# The 142 MB installation through its self-extracting file against the same from the directory.
bench_selfextract() {
  local dir=$work/full rounds=$1 t=$work/full/run-times order kind kinds=(install run)
  local -A took=()
  make_dist full 1
  rm -rf "$t" && mkdir -p "$t"
  echo
  echo "== selfextract: corvane.run $(stat -c %s "$dir/corvane.run") bytes, the demo's $(stat -c %s "$build/corvane-demo.run") bytes"
  if [ -n "${SELFEXTRACT_BASE:-}" ]; then
    make_base_run "$SELFEXTRACT_BASE" "$dir"
    kinds+=(runbase)
    echo "  runbase: the same archive behind the header script of $(git rev-parse --short "$SELFEXTRACT_BASE")"
  fi
  for kind in "${kinds[@]}"; do run_one "$kind" "$dir" w >/dev/null; done   # warm-up
  echo "  load: $(cut -d' ' -f1-3 /proc/loadavg) (rounds: $rounds, TMPDIR and targets on $target_kind)"
  for ((r = 0; r < rounds; r++)); do
    order=("${kinds[@]:r%${#kinds[@]}}" "${kinds[@]:0:r%${#kinds[@]}}" check unpack)
    [ $((r % 2)) -eq 1 ] && order=(unpack check "${order[@]:0:${#kinds[@]}}")
    time_round "$dir" "$r" "${order[@]}"
    awk -v a="${took[run]}" -v b="${took[install]}" 'BEGIN {print a / b}' >>"$t/ratio"
    [ -z "${took[runbase]:-}" ] ||
      awk -v a="${took[runbase]}" -v b="${took[install]}" 'BEGIN {print a / b}' >>"$t/base-ratio"
  done
  report "cvinst from the directory" "$t/install" "$t/install-cpu"
  report "sh corvane.run" "$t/run" "$t/run-cpu"
  report "  its check alone (--check)" "$t/check" "$t/check-cpu"
  report "  check and unpacking (--noexec --target)" "$t/unpack" "$t/unpack-cpu"
  ratio_report "corvane.run / directory, per round" "$t/ratio"
  if [ -f "$t/base-ratio" ]; then
    report "sh corvane-base.run" "$t/runbase" "$t/runbase-cpu"
    ratio_report "corvane-base.run / directory" "$t/base-ratio"
  fi
  rm -f "$dir/corvane-base.run"
}

# cvcheck verify against cat of the files it reads, over one complete installation of the full
# payload: per round one of each, in an order that alternates.
bench_check() {
  local dir=$work/full rounds=$rounds_full target t=$work/full/check-times
  make_dist full 1
  target=$(new_target check 0)
  printf '[unattended]\nDestinationDir=%s\n' "$target" >"$dir/dist/setup.ini"
  (cd "$dir/dist" && printf '\nyes\n' | ./cvinst -post-install >"$runs/check.log" 2>&1) ||
    { echo "the installation for the check failed; see $runs/check.log" >&2; exit 1; }
  local files_listed=() name
  while IFS= read -r name; do [ -f "$target/$name" ] && files_listed+=("$name"); done \
    < <(sed 's/ [-0-9]* [-0-9]*$//' "$target"/distribfilelist.*)
  echo
  echo "== check: cvcheck verify over the installed full payload, ${#files_listed[@]} files, against cat"
  echo "  load: $(cut -d' ' -f1-3 /proc/loadavg) (rounds: $rounds)"
  local mode start end v c r step
  for mode in sha256 bytesum; do
    rm -rf "$t" && mkdir -p "$t"
    [ "$mode" = bytesum ] && mv "$target/distribsha256" "$runs/distribsha256.aside"
    "$dir/dist/cvcheck" verify "$target" >"$runs/check.out" || { cat "$runs/check.out" >&2; exit 1; }
    (cd "$target" && cat -- "${files_listed[@]}" >/dev/null)
    for ((r = 0; r < rounds; r++)); do
      for step in 0 1; do
        if [ $(((r + step) % 2)) -eq 0 ]; then
          start=$(micros)
          (cd "$target" && "$dir/dist/cvcheck" verify . >/dev/null && times >"$runs/cpu")
          end=$(micros)
          v=$((end - start))
          children_cpu <"$runs/cpu" >>"$t/verify-cpu"
        else
          start=$(micros)
          (cd "$target" && cat -- "${files_listed[@]}" >/dev/null && times >"$runs/cpu")
          end=$(micros)
          c=$((end - start))
          children_cpu <"$runs/cpu" >>"$t/cat-cpu"
        fi
      done
      echo "$v" >>"$t/verify"
      echo "$c" >>"$t/cat"
      awk -v a="$v" -v b="$c" 'BEGIN {print a / b}' >>"$t/ratio"
    done
    echo "  $(tail -1 "$runs/check.out")"
    report "cvcheck verify ($mode)" "$t/verify" "$t/verify-cpu"
    report "cat of the same files" "$t/cat" "$t/cat-cpu"
    ratio_report "cvcheck verify / cat, per round" "$t/ratio"
  done
  rm -rf "${runs:?}"/*
}

setup_runs
for part in "${parts[@]}"; do
  case $part in
    full) bench_size full 1 "$rounds_full" ;;
    tenth) bench_size tenth 10 "$rounds_tenth" ;;
    demo) bench_demo ;;
    selfextract) bench_selfextract "$rounds_full" ;;
    check) bench_check ;;
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
    *) echo "unknown part '$part' (full, tenth, demo, selfextract, check, micro)" >&2; exit 2 ;;
  esac
done
echo
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
