// End-to-end: the self-extracting file against a damaged transfer and a local user, and its
// makeself-style options. The runs are root's; uid 65534 is the other user, who may write in the
// directories that the refusals are about.
#include "tests/harness.h"

namespace {

// mkrun FILE [PAYLOAD]: the demo distribution $S/d-FILE and its self-extracting file $S/FILE.
// hb FILE: the size of FILE's header. The sandbox gets r.run and the empty directories tmp and w.
const std::string kHb = R"sh(hb() { head -c 65536 "$1" | sed -n "s/^header_bytes='\([0-9]*\)'$/\1/p"; }
)sh";
const std::string kRun = kHb + R"sh(
mkrun() { "$MK" --payload "${2:-$P}" --package cvpack --out "$S/d-$1" --installer "$I" --messages "$MSG" \
  --license "$P/license.txt" --self-extracting "$S/$1" >/dev/null; }
mkrun r.run && mkdir tmp w && )sh";

// The refusal of a directory that uid 65534 could change, with the advice for TMPDIR.
std::string refusedTmpdir(Str tmpdir, Str dir, Str why) {
    return "=[stderr]\nr.run: refused TMPDIR=" + tmpdir +
           ": another user could rename or replace the directory unpacked there, as " + dir + " " + why +
           ".\nr.run: Set TMPDIR to a directory that only you and root can change: TMPDIR=DIR sh r.run\n";
}
const std::string kOpenMode = "may be written by others (mode drwxrwxrwx) and is not sticky";

// The stand-in digest program: the real digest, then another file (the same header before an
// archive whose cvinst prints EVIL) renamed over r.run. A file that is read once for the digest
// and again for tar would unpack and start the other file's installer here.
const std::string kSwapAfterDigest = kRun + R"sh(mkdir evil bin && cp d-r.run/* evil/ &&
printf '#!/bin/sh\necho EVIL\n' >evil/cvinst && { head -c "$(hb r.run)" r.run; tar -C evil -cf - .; } >evil.run &&
cp evil.run evil.copy && cat >bin/openssl <<'EOF' && chmod +x bin/openssl
#!/bin/sh
/usr/bin/openssl "$@"
s=$?
mv -f "$S/evil.run" "$S/r.run"
exit $s
EOF
)sh";

// Cuts r.run at every line boundary of its header, at every fifth byte of its first line and at a
// sample of other offsets, and starts each cut file from w with TMPDIR=tmp, under dash and bash,
// to install, to check and to unpack into out. Prints each cut that is not refused as it should
// be, then how many were tried.
const std::string kCuts = kHb + R"sh(n=$(wc -c <r.run); h=$(hb r.run); l1=$(head -1 r.run | wc -c)
offsets=$({ head -c "$h" r.run | awk '{ s += length($0) + 1; print s }'; seq 1 5 "$l1"; seq 1 211 "$h";
  seq "$h" $(((n - h) / 12)) "$n"; } | sort -nu)
i=0
for o in $offsets; do
  [ "$o" -lt "$n" ] || continue
  head -c "$o" r.run >c.run
  case $((i % 3)) in
    0) (cd w && TMPDIR=$S/tmp dash ../c.run -- -d) ;;
    1) (cd w && TMPDIR=$S/tmp bash ../c.run --check) ;;
    2) (cd w && dash ../c.run --noexec --target "$S/out") ;;
  esac >o.txt 2>&1
  s=$?
  if [ "$o" -lt "$l1" ]; then
    [ "$s" != 0 ] || echo "cut at $o: status 0"
  elif [ "$s" != 1 ] || ! grep -q '^\.\./c\.run: the file is damaged: it is cut short' o.txt; then
    echo "cut at $o: status $s: $(head -c 300 o.txt)"
  fi
  i=$((i + 1))
done
echo "$i cuts"; [ "$i" -gt 500 ] && echo "enough")sh";

// A payload with 9 MB that do not compress, whose file shows its progress on a terminal.
const std::string kBig = kRun + R"sh(script -qec true /dev/null >/dev/null 2>&1 ||
  { echo "skip: script cannot open a terminal here"; exit 77; }
cp -a "$P" big && head -c 9000000 /dev/urandom >big/docs/blob && mkrun big.run "$S/big")sh";

const std::string kFlipped = kRun + R"sh(cp r.run flip.run &&
printf ZZZZ | dd of=flip.run bs=1 seek=300000 conv=notrunc 2>/dev/null && ! cmp -s r.run flip.run)sh";

}  // namespace

E2E_CASES(
    SelfExtract,
    // A TMPDIR that uid 65534 may write in, without the sticky bit: refused before anything is
    // made there.
    Case{"tmpdir_open_refused",
         kRun + "mkdir -m 777 open",
         "TMPDIR=$S/open sh r.run -- -d",
         "",
         1,
         {refusedTmpdir("$S/open", "$S/open", kOpenMode)},
         {R"sh(nobody test -w "$S/open")sh", R"sh([ -z "$(ls -A open)" ])sh"}},
    // Any directory on the way counts: the private directory's parent could be renamed.
    Case{"tmpdir_below_open_refused",
         kRun + "mkdir -m 777 open && mkdir open/sub",
         "TMPDIR=$S/open/sub sh r.run",
         "",
         1,
         {refusedTmpdir("$S/open/sub", "$S/open", kOpenMode)},
         {R"sh([ -z "$(ls -A open/sub)" ])sh"}},
    Case{"tmpdir_other_owner_refused",
         kRun + "mkdir -p mine/tmp && chown 65534 mine",
         "TMPDIR=$S/mine/tmp/ sh r.run",
         "",
         1,
         {refusedTmpdir("$S/mine/tmp/", "$S/mine", "belongs to user 65534")},
         {R"sh([ -z "$(ls -A mine/tmp)" ])sh"}},
    Case{"tmpdir_group_writable_refused",
         kRun + "mkdir -m 775 grp",
         "TMPDIR=$S/grp sh r.run",
         "",
         1,
         {refusedTmpdir("$S/grp", "$S/grp", "may be written by others (mode drwxrwxr-x) and is not sticky")}},
    // Sticky like /tmp: nobody but root and the owner may rename what lies in it.
    Case{"tmpdir_sticky_accepted",
         kRun + "mkdir -m 1777 st",
         "TMPDIR=$S/st sh r.run --noexec",
         "",
         0,
         {"^Unpacked into $S/st/corvane.", "/cvinst.\n"},
         {"test -x st/corvane.*/cvinst"}},
    Case{"target_open_refused",
         kRun + "mkdir -m 777 open",
         "sh r.run --target open/new -- -d",
         "",
         1,
         {"=[stderr]\nr.run: refused the target open/new: another user could rename or replace the directory "
          "unpacked there, as $S/open " +
          kOpenMode +
          ".\nr.run: Choose a directory that only you and root can change: sh r.run --target DIR\n"},
         {R"sh([ -z "$(ls -A open)" ])sh"}},
    // The file is replaced right after its archive was digested: what tar unpacked is what was
    // digested, and the installer that starts is the real one.
    Case{"replaced_after_digest",
         kSwapAfterDigest,
         R"sh(cd w && PATH=$S/bin:$PATH TMPDIR=$S/tmp sh ../r.run -- -h; echo "status $?")sh",
         "",
         0,
         {"USAGE: cvinst [-h]", "status 0\n", "!EVIL"},
         {"cmp -s r.run evil.copy", R"sh([ -z "$(ls -A tmp)$(ls -A w)" ])sh"}},
    // A damaged archive leaves nothing behind, not even in a target that held a file of that name.
    Case{"damaged_archive_writes_nothing",
         kFlipped + " && mkdir out && echo mine >out/cvinst",
         "TMPDIR=$S/tmp sh flip.run -- -d; sh flip.run --noexec --target out; sh flip.run --target new",
         "",
         1,
         {"^[stderr]\nflip.run: the file is damaged: the SHA-256 of its archive is ",
          "flip.run: the file is damaged: the SHA-256", "flip.run: the file is damaged: the SHA-256"},
         {R"sh([ -z "$(ls -A tmp)" ])sh", R"sh([ "$(ls -A out)" = cvinst ])sh", "grep -qx mine out/cvinst",
          "! test -e new"}},
    Case{"cut_anywhere_refused",
         kRun + "true",
         kCuts,
         "",
         0,
         {"!cut at", "enough\n"},
         {R"sh([ -z "$(ls -A tmp)$(ls -A w)" ])sh", "! test -e out"}},
    Case{"check_prints_whole_file_sha256",
         kRun + "true",
         R"sh(sh r.run --check | sed "s/$(sha256sum r.run | cut -c1-64)/SUM/")sh",
         "",
         0,
         {"=r.run: OK (SHA-256 of the whole file, as in r.run.sha256: SUM)\n"},
         {"sha256sum --quiet -c r.run.sha256"}},
    Case{"info",
         kRun + "true",
         "sh r.run --info",
         "",
         0,
         {"^Name:    Corvane 10.0, package cvpack, in the self-extracting file r.run\nSizes:   ",
          "\nDigest:  SHA-256 of the archive ", "\nRuns:    cvinst from a private directory under TMPDIR"}},
    Case{"version", kRun + "true", "sh r.run --version", "", 0, {"=Corvane 10.0\n"}},
    // Unpacked into a private directory that stays; the installer does not start.
    Case{"noexec",
         kRun + "true",
         "TMPDIR=$S/tmp sh r.run --noexec",
         "",
         0,
         {"^Unpacked into $S/tmp/corvane.", "/cvinst.\n", "!Corvane Install"},
         {R"sh(strip -o s "$I" && cmp tmp/corvane.*/cvinst s)sh"}},
    // --target unpacks there and starts the installer from there, in the current directory.
    Case{"target_installs",
         kRun + R"sh(printf '[unattended]\nDestinationDir=%s\n' "$S/inst" >w/setup.ini)sh",
         R"sh(cd w && TMPDIR=$S/tmp sh ../r.run --target "$S/t d" -- -d -post-install)sh",
         kOpen,
         0,
         {kPause, kDone},
         {R"sh(strip -o s "$I" && cmp 't d/cvinst' s)sh", "test -x inst/bin/cv",
          R"sh([ -z "$(ls -A tmp)" ])sh", "! ls -A 't d' | grep -q corvane"}},
    Case{"quiet_noexec_target",
         kRun + "true",
         "sh r.run --quiet --noexec --target q",
         "",
         0,
         {"="},
         {R"sh(strip -o s "$I" && cmp q/cvinst s)sh"}},
    // On a terminal: the progress of a large file, the line alone for a small one, nothing with
    // --quiet; not at all when standard error is no terminal.
    Case{"verifying_line_on_terminal",
         kBig,
         "script -qec 'sh big.run --noexec --target x' /dev/null | tr '\\r' '\\n'; "
         "script -qec 'sh r.run --noexec --target y' /dev/null | tr -d '\\r'; "
         "script -qec 'sh r.run --quiet --noexec --target z' /dev/null | tr -d '\\r'; "
         "sh r.run --noexec --target v 2>&1",
         "",
         0,
         {"^Verifying archive integrity...\nVerifying archive integrity... 1%\n",
          "\nVerifying archive integrity... 100% OK\n",
          "\nVerifying archive integrity... OK\nUnpacked into y; to install, start y/cvinst.\n", "!Verifying",
          "$Unpacked into v; to install, start v/cvinst.\n"},
         {"cmp x/cvpack d-big.run/cvpack", "test -x z/cvinst"}},
    Case{"full_tmpdir_advice",
         kRun + "mnt full size=64k",
         "TMPDIR=$S/full sh r.run -- -d",
         "",
         1,
         {"^[stderr]\nr.run: there is not enough space in $S/full (TMPDIR): ",
          " KB free, the distribution needs ",
          " KB.\nr.run: Choose another directory: TMPDIR=DIR sh r.run\n"
          "r.run: or unpack it elsewhere and install from there: sh r.run --target DIR\n"},
         {R"sh([ -z "$(ls -A full)" ])sh"}},
    // A target on a file system mounted noexec, named as given, with the advice for --target.
    Case{"target_noexec_advice",
         kRun + "mnt nx noexec,size=16m",
         "sh r.run --target nx -- -d",
         "",
         1,
         {"=[stderr]\nr.run: programs cannot be started from $S/nx: its file system is mounted noexec.\n"
          "r.run: Choose another directory: sh r.run --target DIR\n"},
         {R"sh([ -z "$(ls -A nx)" ])sh"}},
    Case{"help_names_each_option",
         kRun + "true",
         "sh r.run --help",
         "",
         0,
         {"--check ", "SHA-256 of the whole file", "--info ", "--list ", "--noexec ", "--target DIR ",
          "with --noexec only unpack", "--keep ", "--quiet ", "--version ", "--help ",
          R"sh("Verifying archive integrity...")sh", "sha256sum -c r.run.sha256"}},
    Case{"option_conflicts",
         kRun + "true",
         "sh r.run --check --target x; echo $?; sh r.run --noexec -- -d; echo $?; sh r.run --keep --target "
         "x; echo $?",
         "",
         0,
         {"^2\n2\n2\n[stderr]\nr.run: --check goes with no --target, --noexec or --keep.\n",
          "r.run: --noexec starts no installer: nothing may follow --.\n",
          "r.run: --keep goes not with --target, whose directory stays.\n"},
         {"! test -e x"}});
