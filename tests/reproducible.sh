#!/usr/bin/env bash
# Two builds of one source tree, as two clones of one commit would be built on two machines,
# must give byte-identical distributions and self-extracting files:
#   bash tests/reproducible.sh SOURCE-DIR [C++-COMPILER [C-COMPILER]]
# The sources are copied twice (tracked and untracked files, no build directories) to paths of
# different lengths, once with the modes a clone gets under umask 077 and built in a build
# directory inside the copy, once with the modes of a clone under umask 002 (group-writable) and
# built outside it. Each builds only what a demo release needs (the release-tools and dist
# targets) with the same SOURCE_DATE_EPOCH; then every file of the two demo distributions and
# both .run files are compared, and the .run's SHA-256 and size are printed. The demo .run must
# also stay under 1 MB (its programs are shipped stripped).
set -euo pipefail
src=$(cd "$1" && pwd)
cxx=${2:-c++}
cc=${3:-cc}
work=$(mktemp -d "${TMPDIR:-/tmp}/cvinst-repro.XXXXXX")
trap 'rm -rf "$work"' EXIT

epoch=${SOURCE_DATE_EPOCH:-$(git -C "$src" log -1 --format=%ct 2>/dev/null || echo 1700000000)}
export SOURCE_DATE_EPOCH=$epoch

# copy DEST UMASK: the source tree as a checkout under that umask would leave it.
copy() {
  mkdir -p "$1"
  tar -C "$src" --exclude-vcs --exclude='./build*' --exclude=./release --exclude=__pycache__ -cf - . |
    (umask "$2" && tar -C "$1" --no-same-permissions -xf -)
  if [ "$2" = 002 ]; then chmod -R g+w "$1"; fi
}
# build SOURCE BUILD UMASK
build() {
  (umask "$3" &&
    cmake -S "$1" -B "$2" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_C_COMPILER="$cc" >"$work/configure.log" 2>&1 &&
    cmake --build "$2" -j2 --target release-tools dist >"$work/build.log" 2>&1) ||
    { cat "$work/configure.log" "$work/build.log" >&2; echo "reproducible.sh: the build in $2 failed" >&2; exit 1; }
}

a_src=$work/a/src a_build=$work/a/src/build
b_src=$work/second-clone/cvinst b_build=$work/out-b
copy "$a_src" 077
copy "$b_src" 002
build "$a_src" "$a_build" 077
build "$b_src" "$b_build" 002

status=0
for dir in dist dist-plugin; do
  if ! diff -r "$a_build/$dir" "$b_build/$dir"; then
    echo "reproducible.sh: $dir differs between the two builds" >&2
    status=1
  fi
done
sha256sum "$a_build/corvane-demo.run" "$b_build/corvane-demo.run"
if ! cmp "$a_build/corvane-demo.run" "$b_build/corvane-demo.run"; then
  echo "reproducible.sh: the two .run files differ" >&2
  status=1
fi
size=$(stat -c %s "$a_build/corvane-demo.run")
echo "corvane-demo.run: $size bytes"
if [ "$size" -ge 1000000 ]; then
  echo "reproducible.sh: the demo .run is $size bytes, not under 1 MB" >&2
  status=1
fi
[ "$status" = 0 ] && echo "identical"
exit "$status"
