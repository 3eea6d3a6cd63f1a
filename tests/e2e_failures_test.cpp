// End-to-end: the failure messages that no other table reaches, each brought about for real and
// checked word for word. tests/failure-messages.md maps every message of the system to its row.
#include <cerrno>

#include "tests/harness.h"

namespace {

// Resource limits: the sanitized installer cannot start under a memory limit, and its checks need
// free descriptors of their own, so these cases run in the plain build only.
const std::string kPlain =
    R"sh(grep -q __asan_init "$D/cvinst" && { echo 'skip: the sanitized installer does not run under this limit'; exit 77; }; )sh";
const std::string kLimited = kPlain + "ulimit -v 1048576; inst d inst";
const std::string kNullOk = "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}allocator_may_return_null=1 ";
const std::string kInst = "inst dist inst";
const std::string kMine = R"sh(nobody "$D/cvinst" -d -post-install -destination-dir "$S/mine/inst")sh";
// The package without one or two of its files, the file (or something else) put into $S/inst instead.
std::string without(Str file, Str instead, Str also = "") {
    std::string removed = shq("t/" + file) + (also.empty() ? "" : " " + shq("t/" + also));
    return "tree t && rm " + removed + " && mkd d t && mkdir -p inst/bin && " + instead;
}
const std::string kSubst = "inst d inst";

}  // namespace

E2E_CASES(
    Failures,
    Case{"space_probe_blocked",
         "mkdir inst && ln -s /nonexistent inst/SPACECHECK",
         R"sh(cvinst -post-install -destination-dir "$S/inst")sh",
         kOpen,
         1,
         {msg("Slow disk space check failed."), "!" + kDone},
         {},
         {},
         EIO},
    Case{"link_file_in_the_way",
         "mkide && pldist pl && mkdir -p ide/eclipse/links/com.corvane.eclipse.plugin.link",
         "pl/cvinst -d",
         kOpen + "$S/ide\n\n\n",
         1,
         {"\n***\nError creating link file (21)\n***\n", "!" + kDone}},
    Case{"launch_script_not_writable",
         "mkide && pldist pl && mkdir -p mine ide/eclipse/links && chown 65534 mine ide/eclipse/links",
         "nobody pl/cvinst -d +post-install",
         kOpen + "$S/ide\n$S/mine/r\n\n",
         0,
         {msg("Error creating $S/ide/eclipse/eclipse-cv.\n"), kDone},
         {"! test -e ide/eclipse/eclipse-cv"}},
    // The copy of the state file (no source, a source that cannot be opened, a destination that
    // cannot be written, opened, or given the source's mode), and then the macro list (not a file
    // that opens, not a file that reads).
    opened("source_missing_list_a_directory", without("corv.stu", "mkdir inst/cmacros.lst", "cmacros.lst"),
           kSubst, 0,
           {msg("Insufficient read access to $S/inst/corv.stu."),
            msg("Cannot macros file list $S/inst/cmacros.lst."), "Compiling all macros", kDone},
           {"! test -e inst/rescue.stu"}),
    Case{"source_and_list_sockets",
         without("corv.stu", "sock inst/corv.stu && sock inst/cmacros.lst", "cmacros.lst"),
         kSubst,
         kOpen + "n\n",
         0,
         {msg("Cannot open copy source file $S/inst/corv.stu."),
          msg("Cannot open macros list file $S/inst/cmacros.lst."), "Compiling all macros", kDone},
         {"! test -e inst/rescue.stu"}},
    opened("copy_destination_is_a_directory", "mkdir -p inst/rescue.stu", kInst, 0,
           {msg("Cannot open copy destination file $S/inst/rescue.stu."), kDone}),
    opened("copy_destination_not_writable",
           "mkdir -p mine/inst && echo x >mine/inst/rescue.stu && chown 65534 mine mine/inst", kMine, 0,
           {msg("Insufficient write access to $S/mine/inst/rescue.stu."), kDone}),
    opened(
        "copy_mode_not_settable",
        "mkdir -p mine/inst && install -m 666 /dev/null mine/inst/rescue.stu && chown 65534 mine mine/inst",
        kMine, 0, {msg("Warning: Cannot set permission bits for $S/mine/inst/rescue.stu."), kDone},
        {R"sh(cmp mine/inst/rescue.stu "$P/corv.stu")sh"}),
    // Started from a directory too long for a path: setup.ini is read there all the same.
    opened(
        "working_directory_too_long",
        R"sh(d=$(printf %0200d 0) && mkdir -p w/$d/$d/$d && printf '[unattended]\nDestinationDir=rel\n' >w/$d/$d/$d/setup.ini)sh",
        "cd w/*/*/* && q", 1, {"!" + kDirQ, msg("Cannot determine the current directory for rel/.")}),
    // The macro list too big for memory.
    opened("macro_list_too_big", without("cmacros.lst", "truncate -s 2147483647 inst/cmacros.lst"), kLimited,
           0,
           {msg("Cannot allocate memory for macros file list $S/inst/cmacros.lst."), "Compiling all macros",
            kDone}),
    // The merge of the user's alias file with the shipped one.
    opened("shipped_alias_missing", without("$alias.crv", "echo bind >inst/alias.crv"), kSubst, 1,
           {msg("Cannot open $S/inst/$alias.crv"), "!Corvane Install", "!" + kDone}),
    opened(
        "shipped_alias_too_big",
        without(
            "$alias.crv",
            R"sh(echo bind >inst/alias.crv && mnt inst/m size=1m && truncate -s 200T inst/m/huge && ln -s m/huge 'inst/$alias.crv')sh"),
        kNullOk + kSubst, 1, {msg("Cannot allocate memory to read file $S/inst/$alias.crv."), "!" + kDone}),
    opened("shipped_alias_is_a_directory",
           without("$alias.crv", "echo bind >inst/alias.crv && mkdir 'inst/$alias.crv'"), kSubst, 1,
           {msg("Cannot read file $S/inst/$alias.crv."), "!" + kDone}),
    Case{"corv_ini_is_a_directory",
         "mkdir -p inst/bin/corv.ini",
         kInst,
         kOpen + "n\n",
         0,
         {msg("Cannot create $S/inst/bin/corv.ini."), kDone},
         {"! test -e inst/rescue.stu"}},
    // Unpacking: no pipe to tar for want of descriptors, a package that cannot be read or opened.
    opened("no_pipe_for_tar", "", kPlain + "ulimit -n 4; " + kInst, 1,
           {msg("popen failed\n") + msg("Cannot unpack distribution."), "!" + kDone}),
    opened("package_not_readable",
           R"sh(cp -a "$D" np && chmod 600 np/cvpack && mkdir mine && chown 65534 mine)sh",
           R"sh(nobody np/cvinst -d -post-install -destination-dir "$S/mine/inst")sh", 1,
           {msg("Missing distribution file $S/np/cvpack."), "!" + kDone}),
    opened("package_is_a_socket", R"sh(cp -a "$D" s && rm s/cvpack && sock s/cvpack)sh",
           R"sh(s/cvinst -d -post-install -destination-dir "$S/inst")sh", 1,
           {"Unpacking files: ", "!Corvane Install", "[stderr]\ngzopen error\n"}),
    // Verification of a file too big for memory.
    opened("listed_file_too_big",
           R"sh(tree t && { "$MK" --payload t --list-only && echo 'huge 2147483000 5'; } >l &&
                mv l t/distribfilelist && tard d t && mkdir inst && truncate -s 2147483000 inst/huge)sh",
           kLimited, 1,
           {msg("Cannot allocation memory to check $S/inst/huge.") +
            msg("Error detected in $S/inst/huge. Mismatched checksum: expected=5 actual=4294967295")}),
    // The message file of a plug-in distribution: missing, not one, and without the text asked for.
    // Its texts are wrapped at 60 columns, the sandbox path behind the dot of "/tmp/cvinst-e2e.".
    Case{"message_file_problems",
         R"sh(for m in missing bad plain; do pldist $m; done && rm missing/cdinst.cvb &&
              echo bad >bad/cdinst.cvb && printf '0\tUnexpected error.\n' >m.msg &&
              "${MK%/*}/cvbc" compile m.msg plain/cdinst.cvb)sh",
         R"sh(for m in missing bad plain; do $m/cvinst -d <<<$'\nyes\n\nn'; done)sh",
         "",
         1,
         {"\n***\nUnable to open message file '/tmp/cvinst-e2e.\n", "/missing/cdinst.cvb' not found\n***\n",
          "\n***\nMessage file '$S/bad/cdinst.cvb' empty\n***\n", "\n***\nUnexpected error.\n***\n"}});
