// End-to-end: hand-made hostile packages, a row per attack, each installed as root. A package is
// the demo payload with its file list, changed by one shell line and packed with the real tar and
// gzip. Outside the installation lies a canary directory owned by uid 65534; every row checks that
// it is unchanged (no new file, no changed byte, mode, owner or time) and that no device node or
// FIFO is left in the installation. Then two runs into one directory, and the disk-space probe
// that a killed run leaves behind.
#include <cerrno>

#include "tests/harness.h"

namespace {

// hp NAME LINE: the package NAME, its tree changed by LINE after the list was made. pic: the
// canary directory as it stands.
const std::string kFns =
    "hp() { tree t && \"$MK\" --payload t --list-only >l && mv l t/distribfilelist && (cd t && eval \"$2\") "
    "&& tard \"$1\" t; }\n"
    "pic() { find out -printf '%p %u %g %m %s %T@ %C@\\n' | sort; md5sum out/canary; }\n";
const std::string kCanary =
    "mkdir out && echo canary >out/canary && chown -R 65534:65534 out && pic >out.pic && ";
const std::string kUnchanged = kFns + "[ \"$(pic)\" = \"$(cat out.pic)\" ]";
const std::string kNoNodes = "[ -z \"$(find i -type b -o -type c -o -type p)\" ]";
const std::string kSkipNodes = " || { echo 'skip: device nodes cannot be made here'; exit 77; }";

Case hostile(Str name, Str change, Str command, int status, Lines out, Lines checks = {kNoNodes}) {
    checks.push_back(kUnchanged);
    return Case{name, kFns + kCanary + "hp h " + shq(change), command, kOpen, status, std::move(out), checks};
}
std::string leadsOut(Str path) {
    return msg("$S/i/" + path + " is a symbolic link that leads out of $S/i/.");
}
const std::string kBroken = msg("Error detected in distribution.");
const std::string kRefusedLine = "Corvane Install: Another installation into $S/i/ is still running.";
const std::string kRefused = kRefusedLine + "\n";
// A tar that waits two seconds before it unpacks, and one that never does.
const std::string kSlowTar =
    "tree t && mkdir slow hang && printf '#!/bin/sh\\nsleep 2\\nexec %s \"$@\"\\n' $(command -v tar) "
    ">slow/tar "
    "&& echo 'exec sleep 30' >hang/tar && chmod +x slow/tar hang/tar";
const std::string kComplete =
    "intact t i && test -L i/bin/cvt && grep -q CORVPATH i/bin/corv.ini && echo complete";

}  // namespace

E2E_CASES(
    Hostile,
    hostile("alias_link_out", "ln -s \"$S/out/canary\" alias.crv", "inst h i", 0,
            {leadsOut("alias.crv"), msg("Cannot update $S/i/alias.crv."), kDone}),
    hostile("project_link_to_missing_file", "ln -s \"$S/out/new.crv\" uproject.crv", "inst h i", 0,
            {leadsOut("uproject.crv"), kDone}),
    hostile("rescue_link_out", "ln -s \"$S/out/canary\" rescue.stu", "inst h i", 0,
            {leadsOut("rescue.stu"), kDone}),
    // Unchecked ("-s"), so that the files listed in bin do not stop it first; chown -R runs on.
    hostile("bin_link_out", "rm -r bin && ln -s \"$S/out\" bin", "inst h i -s", 1,
            {"Updating user and group file ownership",
             msg("$S/i/bin/cvt is reached through the symbolic link $S/i/bin, which leads out of $S/i/."),
             "!" + kDone}),
    hostile("listed_through_link", "ln -s / up && echo \"up$S/out/canary 7 0\" >>distribfilelist", "inst h i",
            1,
            {msg("Error detected in $S/i/up$S/out/canary. The name leaves the installation directory."),
             kBroken}),
    // The FIFO is listed too: removed before verification, it is never opened.
    hostile("device_node_and_fifo",
            "{ mknod disk b 7 0" + kSkipNodes + "; } && mkfifo pipe && echo 'pipe 0 7' >>distribfilelist",
            "inst h i", 1, {kBroken, "!Checking distribution files"},
            {kNoNodes,
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
    hostile("fifo_in_a_locked_directory", "mkdir ro && mkfifo ro/pipe && chmod 555 ro",
            "mkdir mine && chown 65534 mine && nobody \"$S/h/cvinst\" -d -post-install -destination-dir "
            "\"$S/mine/i\"",
            1, {msg("Cannot remove $S/mine/i/ro/pipe: the package may not install a FIFO."), kBroken}, {}),
    // Started together, 0.1 s and 0.25 s apart, while the first unpacks: one installs, one is refused
    // at once, and the tree is whole.
    Case{
        "two_runs_one_directory",
        kSlowTar,
        "for r in 0 0.1 0.25; do rm -rf i; (PATH=$S/slow:$PATH inst dist i >a <<<$'\\nyes'; echo $? >a.st) & "
        "sleep $r; PATH=$S/slow:$PATH inst dist i >b <<<$'\\nyes'; echo $? >b.st; wait; "
        "sort a.st b.st | paste -sd' '; grep -hF " +
            shq(kRefusedLine) + " a b; " + kComplete + "; done",
        "",
        0,
        {"0 1\n" + kRefused + "complete\n", "0 1\n" + kRefused + "complete\n",
         "0 1\n" + kRefused + "complete\n"}},
    // A run killed while its tar is still running leaves no lock: the tar does not hold it.
    Case{"lock_goes_with_the_process",
         kSlowTar,
         "mkdir i; PATH=$S/hang:$PATH \"$D/cvinst\" -d -post-install -destination-dir \"$S/i\" <<<$'\\nyes' "
         ">/dev/null & p=$!; for n in $(seq 1000); do grep -q \" FLOCK .*:$(stat -c %i i) \" /proc/locks && "
         "break; sleep 0.01; done; flock -n i true && exit 9; kill -9 $p; wait $p 2>/dev/null; "
         "flock -n i true && echo free && inst dist i >/dev/null <<<$'\\nyes' && " +
             kComplete,
         "",
         0,
         {"=free\ncomplete\n"}},
    // The probe of a slow check killed half way (by the file-size limit, at 32 MB) is root's; uid
    // 65534, whose directory it is, runs the next check, which removes it first.
    Case{"killed_probe_removed",
         "mnt m size=200m && mkdir m/i",
         "(ulimit -f 65536; exec \"$D/cvinst\" -post-install -destination-dir \"$S/m/i\" <<<$'\\nyes') "
         ">/dev/null 2>&1; test -s m/i/SPACECHECK || exit 9; chown 65534 m/i; "
         "nobody \"$D/cvinst\" -post-install -destination-dir \"$S/m/i\"",
         kOpen,
         0,
         {"Checking disk space. Please wait...\n", kDone},
         {"! test -e m/i/SPACECHECK"},
         {},
         EIO},
    // A stale probe stays with "-d"; the next check removes it before it measures, and fails.
    Case{"stale_probe_removed_by_failing_check",
         "mnt m size=50m && mkdir m/i && head -c 32M /dev/zero >m/i/SPACECHECK",
         "cvinst -d -post-install -destination-dir \"$S/m/i\" <<<$'\\nyes' >/dev/null && test -s "
         "m/i/SPACECHECK && "
         "cvinst -post-install -destination-dir \"$S/m/i\"",
         kOpen,
         1,
         {"Corvane Install: Insufficient free disk space. Need 167 MB but $S/m/i/ only has 49."},
         {"! test -e m/i/SPACECHECK"}});
