// End-to-end: faults from outside during a run, a row per fault. Real file systems fill up, real
// processes die or hang, and standard input ends at each question. Every row checks the clear end
// the installer makes of it and that what was installed before is intact.
#include <cerrno>

#include "tests/harness.h"

namespace {

const std::string kNoQuery = msg("Cannot query install directory.");
// An earlier installation whose configuration the backup step finds.
const std::string kOld = "mkdir -p inst/bin && echo old >inst/bin/corv.ini";

}  // namespace

E2E_CASES(
    Faults,
    // Standard input ends at each question (at the pause: Console/banner): the step that asked
    // fails, or, for the backup, the installation goes on without one.
    Case{"eof_at_x_question",
         "",
         "cvinst -d",
         "\n",
         1,
         {"Continue installation (Y/N)? [N]: ", "!license terms"}},
    Case{"eof_at_agreement", "", "q", "\n", 1, {kAgree, "!" + kAgree, "!" + kDirQ}},
    Case{"eof_at_install_directory", "", "q", kOpen, 1, {kDirQ, kNoQuery}},
    Case{"eof_at_creation",
         "",
         "q",
         kOpen + "$S/i\n",
         1,
         {"Directory $S/i/ " + kCreate, kNoQuery},
         {"! test -e i"}},
    // The plug-in root to be created, and then the Eclipse location.
    Case{
        "eof_at_plugin_questions",
        kEclipse,
        "pl/cvinst -d -destination-dir \"$S/root\" <<<$'\\nyes\\n$S/ide'; [ $? = 1 ] || exit 9; pl/cvinst -d",
        kOpen,
        1,
        {"\nDirectory $S/root " + kCreate, kNoQuery,
         "WebSphere or Eclipse location []: ", msg("Cannot query eclipse directory.")},
        {"! test -e root"}},
    Case{"eof_at_backup",
         kOld,
         "inst dist inst",
         kOpen,
         0,
         {"Do you want a backup of these files [Y]? ", kDone},
         {"! test -e inst/old"}},
    Case{"eof_at_backup_directory",
         kOld,
         "inst dist inst",
         kOpen + "y\n",
         0,
         {"Directory for old configuration files [$S/inst/old]: ", kDone},
         {"[ $(cat inst/old/corv.ini) = old ]"}},
    // Root's launch script is there: uid 65534 (in $S/mine, with a links directory it may use) is
    // asked to try again, root whether to overwrite it; both installations end well, the script stays.
    Case{
        "eof_at_overwrite",
        kEclipse + " && mkdir -p mine ide/eclipse/links && chown 65534 mine ide/eclipse/links && " +
            "echo mine >ide/eclipse/eclipse-cv",
        "nobody pl/cvinst -d +post-install <<<$'\\nyes\\n$S/ide\\n$S/mine/r\\n\\ny' && "
        "pl/cvinst -d +post-install",
        kOpen + "$S/ide\n\n\n",
        0,
        {msg("Insufficient access to overwrite $S/ide/eclipse/eclipse-cv. Read/Write access is required.\n") +
             "Try again [Y]? ",
         kDone, "eclipse-cv already exists. Overwrite [N]? ", kDone},
        {"[ $(cat ide/eclipse/eclipse-cv) = mine ]"}},
    // The disk fills up. While unpacking, tar gives up and verification names the short file.
    Case{"disk_full_unpacking",
         "tree t && head -c 3000000 /dev/urandom >t/docs/big.bin && mkd d t && mnt m size=2m",
         "inst d m/inst",
         kOpen,
         1,
         {"\ndone\n",
          "Corvane Install: Error detected in $S/m/inst/docs/big.bin. "
          "Mismatched size: expected=3000000 actual=",
          msg("Error detected in distribution."), "!" + kDone}},
    // The backup copies fail with the messages of cp; the installation goes on.
    Case{"disk_full_backup",
         "mkdir -p inst/bin && head -c 1048576 /dev/zero >inst/bin/corv.ini && mnt bk size=512k",
         "inst dist inst -backup-dir \"$S/bk\"",
         kOpen,
         0,
         {kDone, "[stderr]\n", "No space left on device"},
         {"[ $(stat -c %s bk/corv.ini) -lt 1048576 ]", "grep -q CORVPATH inst/bin/corv.ini"}},
    // The copy of the state file fails; the timestamps that follow it are skipped.
    Case{"disk_full_rescue_copy",
         "tree t && head -c 2000000 /dev/zero >t/corv.stu && mkd d t && mnt m size=3m",
         "inst d m/inst",
         kOpen,
         0,
         {msg("Cannot write to $S/m/inst/rescue.stu from $S/m/inst/corv.stu. Please check disk space."),
          kDone},
         {"cmp m/inst/corv.stu t/corv.stu", "[ $(date -r m/inst/macros/main.e +%Y) = 2020 ]"}},
    Case{"full_device_alias_merge",
         "mkdir inst && mknod inst/alias.crv c 1 7 || "
         "{ echo 'skip: device nodes cannot be made here'; exit 77; }",
         "inst dist inst",
         kOpen,
         0,
         {msg("Cannot write file $S/inst/alias.crv. Please check disk space."), kDone},
         {"! test -e 'inst/$alias.crv'"}},
    Case{"disk_full_link_file",
         "mnt ide size=4k && mkdir ide/eclipse && echo >ide/eclipse/.eclipseproduct && "
         "cp -a \"$B/dist-plugin\" pl",
         "pl/cvinst -d",
         kOpen + "$S/ide\n$S/root\n\n",
         1,
         {"\n***\nError creating link file (28)\n***\n", "!" + kDone}},
    // statfs fails, so the probe file of the slow check fills the disk; it is removed again.
    Case{"disk_full_space_probe",
         "mnt m size=8m",
         "cvinst -post-install -destination-dir \"$S/m/inst\"",
         kOpen,
         1,
         {"Checking disk space. Please wait...\n", msg("Not enough disk space."), "!" + kDone,
          "[stderr]\nCorvane Install:: Input/output error\n"},
         {"[ -z \"$(ls -A m/inst)\" ]"},
         {},
         EIO},
    Case{"space_probe_fits",
         "mnt m size=200m",
         "cvinst -post-install -v -destination-dir \"$S/m/inst\"",
         kOpen,
         0,
         {">>> Show disk space check ...\n", kDone, "[stderr]\nCorvane Install:: Input/output error\n"},
         {"! test -e m/inst/SPACECHECK"},
         {},
         EIO},
    // The reader of the unpack pipe ends early: no SIGPIPE, no hang, verification finds nothing.
    Case{"unpack_reader_dies",
         "mkdir fake && printf '#!/bin/sh\\nexec head -c 10 >/dev/null\\n' >fake/tar && chmod +x fake/tar",
         "PATH=$S/fake:$PATH cvinst -d -post-install -destination-dir \"$S/i\"",
         kOpen,
         1,
         {"Unpacking files: ", "\ndone\n", msg("Unable to open distribution file $S/i/distribfilelist"),
          msg("Error detected in distribution.")}},
    // The macro translator is killed on its first run, and translates afterwards: the one-by-one
    // compilation follows, nothing installed changes.
    Case{"translator_killed",
         "tree t && mv t/bin/cvtw t/bin/cvtw.real && printf '%s\\n' '#!/bin/sh' "
         "'[ -e \"$HOME/killed\" ] || { : >\"$HOME/killed\"; kill -KILL $$; }' "
         "'exec \"${0%/*}/cvtw.real\" \"$@\"' >t/bin/cvtw && chmod 755 t/bin/cvtw && mkd d t",
         "inst d inst -v",
         kOpen,
         0,
         {"Compiling macros. Please wait...\n",
          ">>> Compiling macros failed: status=", "Compiling all macros. Please wait...\n", kDone},
         {"intact t inst", "cd inst/macros && ls main.ex keys.ex tags.ex search.ex >/dev/null"}});
