// End-to-end: faults from outside during a run, a row per fault. Real file systems and devices fill
// up, statfs fails, and standard input ends at a question. Every row checks the clear end the
// installer makes of it and that what was installed before is intact.
#include <cerrno>

#include "tests/harness.h"

namespace {

const std::string kNoQuery = msg("Cannot query install directory.");

}  // namespace

E2E_CASES(
    Faults,
    // Standard input ends at the question whether to create the plug-in root, and then at the
    // Eclipse location.
    opened(
        "eof_at_plugin_questions", "mkide && pldist pl",
        R"sh(pl/cvinst -d -destination-dir "$S/root" <<<$'\nyes\n$S/ide'; [ $? = 1 ] || exit 9; pl/cvinst -d)sh",
        1,
        {"\nDirectory $S/root " + kCreate, kNoQuery,
         "WebSphere or Eclipse location []: ", msg("Cannot query eclipse directory.")},
        {"! test -e root"}),
    // Root's launch script is there: uid 65534 (in $S/mine, with a links directory it may use) is
    // asked to try again, root whether to overwrite it; both installations end well, the script stays.
    Case{
        "eof_at_overwrite",
        "mkide && pldist pl && mkdir -p mine ide/eclipse/links && chown 65534 mine ide/eclipse/links && "
        "echo mine >ide/eclipse/eclipse-cv",
        R"sh(nobody pl/cvinst -d +post-install <<<$'\nyes\n$S/ide\n$S/mine/r\n\ny' && pl/cvinst -d +post-install)sh",
        kOpen + "$S/ide\n\n\n",
        0,
        {msg("Insufficient access to overwrite $S/ide/eclipse/eclipse-cv. Read/Write access is required.\n") +
             "Try again [Y]? ",
         kDone, "eclipse-cv already exists. Overwrite [N]? ", kDone},
        {"[ $(cat ide/eclipse/eclipse-cv) = mine ]"}},
    // The backup copies fail with the messages of cp; the installation goes on.
    opened("disk_full_backup",
           "mkdir -p inst/bin && head -c 1048576 /dev/zero >inst/bin/corv.ini && mnt bk size=512k",
           R"sh(inst dist inst -backup-dir "$S/bk")sh", 0, {kDone, "[stderr]\n", "No space left on device"},
           {"[ $(stat -c %s bk/corv.ini) -lt 1048576 ]", "grep -q CORVPATH inst/bin/corv.ini"}),
    // The copy of the state file fails; the timestamps that follow it are skipped.
    opened("disk_full_rescue_copy",
           "tree t && head -c 2000000 /dev/zero >t/corv.stu && mkd d t && mnt m size=3m", "inst d m/inst", 0,
           {msg("Cannot write to $S/m/inst/rescue.stu from $S/m/inst/corv.stu. Please check disk space."),
            kDone},
           {"cmp m/inst/corv.stu t/corv.stu", "[ $(date -r m/inst/macros/main.e +%Y) = 2020 ]"}),
    opened("full_device_alias_merge", "mkdir inst && mknode inst/alias.crv c 1 7", "inst dist inst", 0,
           {msg("Cannot write file $S/inst/alias.crv. Please check disk space."), kDone},
           {"! test -e 'inst/$alias.crv'"}),
    // statfs fails, so the probe file of the slow check fills the disk; it is removed again.
    Case{"disk_full_space_probe",
         "mnt m size=8m",
         R"sh(cvinst -post-install -destination-dir "$S/m/inst")sh",
         kOpen,
         1,
         {"Checking disk space. Please wait...\n", msg("Not enough disk space."), "!" + kDone,
          "[stderr]\nCorvane Install:: Input/output error\n"},
         {R"sh([ -z "$(ls -A m/inst)" ])sh"},
         {},
         EIO});
