// End-to-end: faults from outside during a run, a row per fault. Real file systems fill up, real
// processes die or hang, and standard input ends at each question. Every row checks the clear end
// the installer makes of it and that what was installed before is intact.
#include "tests/harness.h"

namespace {

const std::string kNoQuery = msg("Cannot query install directory.");
const std::string kEclipse = "mkdir -p ide/eclipse && echo id=x >ide/eclipse/.eclipseproduct && cp -a \"$B/dist-plugin\" pl";
// An earlier installation whose configuration the backup step finds.
const std::string kOld = "mkdir -p inst/bin && echo old >inst/bin/corv.ini";
const std::string kBackupQ = "Do you want a backup of these files [Y]? ";
}  // namespace

E2E_CASES(Faults,
    // Standard input ends at each question: the step that asked fails, or, for the backup, the
    // installation goes on without one.
    Case{"eof_at_pause", "", "q", "", 1, {kPause, "!license terms"}, {"! test -e i"}},
    Case{"eof_at_x_question", "", "cvinst -d", "\n", 1, {"Continue installation (Y/N)? [N]: ", "!license terms"}},
    Case{"eof_at_agreement", "", "q", "\n", 1, {kAgree, "!" + kAgree, "!" + kDirQ}},
    Case{"eof_at_eclipse_location", kEclipse, "pl/cvinst -d", kOpen, 1,
         {"WebSphere or Eclipse location []: ", msg("Cannot query eclipse directory.")}},
    Case{"eof_at_eclipse_try_again", kEclipse, "pl/cvinst -d", kOpen + "$S/nowhere\n", 1,
         {"does not exist.\nGive the directory", "Try again [Y]? ", "!Corvane Install", "!" + kDirQ}},
    Case{"eof_at_install_directory", "", "q", kOpen, 1, {kDirQ, kNoQuery}},
    Case{"eof_at_creation", "", "q", kOpen + "$S/i\n", 1, {"Directory $S/i/ " + kCreate, kNoQuery}, {"! test -e i"}},
    Case{"eof_at_plugin_root", kEclipse, "pl/cvinst -d -destination-dir \"$S/root\"", kOpen + "$S/ide\n", 1,
         {"\nDirectory $S/root " + kCreate, kNoQuery}, {"! test -e root"}},
    Case{"eof_at_backup", kOld, "inst dist inst", kOpen, 0, {kBackupQ, kDone}, {"! test -e inst/old"}},
    Case{"eof_at_backup_directory", kOld, "inst dist inst", kOpen + "y\n", 0,
         {"Directory for old configuration files [$S/inst/old]: ", kDone}, {"[ $(cat inst/old/corv.ini) = old ]"}},
    Case{"eof_at_replace", kOld + " && mkdir inst/old", "inst dist inst", kOpen + "y\n\n", 0,
         {"Replace files [Y]?", kDone}, {"! test -e inst/old/corv.ini"}},
    Case{"eof_at_overwrite", kEclipse + " && echo mine >ide/eclipse/eclipse-cv", "pl/cvinst -d +post-install",
         kOpen + "$S/ide\n\n\n", 0, {"eclipse-cv already exists. Overwrite [N]? ", kDone},
         {"[ $(cat ide/eclipse/eclipse-cv) = mine ]"}});
