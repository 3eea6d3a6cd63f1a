#!/usr/bin/env bash
# Fault-finding measure of the test suite: plants one fault at a time in the sources of runtime/,
# installer/ and tools/ (a seeded sample from a small table of source rewrites), rebuilds what
# changed, runs the unit and end-to-end tests, and counts the faults they catch and miss.
#
#   scripts/mutate.sh [--rev REV] [--seed N] [--size N] [--by-lines] [--sample FILE]
#                     [--work DIR] [--results DIR] [--jobs N] [--timeout S] [--every]
#                     [--covering MAP]
#   scripts/mutate.sh --list [--rev REV]        candidate faults by rule and file, no build
#   scripts/mutate.sh --compare A B             caught before and after on the common faults
#   scripts/mutate.sh --matrix DIR              which test catches which fault (a run with --every)
#
# --by-lines draws the sample spread over the files in proportion to their lines of code (the
# default draws from all candidate faults alike, so files dense in operators get more).
# --every runs every test for every fault instead of stopping at the first failure (slower),
# so that --matrix can tell which tests catch a fault that no other test catches.
# --covering MAP (from scripts/covermap.py on a coverage build of the same revision) runs, for
# each fault, the unit tests and only the end-to-end tests that execute the faulty line; a fault
# on a line that no test executes gets the whole suite.
#
# The revision's tracked files are exported into a scratch tree (WORK/src, built in WORK/build
# without optimisation), so the checkout is never touched. Not part of CI: a full run takes the
# better part of an hour.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/.." && pwd)
helper="$here/mutate.py"

covering=()
rev=HEAD seed=14 size=150 sample="" work="" results="" jobs=2 timeout=60 mode=run every="" bylines=""
usage() { sed -n '2,23p' "$0" | sed 's/^# \{0,1\}//'; exit "${1:-2}"; }
while [ $# -gt 0 ]; do
    case "$1" in
        --rev) rev=$2; shift 2 ;;
        --seed) seed=$2; shift 2 ;;
        --size) size=$2; shift 2 ;;
        --sample) sample=$(realpath "$2"); shift 2 ;;
        --work) work=$2; shift 2 ;;
        --results) results=$2; shift 2 ;;
        --jobs) jobs=$2; shift 2 ;;
        --timeout) timeout=$2; shift 2 ;;
        --list) mode=list; shift ;;
        --every) every=--every; shift ;;
        --covering) covering=(--covering "$(realpath "$2")"); shift 2 ;;
        --by-lines) bylines=--by-lines; shift ;;
        --compare) [ $# -ge 3 ] || usage; exec python3 "$helper" compare "$2" "$3" ;;
        --matrix) [ $# -ge 2 ] || usage; r=$2; [ -d "$r" ] && r=$r/results.jsonl; exec python3 "$helper" matrix "$r" ;;
        -h|--help) usage 0 ;;
        *) echo "mutate.sh: unknown option $1" >&2; usage ;;
    esac
done

commit=$(git -C "$repo" rev-parse --verify "$rev^{commit}")
short=${commit:0:10}
work=${work:-/tmp/cvinst-mut-$short}
results=${results:-$work/results}
mkdir -p "$work" "$results"
work=$(realpath "$work") results=$(realpath "$results")
src=$work/src build=$work/build

# One measurement at a time in a scratch directory.
exec 9>"$work/lock"
flock -n 9 || { echo "mutate.sh: another run is using $work" >&2; exit 1; }

# Export the revision (once; a rerun on the same revision reuses the tree and its build).
if [ "$(cat "$work/commit" 2>/dev/null)" != "$commit" ]; then
    rm -rf "$src" "$build" "$work/pristine" "$work/commit"
    mkdir -p "$src"
    git -C "$repo" -c tar.umask=0022 archive "$commit" | tar x -C "$src"
    echo "$commit" >"$work/commit"
fi

if [ $mode = list ]; then
    exec python3 "$helper" list "$src" --stats
fi

# A fault found in the scratch tree by an interrupted run is taken out before anything else.
python3 "$helper" restore "$src" "$work/pristine"
echo "== $rev ($short) in $work"
# Fast build: no optimisation, no debug information, no sanitizers, no benchmarks; the tests
# are listed when ctest runs, so a test program that crashes is a failing test, not a build error.
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_FLAGS="-O0 -g0" -DCMAKE_C_FLAGS="-O0 -g0" -DCVINST_SANITIZE=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON \
    -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST >"$work/configure.log"
start=$(date +%s)
ninja -C "$build" -j"$jobs" >"$work/build.log" 2>&1 || { tail -30 "$work/build.log"; exit 1; }
echo "built in $(( $(date +%s) - start )) s"

# The unchanged suite must pass; its time sets the time allowed for one faulty run.
baseline=$(python3 "$helper" suite "$build" --jobs "$jobs" --timeout "$timeout" --budget 1800) || {
    echo "$baseline" | tail -30
    echo "mutate.sh: the suite fails without any fault; nothing to measure" >&2
    exit 1
}
read -r tests seconds <<<"$baseline"
budget=$(python3 -c "print(max(120, int(3 * $seconds)))")
echo "unchanged suite: $tests tests pass in $seconds s; a faulty run is stopped after $budget s"

if [ -z "$sample" ]; then
    sample=$results/sample.jsonl
    if [ ! -f "$sample" ]; then
        python3 "$helper" sample "$src" --seed "$seed" --size "$size" --rev "$short" --out "$sample" $bylines
    fi
fi
echo "sample: $sample"
echo "results: $results/results.jsonl, summary: $results/summary.txt"
python3 "$helper" run "$src" "$build" "$sample" "$results" --work "$work" --rev "$rev" \
    --commit "$commit" --tests "$tests" --baseline-seconds "$seconds" --jobs "$jobs" \
    --timeout "$timeout" --budget "$budget" $every "${covering[@]}"
