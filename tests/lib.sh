# Helpers for the end-to-end cases (tests/e2e_*_test.cpp), sourced by bash before the setup, the
# command and the checks of every case (tests/harness.cpp). Each runs in the sandbox $S; relative
# names are taken from the current directory, which is $S unless the case changes it.
#
# From the harness's environment: $S the sandbox, $I the built installer, $MK the built cvmkdist,
# $MSG the built message file, $P the demo payload, $PP the plug-in demo payload.
# shellcheck shell=bash

cd "$S"
# The copy of the demo distribution in the sandbox.
D=$S/dist
# The build directory, which holds dist-plugin/ (the plug-in distribution) beside the message file.
B=${MSG%/*}
# The tools that the installer looks for along PATH.
T='uname cp mv rm mkdir tar uncompress chgrp chown touch more'

# cvinst ARG...: the installer of the sandbox's distribution.
cvinst() { "$D/cvinst" "$@"; }
# q ARG...: the same without the disk-space check and the post-installation step.
q() { cvinst -d -post-install "$@"; }
# inst DIST DIR ARG...: the installer of $S/DIST into $S/DIR, without disk-space check and
# post-installation step.
inst() { "$S/$1/cvinst" -d -post-install -destination-dir "$S/$2" "${@:3}"; }
# mkd DIST [PAYLOAD [PACKAGE]]: cvmkdist builds $S/DIST from PAYLOAD (the demo payload), its
# gaps only warned about.
mkd() { "$MK" --payload "${2:-$P}" --package "${3:-cvpack}" --out "$S/$1" --installer "$I" --messages "$MSG" \
  --license "$P/license.txt" --allow-incomplete >/dev/null; }
# tree DIR [FROM]: a copy of FROM (the demo payload) in $S/DIR, every time set to 2020-01-01.
tree() { cp -a "${2:-$P}" "$S/$1" && find "$S/$1" -exec touch -h -d 2020-01-01 {} +; }
# tard DIST TREE: a copy of the distribution as $S/DIST whose package is TREE packed by tar and gzip.
tard() { cp -a "$D" "$S/$1" && tar -C "$2" -cf - . | gzip -c >"$S/$1/cvpack"; }
# nobody COMMAND...: COMMAND as uid and gid 65534 without supplementary groups.
nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
# mnt DIR OPTIONS: a tmpfs mounted on DIR (the harness unmounts it); skips the case where that
# is not permitted.
mnt() { mkdir -p "$1" && mount -t tmpfs -o "$2" tmpfs "$1" 2>/dev/null ||
  { echo "skip: mounting a tmpfs is not permitted here"; exit 77; }; }
# sock PATH: a Unix domain socket at PATH.
sock() { perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Local => $ARGV[0], Listen => 1) or die' "$1"; }
# tools DIR TOOL...: $S/DIR holding a link to each TOOL as found along PATH (a PATH of its own).
tools() { local d=$S/$1 t; shift; mkdir -p "$d"; for t; do ln -s "$(command -v "$t")" "$d/$t"; done; }
# intact TREE DIR: every file of $S/TREE but $alias.crv is in $S/DIR with the same bytes.
intact() { (cd "$S/$1" && ! find . -type f ! -name '$alias.crv' ! -exec cmp -s {} "$S/$2/{}" \; -print | grep -q .); }
# xvfb: an X server of its own for the rest of the run, in DISPLAY; skips the case where Xvfb is
# missing or does not start.
xvfb() { local x i; command -v Xvfb >/dev/null || { echo "skip: Xvfb is not installed"; exit 77; }
  Xvfb -displayfd 3 -nolisten tcp 3>"$S/.display" </dev/null >/dev/null 2>&1 & x=$!
  for i in $(seq 200); do [ -s "$S/.display" ] || sleep 0.05; done
  [ -s "$S/.display" ] || { echo "skip: Xvfb could not be started"; exit 77; }
  export DISPLAY=:$(cat "$S/.display"); rm "$S/.display"; trap "kill $x; wait $x" EXIT; }

# Plug-in installations.
# mkide [TEXT]: a stand-in Eclipse installation in ./ide/eclipse, its .eclipseproduct holding TEXT.
mkide() { mkdir -p ide/eclipse && echo "$@" >ide/eclipse/.eclipseproduct; }
# pldist DIR: a copy of the plug-in distribution as ./DIR, where uid 65534 can read it.
pldist() { cp -a "$B/dist-plugin" "$1"; }
# mknode ARG...: mknod ARG..., or the case is skipped where device nodes cannot be made.
mknode() { mknod "$@" || { echo 'skip: device nodes cannot be made here'; exit 77; }; }

# cvcheck (e2e_check_test.cpp).
# ck ARG...: the cvcheck of the sandbox's distribution.
ck() { "$D/cvcheck" "$@"; }
# installed: the demo installed unattended into $S/i, its output dropped.
installed() { printf '\nyes\n' | "$D/cvinst" -d -post-install -destination-dir "$S/i" >/dev/null; }
# plugged: the plug-in installed into $S/ide/corvplugin, linked into the stand-in Eclipse in
# $S/ide/eclipse, its output dropped.
plugged() { mkide && pldist pl && printf '\nyes\n%s\n\n\n' "$S/ide" | pl/cvinst -d +post-install >/dev/null; }

# Hostile packages (e2e_hostile_test.cpp).
# hp NAME LINE: the package of the distribution $S/NAME is the demo payload with its file list,
# its tree changed by the shell line LINE after the list was made.
hp() { tree t && "$MK" --payload t --list-only >l && mv l t/distribfilelist && (cd t && eval "$2") && tard "$1" t; }
# pic: the canary directory ./out as it stands: names, owners, modes, sizes, times and content.
pic() { find out -printf '%p %u %g %m %s %T@ %C@\n' | sort; md5sum out/canary; }
# canary: the canary directory ./out, owned by uid 65534, and its picture in ./out.pic.
canary() { mkdir out && echo canary >out/canary && chown -R 65534:65534 out && pic >out.pic; }
# unchanged: the canary directory is as canary left it.
unchanged() { [ "$(pic)" = "$(cat out.pic)" ]; }
# nodeless DIR: DIR holds no block or character device node and no FIFO.
nodeless() { [ -z "$(find "$1" -type b -o -type c -o -type p)" ]; }
# slowtar: the demo payload in ./t, a tar in ./slow that waits two seconds before it unpacks, and
# one in ./hang that never does.
slowtar() {
  tree t && mkdir slow hang && printf '#!/bin/sh\nsleep 2\nexec %s "$@"\n' "$(command -v tar)" >slow/tar &&
    echo 'exec sleep 30' >hang/tar && chmod +x slow/tar hang/tar
}
# whole: the installation in ./i holds the payload ./t, bin/cvt and the generated corv.ini, and
# says "complete".
whole() { intact t i && test -L i/bin/cvt && grep -q CORVPATH i/bin/corv.ini && echo complete; }

# Releases (e2e_release_test.cpp).
# mkrun DIST FILE: the demo payload built into the distribution $S/DIST and the self-extracting
# file $S/FILE.
mkrun() {
  "$MK" --payload "$P" --package cvpack --out "$S/$1" --installer "$I" --messages "$MSG" \
    --license "$P/license.txt" --self-extracting "$S/$2"
}
# ini DIR: $S/w/setup.ini naming $S/DIR as the installation directory.
ini() { mkdir -p "$S/w" && printf '[unattended]\nDestinationDir=%s\n' "$S/$1" >"$S/w/setup.ini"; }
# same A B: the trees $S/A and $S/B hold the same names, modes, types, link targets and bytes,
# the dated file list under whatever date.
same() {
  cmp <(cd "$S/$1" && find . ! -name 'distribfilelist.*' -printf '%p %m %y %l\n' | sort) \
    <(cd "$S/$2" && find . ! -name 'distribfilelist.*' -printf '%p %m %y %l\n' | sort) &&
    diff -r -x 'distribfilelist.*' "$S/$1" "$S/$2" && cmp "$S/$1"/distribfilelist.* "$S/$2"/distribfilelist.*
}
# waiting: ./r.run started in a process group of its own, as a terminal would start it, with
# TMPDIR=$S/tmp, its output in ./out and its input from the FIFO ./in, held open on descriptor 3;
# returns once the installer waits at its first question. Its process is $pid.
waiting() {
  set -m; mkfifo in; TMPDIR=$S/tmp sh r.run <in >out 2>&1 & pid=$!; exec 3>in
  for i in $(seq 200); do grep -q 'ENTER' out && break; sleep 0.05; done
}
