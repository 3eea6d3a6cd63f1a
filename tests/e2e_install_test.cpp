// End-to-end: whole installations. The installation directory, the environment checks, unpacking
// and verification, what the later steps write, and plug-in installations into a stand-in Eclipse.
#include "tests/harness.h"

namespace {

const std::string kPrompt = "Install directory [/opt/corvane/]: ";
std::string createNo(Str dir, Str parent) {
    return msg("Insufficient access to create " + dir + ". Read/Write access is required for " + parent +
               ".");
}
// Answers to the installation-directory step, as the user or as uid 65534.
Case dir(Str name, Str run, Str input, int status, const Lines& out, const Lines& checks = {}) {
    return {name,
            "mkdir -p work/a there locked mine inst-bin/bin && echo x >plain && chown 65534 mine inst-bin",
            run + " -d -post-install",
            kOpen + input,
            status,
            out,
            checks};
}
const std::string kOdd = R"(odd dir "q" 'x' $HOME `id`; touch pwned)";

// The required tools from a directory of links; the run ends at the agreement.
Case tools(Str name, Str setup, Lines out, Str missing = "") {
    out.insert(out.begin(), missing.empty() ? "!is not found" : "!   more ... ");
    if (!missing.empty()) {
        out.push_back(msg("'" + missing + "' is not found in your PATH.") +
                      msg("Please add it to your path and restart the installation."));
        out.insert(out.end(), {"!is not found", "!license terms"});
    }
    return {name, setup, "PATH=$S/t cvinst -post-install -d -v", "\n", 1, out};
}
const std::string kXWarning =
    "\n\nCorvane Install: X server is not accessible.\n\n"
    "Please make sure that your DISPLAY environment variable\n"
    "is set to the correct display and that connection to\n"
    "the X server is enabled (ie. use 'xhost +').\n\n"
    "You can still continue with the installation but your C/C++\n"
    "and Java source files will not be automatically tagged. You\n"
    "can always manually tag these files later.\n\n"
    "Continue installation (Y/N)? [N]: ";

// What an installation touches after unpacking (macros, state, resources), and what it leaves as packed.
const std::string kTouched = "macros/main.e macros/tags.e corv.stu corvdefs.cvb bin/corvkeys.cvb";
const std::string kUntouched = "license.txt bitmaps/open.bmp 'docs/release notes.txt' bin/cv cmacros.lst";

// A package whose list gets one more line (printed by `line`, bash), installed into $S/i: the
// message the verification gives, and the list renamed all the same.
Case list(Str name, Str line, Str message, Str more = "") {
    return {
        name,
        R"sh(tree t && { "$MK" --payload t --list-only && )sh" + line +
            "; } >l && mv l t/distribfilelist && tard d t" + more,
        "inst d i",
        kOpen,
        1,
        {"!Cannot get stat information", message, msg("Error detected in distribution."), "!" + kDone},
        {R"sh([ $(ls i | grep -c '^distribfilelist\.[0-9]\{14\}$') = 1 ])sh", "! test -e i/distribfilelist"}};
}
std::string lineOf(Str text) {
    return "printf %s " + shq(text);
}

// The question that an earlier installation's configuration files bring up.
const std::string kBackupQ =
    "Some old global configuration files have been found.\nDo you want a backup of these files [Y]? ";

// Macro compilation with the demo translator, which logs every run in bin/cvtw.log. The blank in
// the installation directory shows that the commands quote their paths.
Case macros(Str name, Str change, const Lines& out, const Lines& compiled, Str notCompiled, Str log,
            bool single) {
    Lines checks = {R"sh(grep -qF ")sh" + log + R"sh(" 'm m/bin/cvtw.log')sh",
                    "cd 'm m/macros' && ! ls " + notCompiled + " 2>/dev/null"};
    for (Str m : compiled) {
        checks.push_back("cd 'm m/macros' && ! test " + m + "x -ot " + m);
        checks.push_back((single ? "" : "! ") +
                         std::string(R"sh(grep -qxF "[$S/m m/bin/cvtw][$S/m m/macros/)sh") + m +
                         R"sh(]" 'm m/bin/cvtw.log')sh");
    }
    Lines expected = out;
    if (!single) expected.insert(expected.begin(), "!Compiling all macros");
    return {name, "tree t && " + change + " && mkd d t", "inst d 'm m' -v", kOpen, 0, expected, checks};
}
const std::string kAll = "Compiling all macros. Please wait...\n";
const std::string kCompiling = "Compiling macros. Please wait...\n";

// Plug-in installations into the stand-in Eclipse of $S/ide/eclipse (mkide, tests/lib.sh).
const std::string kIde = "mkide id=x && ";
const std::string kCore = "$S/ide/corvplugin/eclipse/plugins/com.corvane.core_10.0.0";
const std::string kLayout =
    "features: com.corvane.plugin_10.0.0 plugins: com.corvane.core_10.0.0 com.corvane.eclipse.plugin_10.0.0";
std::string box(Str text) {
    return "\n***\n" + text + "\n***\n";
}
// The plug-in distribution is copied into the sandbox, where uid 65534 can read it.
const std::string kLocked =
    "mkdir -p mine locked/eclipse && chown 65534 mine && echo >locked/eclipse/.eclipseproduct && pldist pl";
// The message file's texts are word-wrapped at 60 columns, a path behind one of its dots: the
// sandbox "/tmp/cvinst-e2e.XXXXXX" breaks behind "cvinst-e2e.".
const std::string kGive = "Give the directory that holds the Eclipse or WebSphere\nStudio installation.";

}  // namespace

E2E_CASES(InstallDir,
          dir("interactive", "cvinst", "$S/inst\n\n", 0,
              {"\n\nEstimated disk space needed:  167 MB (including 25 MB for tag files)\n\n" + kPause,
               kAgree, kPrompt, "\nDirectory $S/inst/ does not exist. Create [Y]? ",
               "Skipping disk space check.", "\ndone\n", kDone,
               line(R"(1. Type "$S/inst/bin/cv" to run Corvane.)")},
              {"test -L inst/bin/cvt"}),
          // A file in the way and a refused creation ask again; a relative answer is taken from the
          // working directory, and shell characters in it are only characters.
          dir("asked_again", "cvinst", "$S/plain\n$S/first\nmaybe\nn\n" + kOdd + "\nyes\n", 0,
              {msg("$S/plain is not a directory."), kPrompt,
               "Directory $S/first/ " + kCreate + "Please enter 'Y' or 'N'.\n", kCreate, kPrompt,
               "Directory $S/" + kOdd + "/ " + kCreate},
              {"[ $(cat plain) = x ]", "! test -e first", "test -d " + shq(kOdd), "! test -e pwned",
               R"sh(! test -e "$D/pwned")sh"}),
          dir("parent_is_a_file", "cvinst", "$S/plain/sub\ny\n", 1, {createNo("$S/plain/sub/", "$S/plain")}),
          // Too long answers and presets: nothing at all is made.
          dir("too_long_relative", "cd work && cvinst", std::string(505, 'r') + "\ny\n", 1,
              {msg("Install directory $S/work/" + std::string(505, 'r') + "/ is too long.")},
              {R"sh([ "$(ls -A work)" = a ])sh"}),
          // 511 characters with the "/".
          dir("preset_fills_the_buffer", "cvinst -destination-dir $S/" + std::string(488, 'f'), "", 1,
              {" is too long.\n"}, {"! ls -d ff* 2>/dev/null"}),
          dir("locked", R"sh(nobody "$D/cvinst")sh", "$S/locked\n", 1, {noAccess("$S/locked/")}),
          Case{"plugin_root",
               kIde + "mkdir first blocked && echo x >blocked/eclipse && pldist pl",
               "pl/cvinst -d -post-install",
               kOpen + "$S/ide\n$S/first\nn\n$S/blocked\ny\n$S/good\n\n",
               0,
               {"$S/first already exists. Continue [Y]? ", kDirQ, "$S/blocked already exists. Continue [Y]? ",
                msg("Cannot create directory $S/blocked/eclipse/plugins."), kDirQ,
                "\nDirectory $S/good " + kCreate, "!" + kDirQ},
               {"! test -e first/eclipse", "test -d good/eclipse/plugins/com.corvane.core_10.0.0"}});

E2E_CASES(Checks,
          tools("zcat_instead_of_uncompress", "tools t ${T/ uncompress/} zcat",
                {">>>    uncompress ... >>> Missing >>> trying zcat ... >>> Found at $S/t/\n",
                 ">>>    more ... >>> Found at $S/t/\n", kAgree}),
          tools("tool_is_a_directory", "tools t ${T/ touch/} && mkdir t/touch", {}, "touch"),
          Case{"x_server_no_one_on_display",
               "",
               "n=900; while [ -e /tmp/.X11-unix/X$n ]; do n=$((n+1)); done; export DISPLAY=:$n; cvinst -d",
               "\ny\nyes\n",
               1,
               {kPause, kXWarning + "\n", kAgree, kPrompt}},
          Case{"post_install_without_x",
               "",
               R"sh(cvinst -d +post-install -destination-dir "$S/nox")sh",
               "\ny\nyes\n",
               0,
               {"\ndone\n",
                msg("") + msg("Cannot start post-installation because X server is not accessible.") +
                    msg("You will need to manually tag your C/C++ headers and Java source") +
                    msg("files to fully use our new Tagwise feature set."),
                kDone},
               {"! test -e nox/tagfiles", "! test -e cv-started.log"}},
          // The editor runs in the background; its log is waited for before the run ends.
          opened("post_install_starts_the_editor", "",
                 R"sh(xvfb; echo $DISPLAY >display; cvinst -d +post-install -v -destination-dir "$S/x"; s=$?
                      for i in $(seq 200); do [ -s cv-started.log ] && break; sleep 0.05; done; exit $s)sh",
                 0,
                 {"Starting Corvane with post-installation.\nPlease wait for Corvane to come up...\n",
                  line(R"(>>> Post install: command="$S/x/bin/cv" +new &)"), kDone},
                 {"[ $(stat -c %a x/tagfiles) = 755 ]",
                  R"sh([ "$(cat cv-started.log)" = "$S/x/bin/cv +new DISPLAY=$(cat display)" ])sh"}),
          Case{"disk_space_short",
               "mnt small size=100m,mode=0755",
               "cvinst -post-install",
               answers("$S/small/inst"),
               1,
               {"\nChecking disk space. Please wait...\n",
                msg("Insufficient free disk space. Need 167 MB but $S/small/inst/ only has 100.00 MB.")}});

E2E_CASES(
    Unpack,
    Case{"clean_install",
         "tree t && mkd d t && mkdir -p inst/bin && echo old >inst/bin/cvt && echo mine >inst/notes.txt && "
         "chown 65534 inst/notes.txt && date +%Y%m%d%H%M%S >before",
         "inst d inst -v",
         kOpen,
         0,
         {">>> Unpacking: gDistribDir=$S/d/ distribName=$S/d/cvpack\n",
          ">>> Unpack command: tar xf -  >/dev/null 2>/dev/null\n", "\nUnpacking files: \ndone\n",
          "Checking distribution files. Please wait...\n", "   100%", std::string(72, ' ') + "\r",
          "Updating user and group file ownership. Please wait...\n",
          line(R"(>>> Updating macros user ownership: command=chown -R 0 "$S/inst/")"),
          line(R"(>>> Updating macros group ownership: command=chgrp -R 0 "$S/inst/")"),
          ">>> Linking bin/cvt to cvtw\n", "!Cleaning up"},
         // The list is kept under the time of the check; macros, state and resources are touched.
         {"f=$(cd inst && ls distribfilelist.*) && [[ ${f#*.} =~ ^[0-9]{14}$ ]]",
          "f=$(cd inst && ls distribfilelist.*) && [[ ! ${f#*.} < $(cat before) ]]",
          "f=$(cd inst && ls distribfilelist.*) && [[ ! ${f#*.} > $(date +%Y%m%d%H%M%S) ]]",
          R"sh(cmp inst/distribfilelist.* <("$MK" --payload "$P" --list-only))sh",
          R"sh(cmp 'inst/docs/release notes.txt' "$P/docs/release notes.txt")sh",
          "[ $(stat -c %a inst/bin/cvtw) = 755 ]", R"sh([ "$(readlink inst/bin/cvt)" = cvtw ])sh",
          "[ $(stat -c %u inst/notes.txt) = 0 ]",
          "cd inst && for f in " + kTouched + "; do ! test $f -ot ../before || exit 1; done",
          "cd inst && for f in " + kUntouched + R"sh(; do test "$f" -ot ../before || exit 1; done)sh"}},
    list("size", lineOf("docs/release notes.txt 5 0\n"),
         msg("Error detected in $S/i/docs/release notes.txt. Mismatched size: expected=5 actual=170")),
    list("leaves_the_directory", lineOf("../dist/cvinst 10 0\n"),
         msg("Error detected in $S/i/../dist/cvinst. The name leaves the installation directory.")),
    // Lines are read in pieces of 511 characters: the last piece is taken as a record of its own.
    list("long_line_in_pieces", lineOf(std::string(600, 'n') + " 1 1\n"),
         "Insufficient access to $S/i/" + std::string(89, 'n') + ". Read/Write"),
    list("name_too_long", lineOf(std::string(490, 'n') + " 1 1\n"),
         msg("Error detected in $S/i/" + std::string(490, 'n') + ". The name is too long.")),
    list("socket", lineOf("sock 0 7\n"),
         msg("Cannot open file $S/i/sock") +
             msg("Error detected in $S/i/sock. Mismatched checksum: expected=7 actual=4294967295"),
         " && mkdir i && sock i/sock"),
    list("directory", R"sh(printf 'bin %s 1\n' $(stat -c %s t/bin))sh",
         "Corvane Install: Cannot read $S/i/bin. Expected "),
    // Checked, and then unchecked ("-s") into another directory.
    Case{"not_a_package",
         R"sh(cp -a "$D" bad && echo no >bad/cvpack)sh",
         R"sh(inst bad i <<<$'\nyes'; inst bad j -s <<<$'\nyes')sh",
         "",
         1,
         {"\ndone\n", msg("Unable to open distribution file $S/i/distribfilelist"),
          msg("Error detected in distribution."), "!Checking distribution files",
          "\ndone\nSkipping distribution check.\n", msg("Cannot create symbolic link bin/cvt to cvtw.")}},
    // More than 5 MB unpacked, with members outside the directory, absolute, and behind a link.
    opened("dots_and_members",
           R"sh(tree big && head -c 5242880 /dev/urandom >big/docs/big.bin && mkd bd big &&
             mkdir -p outside abs extra && for f in escaped.txt abs/abs.txt extra/x; do echo packed >$f; done &&
             gzip -dc bd/cvpack >evil.tar && (cd abs && tar -rPf ../evil.tar ../escaped.txt "$S/abs/abs.txt") &&
             ln -s "$S/outside" link &&
             tar -rf evil.tar link && tar -rf evil.tar --transform 's,^extra,link,' extra/x &&
             gzip -c evil.tar >bd/cvpack && rm escaped.txt && echo original >abs/abs.txt &&
             [ $((($(stat -c %s evil.tar) + 10239) / 10240 / 98)) = 5 ])sh",
           "inst bd inst -s", 0,
           {"!Checking distribution files", "\nUnpacking files: .....\ndone\nSkipping distribution check.\n"},
           {"test -f inst/distribfilelist", "cmp inst/docs/big.bin big/docs/big.bin", "! test -e escaped.txt",
            R"sh([ -z "$(ls outside)" ])sh", "[ $(cat abs/abs.txt) = original ]",
            R"sh([ $(cat "inst/$S/abs/abs.txt") = packed ])sh", "! test -e inst/link/x"}),
    Case{"failed_run_cleans_up",
         R"sh(cp -a "$D" second)sh",
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
        R"sh(cd "$D" && ./cvinst -d -v)sh",
        kOpen,
        0,
        {"!" + kBackupQ, "!Starting Corvane", ">>> Looking for files to be backed up:\n", "\ndone\n",
         "Updating misc files. Please wait...\n", ">>> Updating alias.crv:\n",
         ">>> Creating uproject.crv: file=$S/inst/uproject.crv\n",
         ">>> Creating corv.ini: file=$S/inst/bin/corv.ini\n",
         ">>> Copying $S/inst/corv.stu to $S/inst/rescue.stu\n", "   Timestamping ",
         ">>> Checking macro list: macroListFile=$S/inst/cmacros.lst\n", kCompiling,
         "$\n" + kStars + "\n*           " + kDone + "              \n" + kStars + "\n\nNOTES:\n" +
             line(R"(1. Type "$S/inst/bin/cv" to run Corvane.)") +
             line(R"(2. You may want to add "$S/inst/bin/" to your users' PATH.)")},
        {"cmp inst/bin/corv.ini corv.ini", "[ $(stat -c %a inst/bin/corv.ini) = 644 ]",
         "[ ! -s inst/uproject.crv ]", "[ $(stat -c %a inst/uproject.crv) = 666 ]",
         R"sh(cmp inst/rescue.stu "$P/corv.stu")sh", R"sh(cmp inst/alias.crv "$P/\$alias.crv")sh",
         "! test -e 'inst/$alias.crv'", "! test -e inst/old", "! test -e inst/tagfiles"},
        {{"$D/setup.ini", "[unattended]\nDestinationDir=$S/inst\nPostInstall=no\n"},
         {"$S/corv.ini",
          "; This INI file is intended to contain Corvane environment\n; variables.\n;\n[Environment]\n"
          "CORVPATH=%CVROOT%bin/:%CVROOT%:%CVROOT%macros/:%CVROOT%bitmaps/\n"
          "CORVMACROS=%CVROOT%macros/\nCORVINCLUDE=%CVROOT%macros/\nCORVMISC=%CVROOT%\nCORVBIN=%CVROOT%bin/\n"
          "CORVBITMAPS=%CVROOT%bitmaps/\n"
          "; Set CORVXNOBLINK to 1 to stop blinking cursor and reduce network traffic.\n;CORVXNOBLINK=1\n"}}},
    macros("batch_fails_one_by_one",
           R"sh(printf 'main.e\nbad.e\n' >t/cmacros.lst && echo 'broken(' >t/macros/bad.e)sh",
           {kCompiling, kAll}, {"main.e", "keys.e", "tags.e", "search.e"}, "bad.ex",
           "[$S/m m/bin/cvtw][$S/m m/macros/main.e][-L][bad.e]", true),
    // Searchable but not readable for uid 65534: sources compile by name, the directory cannot be listed.
    opened("macros_dir_unreadable",
           "tree t && rm t/cmacros.lst && chmod 0311 t/macros && mkd d t && mkdir mine && chown 65534 mine",
           R"sh(nobody d/cvinst -d -post-install -destination-dir "$S/mine/inst")sh", 1,
           {msg("Cannot open convert files in directory $S/mine/inst/macros/."), kAll,
            msg("Cannot open macros directory $S/mine/inst/macros/."), "!" + kDone}));

E2E_CASES(
    Plugin,
    // A relative location is taken from the distribution directory the installer changed into.
    Case{
        "plugin_install",
        kIde + "pldist pl",
        "pl/cvinst -d +post-install",
        kOpen + "\n\nnowhere\ny\n$S/ide\n\n\n",
        0,
        {"!X server", "!Some old global configuration files",
         "*       Corvane PLUG-IN INSTALLATION PROGRAM        \n", kAgree,
         "\n" + kStars +
             "\n* Please specify the location of your Eclipse or \n* Websphere Studio installation.\n*\n" +
             "* Example: /usr/lib/eclipse202/eclipse\n" + kStars + "\n\nWebSphere or Eclipse location []: ",
         box("No Eclipse location was given.\n" + kGive),
         "Try again [Y]? \nWebSphere or Eclipse location []: ",
         "\n***\nThe Eclipse location is not valid: '/tmp/cvinst-e2e.\n",
         "/pl/nowhere/eclipse/.eclipseproduct' does not exist.\n" + kGive + "\n***\n",
         "Try again [Y]? \nWebSphere or Eclipse location []: \nInstall directory [$S/ide/corvplugin/]: "
         "\nDirectory $S/ide/corvplugin " +
             kCreate,
         "\n\n" + kStars + "\n* The Corvane Plug-In requires that the following\n" +
             "* paths be in your LD_LIBRARY_PATH search path:\n*\n* " + kCore +
             "/bin/\n* $S/ide/eclipse/\n*\n" + kStars,
         "$\n" + kStars + "\n*           " + kDone + "              \n" + kStars +
             "\n\nInstallation of Corvane Plug-In for WebSphere and Eclipse was successful!\n\nNOTES:\n" +
             "1. Because of the LD_LIBRARY_PATH settings, we recommend starting\n" +
             "   Eclipse using '$S/ide/eclipse/eclipse-cv'.\n"},
        {R"sh([ "$(cd ide/corvplugin/eclipse && ls features plugins | xargs)" = ')sh" + kLayout + "' ]",
         "test -f ide/corvplugin/eclipse/features/com.corvane.plugin_10.0.0/feature.xml",
         "test -f ide/corvplugin/eclipse/plugins/com.corvane.eclipse.plugin_10.0.0/plugin.xml",
         "test -f " + kCore + "/plugin.xml", "! test -e " + kCore + "/eclipse",
         "test -L " + kCore + "/bin/cvt", "test -f " + kCore + "/bin/corv.ini",
         "test -f " + kCore + "/macros/main.ex",
         R"sh([ "$(cat ide/eclipse/links/com.corvane.eclipse.plugin.link)" = "path=$S/ide/corvplugin" ])sh",
         R"sh([ "$(cat ide/eclipse/eclipse-cv)" = "$(printf '#!/bin/sh\n\nLD_LIBRARY_PATH=%s/bin:%s:$LD_LIBRARY_PATH %seclipse $*' )sh" +
             kCore + R"sh( $S/ide/eclipse/ $S/ide/eclipse/)" ])sh",
         "[ $(stat -c %a ide/eclipse/eclipse-cv) = 755 ]"}},
    Case{"links_dir_cannot_be_made",
         kLocked,
         "nobody pl/cvinst -d",
         kOpen + "$S/locked\n$S/mine/r\n\ny\nn\n",
         1,
         {"\n***\nThe Eclipse links directory '/tmp/cvinst-e2e.\n",
          "/locked/eclipse/links' could not be created.\n"
          "Check that you may write to the Eclipse location.\n***\nTry again [Y]? \n***\n"
          "The Eclipse links directory '",
          "!" + kDone},
         {"! test -e locked/eclipse/links"}},
    Case{"links_dir_locked",
         kLocked + " && mkdir locked/eclipse/links",
         "nobody pl/cvinst -d",
         kOpen + "$S/locked\n$S/mine/r\n\ny\nn\n",
         1,
         {msg("Insufficient access to create link file. "
              "Read/Write access is required for $S/locked/eclipse/links.") +
              "Try again [Y]? Corvane Install: Insufficient access",
          "!" + kDone},
         {"! test -e locked/eclipse/links/com.corvane.eclipse.plugin.link"}});
