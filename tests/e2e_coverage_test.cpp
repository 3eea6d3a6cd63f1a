// End-to-end: the message compiler's commands and failures, cvmkdist's exit statuses, an installer
// started without PATH, and the backup of an earlier installation's files where the backup
// directory exists already or a file leads out of it.
#include "tests/harness.h"

namespace {

// A run of the message compiler (beside cvmkdist in the build's bin/ as $C) on the source m.msg.
Case cvbc(Str name, Str command, int status, Str out) {
    return {name,
            R"sh(printf '0\tGeneric\n-2\tNo %%s1 here\\n\n' >m.msg)sh",
            R"sh(C=$(dirname "$MK")/cvbc; )sh" + command,
            "",
            status,
            {out}};
}
// A command run in the sandbox with nothing on its input.
Case run(Str name, Str command, int status, const Lines& out) {
    return {name, "", command, "", status, out};
}
// An installation over the earlier one in $S/inst, whose bin/corv.ini is backed up.
Case backup(Str name, Str setup, Str input, const Lines& out, const Lines& checks) {
    return {name, setup, "inst dist inst", kOpen + "y\n" + input,
            0,    out,   checks,           {{"$S/inst/bin/corv.ini", "old settings\n"}}};
}
const std::string kBackupQ =
    "Some old global configuration files have been found.\nDo you want a backup of these files [Y]? ";
const std::string kBackedUp = R"sh([ "$(cat bk/corv.ini)" = 'old settings' ])sh";

E2E_CASES(Coverage,
          // Compiled and dumped back in source form; the failures each say what failed.
          cvbc("cvbc_round_trip", R"sh("$C" compile m.msg m.cvb && "$C" dump m.cvb)sh", 0,
               "=0\tGeneric\n-2\tNo %s1 here\\n\n"),
          cvbc("cvbc_usage", R"sh("$C" dump)sh", 2,
               "^[stderr]\nusage: cvbc compile <source.msg> <out.cvb>\n"),
          cvbc("cvbc_cannot_read", R"sh("$C" dump none.cvb)sh", 1,
               "=[stderr]\ncvbc: cannot read none.cvb: No such file or directory\n"),
          cvbc("cvbc_cannot_write", R"sh("$C" compile m.msg no/m.cvb)sh", 1,
               "=[stderr]\ncvbc: cannot write no/m.cvb: No such file or directory\n"),
          cvbc("cvbc_dump_output_closed", R"sh("$C" compile m.msg m.cvb && "$C" dump m.cvb >&-)sh", 1,
               "=[stderr]\ncvbc: cannot write the dump\n"),
          // cvmkdist's status: 0 for the usage asked for, 1 for an argument it does not know.
          run("mkdist_statuses",
              R"sh("$MK" --help >/dev/null; echo $?; "$MK" --bogus 2>/dev/null; echo $?)sh", 0, {"=0\n1\n"}),
          // Without a PATH variable no tool is found, and the installer says so.
          opened("no_path_variable", "", R"sh(env -u PATH "$D/cvinst" -d -post-install)sh", 1,
                 {kPause, msg("'uname' is not found in your PATH.")}),
          // The default backup directory is there: replaced, or not, and then the question comes again.
          backup("backup_directory_exists", "mkdir -p inst/old", "\nn\n$S/bk\n",
                 {kBackupQ, "Backup directory already exists.\nReplace files [Y]?"},
                 {kBackedUp, "! test -e inst/old/corv.ini"}),
          backup("backup_directory_replaced", "mkdir -p inst/old", "\n\n", {kBackupQ},
                 {R"sh([ "$(cat inst/old/corv.ini)" = 'old settings' ])sh"}),
          // A file of the earlier installation that is a link out of it is not copied.
          backup("backup_link_out_refused",
                 R"sh(mkdir inst && echo x >out && ln -s "$S/out" inst/corv.stu)sh", "$S/bk\n", {kBackupQ},
                 {kBackedUp, "! test -e bk/corv.stu"}));

}  // namespace
