// End-to-end: whole installations. The installation directory, the environment checks, unpacking
// and verification, what the later steps write, and plug-in installations into a stand-in Eclipse.
#include "tests/harness.h"

namespace {

const std::string kPrompt = "Install directory [/opt/corvane/]: ";
std::string createNo(Str d, Str up) {
    return msg("Insufficient access to create " + d +
               ". Read/Write access is "
               "required for " +
               up + ".");
}
// Answers to the installation-directory step, as the user or as uid 65534 (kNobody).
Case dir(Str name, Str run, Str input, int status, Lines out, Lines checks = {}) {
    return {name,
            "mkdir -p work/a there locked mine inst-bin/bin && echo x >plain && chown 65534 mine inst-bin",
            run + " -d -post-install",
            kOpen + input,
            status,
            out,
            checks};
}
const std::string kNobody = "nobody \"$D/cvinst\"", kOdd = "odd dir \"q\" 'x' $HOME `id`; touch pwned";

// The required tools from a directory of links; the run ends at the agreement.
Case tools(Str name, Str setup, Str path, Lines out, Str missing = "") {
    out.insert(out.begin(), missing.empty() ? "!is not found" : "!   more ... ");
    if (!missing.empty())
        out.insert(out.end(), {msg("'" + missing + "' is not found in your PATH.") +
                                   msg("Please add it to your path "
                                       "and restart the installation."),
                               "!is not found", "!license terms"});
    return {name, setup, path + " cvinst -post-install -d -v", "\n", 1, out};
}
std::string found(Str tool, Str dir) {
    return ">>>    " + tool + " ... >>> Found at $S/" + dir + "/\n";
}
const std::string kXWarning =
    "\n\nCorvane Install: X server is not accessible.\n\nPlease make sure that your DISPLAY environment "
    "variable\n"
    "is set to the correct display and that connection to\nthe X server is enabled (ie. use 'xhost +').\n\n"
    "You can still continue with the installation but your C/C++\nand Java source files will not be "
    "automatically "
    "tagged. You\ncan always manually tag these files later.\n\nContinue installation (Y/N)? [N]: ";

// A package whose list gets one more line (printed by `line`, bash), installed into $S/i.
Case list(Str name, Str line, Str message, Str more = "") {
    return {
        name,
        "tree t && { \"$MK\" --payload t --list-only && " + line +
            "; } >l && mv l t/distribfilelist && "
            "tard d t" +
            more,
        "inst d i",
        kOpen,
        message.empty() ? 0 : 1,
        {"!Cannot get stat information", message,
         message.empty() ? "" : msg("Error detected in distribution."), message.empty() ? "" : "!" + kDone},
        {"[ $(ls i | grep -c '^distribfilelist\\.[0-9]\\{14\\}$') = 1 ] && ! test -e i/distribfilelist"}};
}
std::string lineOf(Str text) {
    return "printf %s " + shq(text);
}
const std::string kBroken = "cp -a \"$D\" bad && p=\"$D/cvpack\" && ";

// An earlier installation in $S/inst: its files are backed up, its alias file merged.
const std::string kBackupQ =
    "Some old global configuration files have been found.\nDo you want a backup of these "
    "files [Y]? ";
const std::string kDirForOld = "Directory for old configuration files [$S/inst/old]: ";
const std::string kReplaceQ = "Backup directory already exists.\nReplace files [Y]?";
Case backup(Str name, Str input, Str args, Str to, Str alias, bool appended) {
    return {
        name,
        "mkdir -p inst/existing",
        "inst dist inst " + args,
        kOpen + input,
        0,
        {args.empty() ? kBackupQ + kDirForOld : "!" + kBackupQ,
         (input.find("existing") == std::string::npos ? "!" : "") + kReplaceQ + kDirForOld},
        {"[ \"$(cat " + to + "/corv.ini)\" = 'old settings' ] && [ \"$(cat " + to +
             "/unixc.api)\" = 'old api' ]",
         "[ $(ls -A " + to +
             " | wc -l) = 2 ] && ! grep -q old inst/bin/corv.ini && ! test -e 'inst/$alias.crv'",
         "[ \"$(cat inst/uproject.crv)\" = \"the user's project\" ]",
         "cmp inst/alias.crv <(printf %s " + shq(alias) + (appended ? "; cat \"$P/\\$alias.crv\")" : ")")},
        {{"$S/inst/bin/corv.ini", "old settings\n"},
         {"$S/inst/unixc.api", "old api\n"},
         {"$S/inst/uproject.crv", "the user's project\n"},
         {"$S/inst/alias.crv", alias}}};
}

// Macro compilation with the demo translator, which logs every run in bin/cvtw.log. The blank in
// the installation directory shows that the commands quote their paths.
Case macros(Str name, Str change, Lines out, const Lines& compiled, Str notCompiled, Str log, bool single) {
    Lines checks = {"grep -qF \"" + log + "\" 'm m/bin/cvtw.log'",
                    "cd 'm m/macros' && ! ls " + notCompiled + " 2>/dev/null"};
    for (Str m : compiled) {
        checks.push_back("cd 'm m/macros' && ! test " + m + "x -ot " + m);
        checks.push_back((single ? "" : "! ") + std::string("grep -qxF \"[$S/m m/bin/cvtw][$S/m m/macros/") +
                         m + "]\" 'm m/bin/cvtw.log'");
    }
    if (!single) out.insert(out.begin(), "!Compiling all macros");
    return {name, "tree t && " + change + " && mkd d t", "inst d 'm m' -v", kOpen, 0, out, checks};
}
const std::string kAll = "Compiling all macros. Please wait...\n",
                  kCompiling = "Compiling macros. Please wait...\n";

// Plug-in installations into the stand-in Eclipse of $S/ide/eclipse.
const std::string kIde = "mkdir -p ide/eclipse && echo id=x >ide/eclipse/.eclipseproduct && ";
const std::string kCore = "$S/ide/corvplugin/eclipse/plugins/com.corvane.core_10.0.0";
std::string box(Str text) {
    return "\n***\n" + text + "\n***\n";
}
const std::string kPlugName = "my \"plug\" $HOME 'in'", kPlugOdd = "\"$S\"/" + shq(kPlugName);
// The plug-in distribution is copied into the sandbox, where uid 65534 can read it.
const std::string kLocked =
    "mkdir -p mine locked/eclipse && chown 65534 mine && echo >locked/eclipse/.eclipseproduct && "
    "cp -a \"$B/dist-plugin\" pl";
// The message file's texts are word-wrapped at 60 columns, a path behind one of its dots: the
// sandbox "/tmp/cvinst-e2e.XXXXXX" breaks behind "cvinst-e2e.".
const std::string kGive = "Give the directory that holds the Eclipse or WebSphere\nStudio installation.";

}  // namespace

E2E_CASES(
    InstallDir,
    Case{"default_is_opt_corvane",
         "",
         "nobody \"$D/cvinst\" -d -post-install",
         kOpen + "\n\n",
         1,
         {kPrompt},
         {"if test -e /opt/corvane; then grep -qF " + shq(noAccess("/opt/corvane/")) + " $O; else grep -qF " +
          shq(createNo("/opt/corvane/", "/opt")) + " $O && ! test -e /opt/corvane; fi"}},
    dir("interactive", "cvinst", "$S/inst\n\n", 0,
        {kAgree, kPrompt,
         "\nDirectory $S/inst/ does not exist. Create "
         "[Y]? ",
         "Skipping disk space check.", "\ndone\n", kDone, "1. Type \"$S/inst/bin/cv\" to run Corvane.\n"},
        {"test -L inst/bin/cvt"}),
    // A file in the way and a refused creation ask again; a relative answer is taken from the
    // working directory, and shell characters in it are only characters.
    dir("asked_again", "cvinst", "$S/plain\n$S/first\nmaybe\nn\n" + kOdd + "\nyes\n", 0,
        {msg("$S/plain is not a directory."), kPrompt,
         "Directory $S/first/ " + kCreate + "Please enter 'Y' or 'N'.\n", kCreate, kPrompt,
         "Directory $S/" + kOdd + "/ " + kCreate},
        {"[ $(cat plain) = x ] && ! test -e first && test -d " + shq(kOdd),
         "! test -e pwned && ! test -e \"$D/pwned\""}),
    dir("parent_missing", "cvinst", "$S/a/b/c/\ny\n", 1, {"!" + kCreate, createNo("$S/a/b/c/", "$S/a/b")},
        {"! test -e a"}),
    dir("parent_is_a_file", "cvinst", "$S/plain/sub\ny\n", 1, {createNo("$S/plain/sub/", "$S/plain")}),
    // Too long answers and presets: nothing at all is made.
    dir("too_long_answer", "cvinst", "$S/" + std::string(680, '0') + "\ny\ny\n", 1, {" is too long.\n"},
        {"[ \"$(ls -A | xargs)\" = 'dist inst-bin locked mine plain there work' ]"}),
    dir("too_long_relative", "cd work && cvinst", std::string(505, 'r') + "\ny\n", 1,
        {msg("Install directory $S/work/" + std::string(505, 'r') + "/ is too long.")},
        {"[ \"$(ls -A work)\" = a ]"}),
    // 511 characters with the "/".
    dir("preset_fills_the_buffer", "cvinst -destination-dir $S/" + std::string(488, 'f'), "", 1,
        {" is too long.\n"}, {"! ls -d ff* 2>/dev/null"}),
    dir("locked", kNobody, "$S/locked\n", 1, {noAccess("$S/locked/")}),
    dir("locked_parent", kNobody, "$S/locked/new\ny\n", 1, {createNo("$S/locked/new/", "$S/locked")},
        {"! test -e locked/new"}),
    dir("locked_bin", kNobody, "$S/inst-bin\n", 1, {noAccess("$S/inst-bin/bin/")}),
    Case{"creation_fails",
         "mnt full size=1m,nr_inodes=1,mode=0755",
         "q",
         answers("$S/full/inst"),
         1,
         {msg("Cannot create directory $S/full/inst."), noAccess("$S/full/inst/")}},
    Case{"plugin_root",
         kIde + "mkdir first blocked && echo x >blocked/eclipse && cp -a \"$B/dist-plugin\" pl",
         "pl/cvinst -d -post-install",
         kOpen + "$S/ide\n$S/first\nn\n$S/blocked\ny\n$S/good\n\n",
         0,
         {"$S/first already exists. Continue [Y]? ", kDirQ, "$S/blocked already exists. Continue [Y]? ",
          msg("Cannot create directory $S/blocked/eclipse/plugins."), kDirQ, "\nDirectory $S/good " + kCreate,
          "!" + kDirQ},
         {"! test -e first/eclipse && test -d good/eclipse/plugins/com.corvane.core_10.0.0"}});

E2E_CASES(Checks,
          tools("tool_missing", "tools t ${T/ chown/}", "PATH=$S/t",
                {found("chgrp", "t"), ">>>    chown ... >>> Missing\n"}, "chown"),
          tools("zcat_instead_of_uncompress", "tools t ${T/ uncompress/} zcat", "PATH=$S/t",
                {">>>    uncompress ... >>> Missing >>> trying zcat ... >>> Found at $S/t/\n",
                 found("more", "t"), kAgree}),
          tools("tool_is_a_directory", "tools t ${T/ touch/} && mkdir t/touch", "PATH=$S/t", {}, "touch"),
          tools("path_unset", "", "unset PATH;",
                {">>> Checking tools: PATH=<EMPTY>\n", ">>>    uname ... >>> Missing\n"}, "uname"),
          Case{"x_server_reachable",
               "",
               "xvfb; cvinst -v -d",
               kOpen,
               1,
               {"!X server is not accessible", "!Continue installation", ">>> Checking X server:\n", kAgree,
                msg("Cannot query install directory.")}},
          Case{"x_server_refused", "", "cvinst -d", "\n\nyes\n", 1, {kPause, kXWarning, "!license terms"}},
          Case{"x_server_no_one_on_display",
               "",
               "n=900; while [ -e /tmp/.X11-unix/X$n ]; do n=$((n+1)); done; "
               "export DISPLAY=:$n; cvinst -d",
               "\ny\nyes\n",
               1,
               {kPause, kXWarning + "\n", kAgree, kPrompt}},
          Case{"post_install_without_x",
               "",
               "cvinst -d +post-install -destination-dir \"$S/nox\"",
               "\ny\nyes\n",
               0,
               {"\ndone\n",
                msg("") + msg("Cannot start post-installation because X server is not accessible.") +
                    msg("You will need to manually tag your C/C++ headers and Java source") +
                    msg("files to fully use our new Tagwise feature set."),
                kDone},
               {"! test -e nox/tagfiles && ! test -e cv-started.log"}},
          // The editor runs in the background; its log is waited for before the run ends.
          Case{"post_install_starts_the_editor",
               "",
               "xvfb; echo $DISPLAY >display; cvinst -d +post-install -v "
               "-destination-dir \"$S/x\"; s=$?; for i in $(seq 200); do [ -s cv-started.log ] && break; "
               "sleep 0.05; done; "
               "exit $s",
               kOpen,
               0,
               {"Starting Corvane with post-installation.\nPlease wait for Corvane to come up...\n",
                ">>> Post install: command=\"$S/x/bin/cv\" +new &\n", kDone},
               {"[ $(stat -c %a x/tagfiles) = 755 ] && [ \"$(cat cv-started.log)\" = \"$S/x/bin/cv +new "
                "DISPLAY=$(cat display)\" ]"}},
          Case{"disk_space_short",
               "mnt small size=100m,mode=0755",
               "cvinst -post-install",
               answers("$S/small/inst"),
               1,
               {"\nChecking disk space. Please wait...\n",
                msg("Insufficient free disk space. Need 167 MB but $S/small/inst/ only has 100.00 MB.")}},
          Case{"disk_space_just_enough",
               "mnt m size=167m,mode=0755 && [ $(($(stat -f -c '%s * %a' m))) = $((167 << 20)) ] "
               "&& stat -f -c 'blkavail=%a blocks of size blksize=%s, inodeavail=' m >m.stat",
               "cvinst -post-install -v",
               answers("$S/m/inst"),
               0,
               {"Checking disk space. Please wait...\n", ">>> checkDiskSpace ",
                ">>> checkDiskSpace availM=167.00 MB needM=167.00 MB\n", "!Insufficient free disk space"},
               {"grep -qF \">>> checkDiskSpace $(cat m.stat)\" $O"}});

E2E_CASES(
    Unpack,
    Case{"clean_install",
         "tree t && mkd d t && mkdir -p inst/bin && echo old >inst/bin/cvt && echo mine "
         ">inst/notes.txt && chown 65534 inst/notes.txt && date +%Y%m%d%H%M%S >before",
         "inst d inst -v",
         kOpen,
         0,
         {">>> Unpacking: gDistribDir=$S/d/ distribName=$S/d/cvpack\n",
          ">>> Unpack command: tar xf -  >/dev/null 2>/dev/null\n", "\nUnpacking files: \ndone\n",
          "Checking distribution files. Please wait...\n", "   100%", std::string(72, ' ') + "\r",
          "Updating user and group file ownership. Please wait...\n",
          ">>> Updating macros user ownership: command=chown -R 0 \"$S/inst/\"\n",
          ">>> Updating macros group ownership: command=chgrp -R 0 \"$S/inst/\"\n",
          ">>> Linking bin/cvt to cvtw\n", "!Cleaning up"},
         // The list is kept under the time of the check; macros, state and resources are touched.
         {"f=$(cd inst && ls distribfilelist.*) && [[ ${f#*.} =~ ^[0-9]{14}$ && ! ${f#*.} < $(cat before) ]] "
          "&& "
          "[[ ! ${f#*.} > $(date +%Y%m%d%H%M%S) ]] && cmp inst/$f <(\"$MK\" --payload \"$P\" --list-only)",
          "cmp 'inst/docs/release notes.txt' \"$P/docs/release notes.txt\" && [ $(stat -c %a inst/bin/cvtw) "
          "= 755 ]",
          "[ \"$(readlink inst/bin/cvt)\" = cvtw ] && [ $(stat -c %u inst/notes.txt) = 0 ]",
          "cd inst && for f in macros/main.e macros/tags.e corv.stu corvdefs.cvb bin/corvkeys.cvb; do "
          "! test $f -ot ../before || exit 1; done",
          "cd inst && for f in license.txt bitmaps/open.bmp 'docs/release notes.txt' bin/cv cmacros.lst; do "
          "test \"$f\" -ot ../before || exit 1; done"}},
    list("size", lineOf("docs/release notes.txt 5 0\n"),
         msg("Error detected in $S/i/docs/release notes.txt. Mismatched size: expected=5 actual=170")),
    list("checksum", lineOf("license.txt 862 1\n"),
         "Corvane Install: Error detected in $S/i/license.txt. Mismatched checksum: expected=1 actual="),
    list("checksum_saturates", lineOf("license.txt 862 4294967295\n"),
         "Mismatched checksum: expected=2147483647 "),
    list("missing", lineOf("missing.txt 10 0\n"), noAccess("$S/i/missing.txt")),
    list("leaves_the_directory", lineOf("../dist/cvinst 10 0\n"),
         msg("Error detected in $S/i/../dist/cvinst. The name leaves the installation directory.")),
    list("absolute_name", lineOf("/etc/passwd 10 0\n"), noAccess("$S/i//etc/passwd")),
    // Lines are read in pieces of 511 characters: the last piece is taken as a record of its own.
    list("long_line_in_pieces", lineOf(std::string(600, 'n') + " 1 1\n"),
         "Insufficient access to $S/i/" + std::string(89, 'n') + ". Read/Write"),
    list("name_too_long", lineOf(std::string(490, 'n') + " 1 1\n"),
         msg("Error detected in $S/i/" + std::string(490, 'n') + ". The name is too long.")),
    list("socket", lineOf("sock 0 7\n"),
         msg("Cannot open file $S/i/sock") + msg("Error detected in $S/i/sock. "
                                                 "Mismatched checksum: expected=7 actual=4294967295"),
         " && mkdir i && sock i/sock"),
    list("directory", "printf 'bin %s 1\\n' $(stat -c %s t/bin)",
         "Corvane Install: Cannot read $S/i/bin. Expected "),
    // Where a broken package stops delivering depends on its bytes; verification names the first
    // file (or the file list) that did not arrive whole.
    Case{"truncated_package",
         kBroken + "head -c $(($(stat -c %s $p) / 2)) $p >bad/cvpack",
         "inst bad i",
         kOpen,
         1,
         {"Unpacking files: ", "\ndone\n", "Corvane Install: ", "$S/i/",
          msg("Error detected in distribution."), "!" + kDone}},
    // Checked, and then unchecked ("-s") into another directory.
    Case{"not_a_package",
         kBroken + "echo no >bad/cvpack",
         "inst bad i <<<$'\\nyes'; inst bad j -s <<<$'\\nyes'",
         "",
         1,
         {"\ndone\n", msg("Unable to open distribution file $S/i/distribfilelist"),
          msg("Error detected in distribution."), "!Checking distribution files",
          "\ndone\nSkipping distribution check.\n", msg("Cannot create symbolic link bin/cvt to cvtw.")}},
    // More than 5 MB unpacked, with members outside the directory, absolute, and behind a link.
    Case{
        "dots_and_members",
        "tree big && head -c 5242880 /dev/urandom >big/docs/big.bin && mkd bd big && mkdir -p "
        "outside abs extra && for f in escaped.txt abs/abs.txt extra/x; do echo packed >$f; done && gzip -dc "
        "bd/cvpack >evil.tar && (cd abs && tar -rPf ../evil.tar ../escaped.txt \"$S/abs/abs.txt\") && ln -s "
        "\"$S/outside\" link && tar -rf evil.tar link && tar -rf evil.tar --transform 's,^extra,link,' "
        "extra/x && "
        "gzip -c evil.tar >bd/cvpack && rm escaped.txt && echo original >abs/abs.txt && "
        "[ $((($(stat -c %s evil.tar) + 10239) / 10240 / 98)) = 5 ]",
        "inst bd inst -s",
        kOpen,
        0,
        {"!Checking distribution files", "\nUnpacking files: .....\ndone\nSkipping distribution check.\n"},
        {"test -f inst/distribfilelist && cmp inst/docs/big.bin big/docs/big.bin && ! test -e escaped.txt",
         "[ -z \"$(ls outside)\" ] && [ $(cat abs/abs.txt) = original ]",
         "[ $(cat \"inst/$S/abs/abs.txt\") = packed ]", "! test -e inst/link/x"}},
    Case{
        "unprivileged_with_cleanup",
        "mkdir mine && cp -a \"$D\" " + shq("mine/" + kOdd) + " && chown -R 65534 mine",
        "cd " + shq("mine/" + kOdd) + " && nobody \"$S\"/" + shq("mine/" + kOdd) +
            "/cvinst -d -post-install -cleanup "
            "-destination-dir \"$S\"/" +
            shq("mine/inst " + kOdd),
        kOpen,
        0,
        {"!Updating user and group file ownership", "\ndone\n", "Cleaning up distribution files...\n", kDone},
        {"cd " + shq("mine/inst " + kOdd) + " && [ $(stat -c %u bin/cv) = 65534 ] && test -L bin/cvt",
         "! test -e " + shq("mine/" + kOdd) + " && ! ls -d pwned mine/pwned /tmp/pwned " +
             shq("mine/inst " + kOdd) + "/pwned 2>/dev/null"}},
    Case{"failed_run_cleans_up",
         "cp -a \"$D\" second",
         "cd second && ./cvinst -cleanup -post-install",
         "\n",
         1,
         {kAgree, "Cleaning up distribution files...\n", "!" + kDone},
         {"! test -e second"}});

E2E_CASES(
    Config,
    Case{
        "unattended",
        "",
        "cd \"$D\" && ./cvinst -d -v",
        kOpen,
        0,
        {"!" + kBackupQ, "!Starting Corvane", ">>> Looking for files to be backed up:\n", "\ndone\n",
         "Updating misc files. Please wait...\n", ">>> Updating alias.crv:\n",
         ">>> Creating uproject.crv: file=$S/inst/uproject.crv\n",
         ">>> Creating corv.ini: file=$S/inst/bin/corv.ini\n",
         ">>> Copying $S/inst/corv.stu to $S/inst/rescue.stu\n", "   Timestamping ",
         ">>> Checking macro list: macroListFile=$S/inst/cmacros.lst\n", kCompiling,
         "$\n" + kStars + "\n*           " + kDone + "              \n" + kStars +
             "\n\nNOTES:\n1. Type "
             "\"$S/inst/bin/cv\" to run Corvane.\n2. You may want to add \"$S/inst/bin/\" to your users' "
             "PATH.\n"},
        {"cmp inst/bin/corv.ini corv.ini && [ $(stat -c %a inst/bin/corv.ini) = 644 ]",
         "[ ! -s inst/uproject.crv ] && [ $(stat -c %a inst/uproject.crv) = 666 ]",
         "cmp inst/rescue.stu \"$P/corv.stu\"",
         "cmp inst/alias.crv \"$P/\\$alias.crv\" && ! test -e 'inst/$alias.crv' && ! test -e inst/old && "
         "! test -e inst/tagfiles"},
        {{"$D/setup.ini", "[unattended]\nDestinationDir=$S/inst\nPostInstall=no\n"},
         {"$S/corv.ini",
          "; This INI file is intended to contain Corvane environment\n; variables.\n;\n"
          "[Environment]\nCORVPATH=%CVROOT%bin/:%CVROOT%:%CVROOT%macros/:%CVROOT%bitmaps/\n"
          "CORVMACROS=%CVROOT%macros/\n"
          "CORVINCLUDE=%CVROOT%macros/\nCORVMISC=%CVROOT%\nCORVBIN=%CVROOT%bin/\nCORVBITMAPS=%CVROOT%bitmaps/"
          "\n"
          "; Set CORVXNOBLINK to 1 to stop blinking cursor and reduce network traffic.\n;CORVXNOBLINK=1\n"}}},
    backup("backup_default", "\n\n", "", "inst/old", "bind C-S save\n", true),
    backup("backup_preset", "", "-backup-dir \"$S/preset\"", "preset", "x\nfunction foo\n", false),
    backup("backup_answered_slash", "y\n$S/bk3/\n", "", "bk3", "see functioncomment here\n", true),
    backup("backup_dir_exists", "\n$S/inst/existing\nn\n\n", "", "inst/old", "", true),
    // The list's last line needs no line feed.
    macros("batch", "printf 'main.e\\nkeys.e' >t/cmacros.lst",
           {kCompiling, ">>> Compiling macros: command='$S/m m/bin/'cvtw '$S/m m/macros/'main.e -L keys.e\n"},
           {"main.e", "keys.e"}, "tags.ex search.ex", "[$S/m m/bin/cvtw][$S/m m/macros/main.e][-L][keys.e]",
           false),
    macros("batch_fails_one_by_one",
           "printf 'main.e\\nbad.e\\n' >t/cmacros.lst && echo 'broken(' >t/macros/bad.e", {kCompiling, kAll},
           {"main.e", "keys.e", "tags.e", "search.e"}, "bad.ex",
           "[$S/m m/bin/cvtw][$S/m m/macros/main.e][-L][bad.e]", true),
    macros("no_list_one_by_one",
           "rm t/cmacros.lst && echo 'f()' >t/macros/x.E && echo 'f()' >t/macros/x.e.bak",
           {"!" + kCompiling, kAll,
            ">>> Compiling one macro: command=\"$S/m m/bin/cvtw\" \"$S/m m/macros/main.e\" "
            ">/dev/null 2>/dev/null\n",
            ">>> Touching compiled macro: dir=$S/m m/macros/, file=main.ex\n"},
           {"main.e", "keys.e", "tags.e", "search.e"}, "x.Ex x.e.bakx", "[$S/m m/bin/cvtw][$S/m m/macros/",
           true),
    // Searchable but not readable for uid 65534: sources compile by name, the directory cannot be listed.
    Case{"macros_dir_unreadable",
         "tree t && rm t/cmacros.lst && chmod 0311 t/macros && mkd d t && mkdir mine && "
         "chown 65534 mine",
         "nobody d/cvinst -d -post-install -destination-dir \"$S/mine/inst\"",
         kOpen,
         1,
         {msg("Cannot open convert files in directory $S/mine/inst/macros/."), kAll,
          msg("Cannot open macros directory $S/mine/inst/macros/."), "!" + kDone}});

E2E_CASES(
    Plugin,
    // A relative location is taken from the distribution directory the installer changed into.
    Case{"plugin_install",
         kIde + "cp -a \"$B/dist-plugin\" pl",
         "pl/cvinst -d +post-install",
         kOpen + "\n\nnowhere\ny\n$S/ide\n\n\n",
         0,
         {"!X server", "!Some old global configuration files",
          "*       Corvane PLUG-IN INSTALLATION PROGRAM        \n", kAgree,
          "\n" + kStars +
              "\n* Please specify the location of your Eclipse or \n* Websphere Studio "
              "installation.\n*\n* Example: /usr/lib/eclipse202/eclipse\n" +
              kStars + "\n\nWebSphere or Eclipse location []: ",
          box("No Eclipse location was given.\n" + kGive),
          "Try again [Y]? \nWebSphere or Eclipse location []: ",
          "\n***\nThe Eclipse location is not valid: '/tmp/cvinst-e2e.\n",
          "/pl/nowhere/eclipse/.eclipseproduct' does not exist.\n" + kGive + "\n***\n",
          "Try again [Y]? \nWebSphere or Eclipse location []: \nInstall directory [$S/ide/corvplugin/]: "
          "\nDirectory "
          "$S/ide/corvplugin " +
              kCreate,
          "\n\n" + kStars +
              "\n* The Corvane Plug-In requires that the following\n* "
              "paths be in your LD_LIBRARY_PATH search path:\n*\n* " +
              kCore + "/bin/\n* $S/ide/eclipse/\n*\n" + kStars,
          "$\n" + kStars + "\n*           " + kDone + "              \n" + kStars +
              "\n\nInstallation of Corvane Plug-In for WebSphere and Eclipse was successful!\n\nNOTES:\n1. "
              "Because of "
              "the LD_LIBRARY_PATH settings, we recommend starting\n   Eclipse using "
              "'$S/ide/eclipse/eclipse-cv'.\n"},
         {"cd ide/corvplugin/eclipse && [ \"$(ls features plugins | xargs)\" = 'features: "
          "com.corvane.plugin_10.0.0 "
          "plugins: com.corvane.core_10.0.0 com.corvane.eclipse.plugin_10.0.0' ] && test -f "
          "features/com.corvane.plugin_10.0.0/feature.xml && "
          "test -f plugins/com.corvane.eclipse.plugin_10.0.0/plugin.xml",
          "cd " + kCore +
              " && test -f plugin.xml && ! test -e eclipse && test -L bin/cvt && test -f bin/corv.ini && "
              "test -f macros/main.ex",
          "[ \"$(cat ide/eclipse/links/com.corvane.eclipse.plugin.link)\" = \"path=$S/ide/corvplugin\" ]",
          "[ \"$(cat ide/eclipse/eclipse-cv)\" = \"$(printf "
          "'#!/bin/sh\\n\\nLD_LIBRARY_PATH=%s/bin:%s:$LD_LIBRARY_PATH "
          "%seclipse $*' " +
              kCore + " $S/ide/eclipse/ $S/ide/eclipse/)\" ]",
          "[ $(stat -c %a ide/eclipse/eclipse-cv) = 755 ]"}},
    // The other package, the Eclipse directory named directly, a root that needs quoting, and the
    // launch script kept on Enter.
    Case{
        "plugin_install_odd_root",
        kIde + "mkd pd \"$PP\" cvpackepd && echo mine >ide/eclipse/eclipse-cv",
        "pd/cvinst -d +post-install",
        kOpen + "$S/ide/eclipse/\n$S/" + kPlugName + "\n\n\n",
        0,
        {"\n$S/ide/eclipse/eclipse-cv already exists. Overwrite [N]? "},
        {"[ $(cat ide/eclipse/eclipse-cv) = mine ]",
         "[ \"$(cat ide/eclipse/links/com.corvane.eclipse.plugin.link)\" = path=" + kPlugOdd + " ]",
         "cd " + kPlugOdd +
             "/eclipse && test -f features/com.corvane.plugin_10.0.0/feature.xml && cd "
             "plugins/com.corvane.core_10.0.0 && test -f plugin.xml && test -f bin/cv && ! test -e eclipse"}},
    Case{"links_dir_cannot_be_made",
         kLocked,
         "nobody pl/cvinst -d",
         kOpen + "$S/locked\n$S/mine/r\n\ny\nn\n",
         1,
         {"\n***\nThe Eclipse links directory '/tmp/cvinst-e2e.\n",
          "/locked/eclipse/links' could not be created.\nCheck that you may write to the Eclipse "
          "location.\n***\n"
          "Try again [Y]? \n***\nThe Eclipse links directory '",
          "!" + kDone},
         {"! test -e locked/eclipse/links"}},
    Case{"links_dir_locked",
         kLocked + " && mkdir locked/eclipse/links",
         "nobody pl/cvinst -d",
         kOpen + "$S/locked\n$S/mine/r\n\ny\nn\n",
         1,
         {msg("Insufficient access to create link file. Read/Write access is required for "
              "$S/locked/eclipse/links.") +
              "Try again [Y]? Corvane Install: Insufficient access",
          "!" + kDone},
         {"! test -e locked/eclipse/links/com.corvane.eclipse.plugin.link"}});
