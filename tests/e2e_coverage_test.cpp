// End-to-end: the message compiler's commands and failures, and the backup of an earlier
// installation's files where the backup directory exists already or a file leads out of it.
#include "tests/harness.h"

namespace {

// The message compiler beside cvmkdist in the build's bin/.
const std::string kCvbc = R"sh(C=$(dirname "$MK")/cvbc; )sh";
const std::string kSource = R"sh(printf '0\tGeneric\n-2\tNo %%s1 here\\n\n' >m.msg && )sh";
const std::string kBackupQ =
    "Some old global configuration files have been found.\nDo you want a backup of these files [Y]? ";
const std::string kExists = "Backup directory already exists.\nReplace files [Y]?";

E2E_CASES(Coverage,
          // Compiled and dumped back in source form.
          Case{"cvbc_round_trip",
               "",
               kCvbc + kSource + R"sh("$C" compile m.msg m.cvb && "$C" dump m.cvb)sh",
               "",
               0,
               {"=0\tGeneric\n-2\tNo %s1 here\\n\n"}},
          Case{"cvbc_bad_source",
               "",
               kCvbc + R"sh(printf 'x\n' >m.msg; "$C" compile m.msg m.cvb)sh",
               "",
               1,
               {"^[stderr]\ncvbc: m.msg: line 1:"},
               {"! test -e m.cvb"}},
          Case{"cvbc_usage",
               "",
               kCvbc + R"sh("$C" dump)sh",
               "",
               2,
               {"^[stderr]\nusage: cvbc compile <source.msg> <out.cvb>\n"}},
          Case{"cvbc_cannot_read",
               "",
               kCvbc + R"sh("$C" compile none.msg m.cvb; "$C" dump none.cvb)sh",
               "",
               1,
               {"=[stderr]\ncvbc: cannot read none.msg: No such file or directory\n"
                "cvbc: cannot read none.cvb: No such file or directory\n"}},
          Case{"cvbc_cannot_write",
               "",
               kCvbc + kSource + R"sh("$C" compile m.msg no/m.cvb)sh",
               "",
               1,
               {"=[stderr]\ncvbc: cannot write no/m.cvb: No such file or directory\n"}},
          Case{"cvbc_not_a_message_file",
               "",
               kCvbc + R"sh(echo junk >j.cvb; "$C" dump j.cvb)sh",
               "",
               1,
               {"^[stderr]\ncvbc: j.cvb: "}},
          Case{"cvbc_dump_output_closed",
               "",
               kCvbc + kSource + R"sh("$C" compile m.msg m.cvb && "$C" dump m.cvb >&-)sh",
               "",
               1,
               {"=[stderr]\ncvbc: cannot write the dump\n"}},
          // The default backup directory is there: not replaced, so the question comes again and another
          // directory is made.
          Case{"backup_directory_exists",
               "mkdir -p inst/old",
               R"sh(inst dist inst)sh",
               kOpen + "y\n\nn\n$S/bk4\n",
               0,
               {kBackupQ, kExists, "Directory for old configuration files [$S/inst/old]: "},
               {R"sh([ "$(cat bk4/corv.ini)" = 'old settings' ])sh", R"sh(! test -e inst/old/corv.ini)sh"},
               {{"$S/inst/bin/corv.ini", "old settings\n"}}},
          // A file of the earlier installation that is a link out of it is not copied.
          Case{"backup_link_out_refused",
               R"sh(mkdir -p inst/bin && echo secret >outside && ln -s "$S/outside" inst/corv.stu)sh",
               R"sh(inst dist inst)sh",
               kOpen + "y\n$S/bk5\n",
               0,
               {kBackupQ},
               {R"sh([ "$(cat bk5/corv.ini)" = 'old settings' ])sh", R"sh(! test -e bk5/corv.stu)sh"},
               {{"$S/inst/bin/corv.ini", "old settings\n"}}});

}  // namespace
