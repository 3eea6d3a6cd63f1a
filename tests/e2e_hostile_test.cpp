// End-to-end: hand-made hostile packages, a row per attack, each installed as root. A package is
// the demo payload with its file list, changed by one shell line and packed with the real tar and
// gzip. Outside the installation lies a canary directory owned by uid 65534; every row checks that
// it is unchanged (no new file, no changed byte, mode, owner or time) and that no device node or
// FIFO is left in the installation. Then two runs into one directory, and the disk-space probe
// that a killed run leaves behind.
#include <cerrno>

#include "tests/harness.h"

namespace {

// The canary directory (`canary`, `unchanged`), the hostile package `hp h LINE` and the other
// helpers are in tests/lib.sh.
Case hostile(Str name, Str change, Str command, int status, Lines out, Lines checks = {"nodeless i"}) {
    checks.push_back("unchanged");
    return Case{name, "canary && hp h " + shq(change), command, kOpen, status, std::move(out), checks};
}
std::string leadsOut(Str path) {
    return msg("$S/i/" + path + " is a symbolic link that leads out of $S/i/.");
}
const std::string kBroken = msg("Error detected in distribution.");
const std::string kRefusedLine =
    "Corvane Install: Another installation into $S/i/, or a removal of it, is still running.";
const std::string kRefused = kRefusedLine + "\n";

}  // namespace

E2E_CASES(
    Hostile,
    hostile("alias_link_out", R"sh(ln -s "$S/out/canary" alias.crv)sh", "inst h i", 0,
            {leadsOut("alias.crv"), msg("Cannot update $S/i/alias.crv."), kDone}),
    hostile("project_link_to_missing_file", R"sh(ln -s "$S/out/new.crv" uproject.crv)sh", "inst h i", 0,
            {leadsOut("uproject.crv"), kDone}),
    hostile("rescue_link_out", R"sh(ln -s "$S/out/canary" rescue.stu)sh", "inst h i", 0,
            {leadsOut("rescue.stu"), kDone}),
    // Unchecked ("-s"), so that the files listed in bin do not stop it first; chown -R runs on.
    hostile("bin_link_out", R"sh(rm -r bin && ln -s "$S/out" bin)sh", "inst h i -s", 1,
            {"Updating user and group file ownership",
             msg("$S/i/bin/cvt is reached through the symbolic link $S/i/bin, which leads out of $S/i/."),
             "!" + kDone}),
    hostile("listed_through_link", R"sh(ln -s / up && echo "up$S/out/canary 7 0" >>distribfilelist)sh",
            "inst h i", 1,
            {msg("Error detected in $S/i/up$S/out/canary. The name leaves the installation directory."),
             kBroken}),
    // The FIFO is listed too: removed before verification, it is never opened.
    hostile("device_node_and_fifo", "mknode disk b 7 0 && mkfifo pipe && echo 'pipe 0 7' >>distribfilelist",
            "inst h i", 1, {kBroken, "!Checking distribution files"},
            {"nodeless i",
             "grep -qxF 'Corvane Install: Removed $S/i/disk: the package may not install a block device.' $O",
             "grep -qxF 'Corvane Install: Removed $S/i/pipe: the package may not install a FIFO.' $O"}),
    // A FIFO that was there before is not the package's to remove; verification refuses to read it.
    hostile("listed_fifo_does_not_hang", "echo 'pipe 0 7' >>distribfilelist",
            "mkdir i && mkfifo i/pipe && inst h i", 1,
            {msg("Error detected in $S/i/pipe. It is a FIFO or a device, not a regular file."), kBroken},
            {"test -p i/pipe"}),
    // Beyond the descriptors for its walk, root's installer will not say the tree is clean.
    hostile("tree_too_deep_to_check", "mkdir -p $(printf 'd/%.0s' {1..40})", "ulimit -n 40; inst h i", 1,
            {"Corvane Install: Cannot look for device nodes, FIFOs and sockets in $S/i/d/d/", kBroken}),
    // Another user's installer meets a FIFO it may not remove.
    hostile(
        "fifo_in_a_locked_directory", "mkdir ro && mkfifo ro/pipe && chmod 555 ro",
        R"sh(mkdir mine && chown 65534 mine && nobody "$S/h/cvinst" -d -post-install -destination-dir "$S/mine/i")sh",
        1, {msg("Cannot remove $S/mine/i/ro/pipe: the package may not install a FIFO."), kBroken}, {}),
    // Started together, 0.1 s and 0.25 s apart, while the first unpacks: one installs, one is refused
    // at once, and the tree is whole.
    Case{"two_runs_one_directory",
         "slowtar",
         R"sh(for r in 0 0.1 0.25; do
               rm -rf i; (PATH=$S/slow:$PATH inst dist i >a <<<$'\nyes'; echo $? >a.st) &
               sleep $r; PATH=$S/slow:$PATH inst dist i >b <<<$'\nyes'; echo $? >b.st; wait
               sort a.st b.st | paste -sd' '; grep -hF )sh" +
             shq(kRefusedLine) + " a b; whole; done",
         "",
         0,
         {"0 1\n" + kRefused + "complete\n", "0 1\n" + kRefused + "complete\n",
          "0 1\n" + kRefused + "complete\n"}},
    // A run killed while its tar is still running leaves no lock: the tar does not hold it.
    Case{
        "lock_goes_with_the_process",
        "slowtar",
        R"sh(mkdir i; PATH=$S/hang:$PATH "$D/cvinst" -d -post-install -destination-dir "$S/i" <<<$'\nyes' >/dev/null &
              p=$!; for n in $(seq 1000); do grep -q " FLOCK .*:$(stat -c %i i) " /proc/locks && break; sleep 0.01; done
              flock -n i true && exit 9; kill -9 $p; wait $p 2>/dev/null
              flock -n i true && echo free && inst dist i >/dev/null <<<$'\nyes' && whole)sh",
        "",
        0,
        {"=free\ncomplete\n"}},
    // The probe of a slow check killed half way (by the file-size limit, at 32 MB) is root's; uid
    // 65534, whose directory it is, runs the next check, which removes it first.
    Case{
        "killed_probe_removed",
        "mnt m size=200m && mkdir m/i",
        R"sh((ulimit -f 65536; exec "$D/cvinst" -post-install -destination-dir "$S/m/i" <<<$'\nyes') >/dev/null 2>&1
              test -s m/i/SPACECHECK || exit 9
              chown 65534 m/i
              nobody "$D/cvinst" -post-install -destination-dir "$S/m/i")sh",
        kOpen,
        0,
        {"Checking disk space. Please wait...\n", kDone},
        {"! test -e m/i/SPACECHECK"},
        {},
        EIO},
    // A stale probe stays with "-d"; the next check removes it before it measures, and fails.
    Case{
        "stale_probe_removed_by_failing_check",
        "mnt m size=50m && mkdir m/i && head -c 32M /dev/zero >m/i/SPACECHECK",
        R"sh(cvinst -d -post-install -destination-dir "$S/m/i" <<<$'\nyes' >/dev/null && test -s m/i/SPACECHECK &&
              cvinst -post-install -destination-dir "$S/m/i")sh",
        kOpen,
        1,
        {"Corvane Install: Insufficient free disk space. Need 167 MB but $S/m/i/ only has 4"},
        {"! test -e m/i/SPACECHECK"}});
