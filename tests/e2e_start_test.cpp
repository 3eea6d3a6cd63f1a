// End-to-end: how a run starts. The command line, the answers file, the name the installer was
// started by, the choice of the package, the banner and the licence agreement.
#include "tests/harness.h"

namespace {

const std::string kUsage =
    "\ncvinst Version 10.0\nUSAGE: cvinst [-h][-s][-o ostype-version-release]\n\n"
    "       -o  -- specify OS type and version information\n"
    "              Examples: irix-6-5 for Irix 6.5\n                        aix-4-3 for AIX 4.3\n"
    "       -s  -- skip size and checksum verification\n       -d  -- skip disk space check\n"
    "       -h  -- this help information\n       -v  -- verbose\n       -destination-dir -- installation "
    "dir\n"
    "       -backup-dir -- Where should files be backed up?\n"
    "       +/-accept-eula -- Accept EULA/Don't accept EULA\n"
    "       +/-post-install -- Perform/Dont perform post-install tasks immediately after installation\n\n";
const std::string kTestI = "test -d i";
const std::string kLicense = demoFile("license.txt");
const std::string kBanner = "\n*           Corvane INSTALLATION PROGRAM            \n";
const std::string kPluginBanner = "\n*       Corvane PLUG-IN INSTALLATION PROGRAM        \n";

// One run in $S/<d> per line "d|options|entry|file" of the input: setup.ini holds the entry in the
// section "unattended", or the whole file with the escapes of printf's %b ("\c" alone: empty).
const std::string kEach =
    "while IFS='|' read -r d a e f; do cd \"$S/$d\" && rm -rf \"$S/i\" setup.ini && "
    "{ [ -z \"$e\" ] || printf '[unattended]\\n%s\\n' \"$e\" >setup.ini; } && "
    "{ [ -z \"$f\" ] || printf %b \"$f\" >setup.ini; } && ";

// The distribution directory from the name the installer was started by, seen in the verbose
// trace; the run ends at the pause or for want of a distribution.
const std::string kSys = "/usr/local/bin:/usr/bin:/bin";
std::string tr(Str text) {
    return ">>>    " + text;
}
// A run that changes directory traces it among the expected lines.
Case locate(Str name, Str cwd, Str path, Str argv0, Lines out, bool found, bool changes,
            Str program = "\"$D/cvinst\"") {
    if (!changes) out.insert(out.begin(), "!Changing to directory");
    out.push_back(found ? kBanner : "!INSTALLATION PROGRAM");
    return {
        name,
        "mkdir -p work decoy/cvinst plain links && echo x >plain/cvinst && ln -s \"$D/cvinst\" links/cvinst",
        "cd " + cwd + "; " + path + "; exec -a " + argv0 + " " + program + " -v -d -post-install",
        "",
        1,
        out};
}
const std::string kFromPath = tr("From PATH ==> $D/.\n"), kUnable =
                                                              msg("Unable to determine the distribution "
                                                                  "directory.");

// The packages by rank, each a copy of the demo package.
const std::string kRanked = "cvpackd cvpackepd cvpacku cvpackep cvpack";
const std::string kWon = kBanner.substr(1), kPluginWon = kPluginBanner.substr(1);
std::string missingPackage(Str dir) {
    return msg("Missing distribution file.") +
           msg("Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in $S/" + dir + "/.") +
           msg("Make sure the files are in lowercase.");
}

const std::string kOdd = "dist 'q' \"dq\" $HOME; touch pwned1; `touch pwned2` $(touch pwned3)";
const std::string kLong(100000, 'x');

}  // namespace

E2E_CASES(
    CommandLine,
    // Also without a package; "-?" or "-h" ends the parsing.
    Case{"help",
         "cp -a \"$D\" e && rm e/cvpack",
         "e/cvinst -h && e/cvinst -v '-?' -destination-dir \"$S/inst\" -h "
         "-bogus",
         "",
         0,
         {"=" + kUsage + kUsage},
         {"! test -e inst"}},
    // "-v" traces, "-d" skips the disk-space check; "-o" takes any word as its value.
    Case{"switches",
         "",
         "cvinst -v -d -post-install",
         answers("$S/i"),
         0,
         {">>> Finding the full path to executable...\n", "!Checking disk space",
          "\nSkipping disk space check.\n"},
         {"test -d i && ! test -e dist/-v"}},
    // Switches are case-sensitive, and only "-h" and "-?" ask for help.
    Case{"switches_are_exact",
         "",
         "cvinst -V -D -H --h +h -help -post-install; true",
         answers("$S/i"),
         0,
         {"!USAGE:", "!>>> ", "!Skipping disk space check", "Checking disk space. Please wait..."}},
    Case{"switch_value_of_o",
         "",
         "cvinst -o -v -d -post-install",
         answers("$S/i"),
         0,
         {"!>>> ", "\nSkipping disk space check.\n"},
         {"! test -e dist/-v"}},
    Case{"path_option_takes_no_option",
         "",
         "cvinst -destination-dir -v -d -post-install",
         answers("$S/i"),
         0,
         {">>> Finding the full path", kDirQ, "\nSkipping disk space check.\n"},
         {kTestI}},
    // Presets from the options and from setup.ini in the distribution directory, where the run starts:
    // exit status, questions asked (answered with $S/asked), and the directory made. Presets: the
    // later one in any case and first character wins; a path option takes no option as value. The
    // answers file: section and key in any case behind blanks, any line ends, a comment, the last
    // value of the first such section, a trailing blank kept and a final Ctrl-Z not. No preset from
    // other sections, a name that only begins alike, blanks in the key, a comment, entries behind
    // the section, an empty file. Arbitrary bytes in it are the business of the answers-file fuzzer.
    Case{
        "presets",
        "",
        "L='a b c d e f x y asked p?1? p2 dist/rel dist/fromargs'; " + kEach +
            "eval \"./cvinst -d "
            "-post-install $a\" <<<$'\\nyes\\n'\"$S/asked\"$'\\ny' >../o; echo $? $(grep -c 'Install "
            "directory \\[\\|"
            "Create \\[Y\\]?' ../o) $(cd .. && ls -d $L 2>/dev/null | tr '\\n' '|'); (cd .. && rm -rf $L); "
            "done",
        "dist|-destination-dir $S/a\ndist|-destination-dir $S/x xDESTINATION-Dir "
        "$S/e\ndist|-destination-dir\n"
        "dist|-backup-dir -destination-dir $S/f\ndist|-destination-dir rel\ndist|bogus -x + - ''\n"
        "dist|||; answers\\n  \\t[UNATTENDED]\\r\\r\\n\\n \\t destinationDIR=$S/x\\rDestinationDir=$S/p 1 \\n"
        "[unattended]\\nDestinationDir=$S/y\\n\ndist|||[unattended]\\nDestinationDir=$S/p2\\x1a\n"
        "dist|-destination-dir "
        "fromargs|DestinationDir=$S/x\ndist|||[other]\\nDestinationDir=$S/a\\n[unattendedx]"
        "\\nDestinationDir=$S/b\\n[unattended]\\nDestinationDir = $S/c\\n; "
        "DestinationDir=$S/d\\nPostInstall=no"
        "\\n[other]\\nDestinationDir=$S/e\\n\ndist|||\\c\n",
        0,
        {"=0 0 a|\n0 0 e|\n0 2 asked|\n0 0 f|\n0 0 dist/rel|\n0 2 asked|\n0 0 p 1 |\n0 0 p2|\n0 0 "
         "dist/fromargs|\n"
         "0 2 asked|\n0 2 asked|\n"}});

E2E_CASES(AnswersFile,
          // Read from the directory the installer is started in, before it changes into the distribution.
          Case{"read_before_changing_dir",
               "",
               "dist/cvinst -d -post-install",
               kOpen,
               0,
               {"!" + kDirQ},
               {"test -d fromstart && ! test -e fromdist"},
               {{"$D/setup.ini", "[unattended]\nDestinationDir=$S/fromdist\n"},
                {"$S/setup.ini", "[unattended]\nDestinationDir=$S/fromstart\n"}}},
          // No post-install answer, or any but an explicit no, leaves the X server check on: it warns.
          Case{"x_check_by_post_install",
               "",
               "set -f; " + kEach +
                   "./cvinst -d $a <<<$'\\nn' >../o; echo $? $(grep -c "
                   "'Install: X server is not accessible' ../o); done",
               "dist||\ndist|-post-install +POST-INSTALL|\n"
               "dist|+post-install "
               "*Post-Install|\ndist||PostInstall=no\ndist||postinstall=Disabled\ndist||PostInstall=no \n"
               "dist||PostInstall = no\n",
               0,
               {"=1 1\n1 1\n1 0\n1 0\n1 0\n1 1\n1 1\n"}},
          // The shipped installer ignores an agreement accepted in advance; a copy ($S/p) patched at the
          // build-time marker, which must be there exactly once, skips the banner, the pause and the
          // agreement: 1 line of theirs and the completion instead of 4.
          Case{
              "eula_bypass",
              "cp -a \"$D\" p && perl -0777 -pi -e '$n = s/EnableBypasEula#0/EnableBypasEula#1/g; "
              "END { exit($n != 1) }' p/cvinst",
              kEach + "./cvinst -d -post-install -destination-dir \"$S/i\" $a "
                      "<<<$'\\nyes' >../o; echo $? $(grep -c 'INSTALLATION PROGRAM\\|<ENTER> to "
                      "continue\\|license terms?\\|"
                      "SUCCESSFULLY' ../o) $(ls -d ../i); done",
              "dist|+accept-eula|AcceptEula=yes\np|+accept-eula|\n"
              "p||acceptEULA=ENABLED\np||AcceptEula=no\np||AcceptEula = yes\np|-accept-eula|AcceptEula=yes\n",
              0,
              {"=0 4 ../i\n0 1 ../i\n0 1 ../i\n0 4 ../i\n0 4 ../i\n0 4 ../i\n"}});

E2E_CASES(Locate,
          locate("full_path", "work", "true", "\"$D/cvinst\"", {tr("From full path ==> $D/.\n")}, true,
                 false),
          locate("dot_slash", "\"$D\"", "true", "./cvinst",
                 {tr("Current directory is $D.\n"), tr("Changing to directory .\n"),
                  tr("New current directory is $D/\n"), tr("From relative path ==> $D/.\n")},
                 true, true),
          // A directory named "cvinst" on the way is passed over.
          locate("path", ".", "export PATH=$S/decoy:" + kSys + ":$D", "cvinst", {kFromPath}, true, false),
          // Empty entries are not the working directory, which holds a "cvinst" here.
          locate("path_empty_entries", "plain", "export PATH=::/usr/bin:::/bin:$D/", "cvinst", {kFromPath},
                 true, false),
          // An entry of 511 characters leaves no room for the "/" and the terminating NUL: passed over.
          locate("path_entry_too_long", ".", "export PATH=$D$(printf %$((511 - ${#D}))s | tr ' ' /):$D",
                 "cvinst", {kFromPath}, true, false),
          locate("path_relative_entry", ".", "export PATH=/usr/bin:/bin:dist", "cvinst",
                 {tr("Changing to directory dist\n"), tr("From relative path in PATH ==> $D/.\n")}, true,
                 true),
          locate("path_any_regular_file", ".", "export PATH=$S/plain:" + kSys + ":$D", "cvinst",
                 {tr("From PATH ==> $S/plain/.\n"),
                  msg("Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in "
                      "$S/plain/.")},
                 false, false),
          locate("link_not_followed", ".", "true", "\"$S/links/cvinst\"",
                 {tr("From full path ==> $S/links/.\n"), msg("Missing distribution file.")}, false, false,
                 "\"$S/links/cvinst\""),
          locate("path_unset", ".", "unset PATH", "cvinst", {kUnable}, false, false),
          locate("path_ends_in_colon", ".", "export PATH=/usr/bin:/bin:", "cvinst", {kUnable}, false, false),
          locate("relative_missing", ".", "true", "missing/cvinst",
                 {tr("Changing to directory missing\n"), kUnable}, false, true),
          // A relative install directory lands in the directory the installer changed into.
          Case{"relative_answer_after_change",
               "",
               "dist/cvinst -d -post-install",
               answers("inst"),
               0,
               {},
               {"test -d dist/inst && ! test -e inst"}},
          // All five packages, made in one order in $S/a and in the other in $S/b, so that the file made
          // first does not decide: each run shows the banner of the winner, which then goes. Without any
          // package, and beside packages in upper case ($S/b), the run ends with the message.
          Case{"package_order",
               "for d in a b; do cp -a \"$D\" $d && rm $d/cvpack; done && for p in " + kRanked +
                   "; do cp "
                   "\"$D/cvpack\" a/$p; r=\"$p $r\"; done && for p in $r; do cp \"$D/cvpack\" b/$p; done",
               "for d in a b; do cd \"$S/$d\"; for p in " + kRanked +
                   "; do \"$S/$d/cvinst\" </dev/null | grep 'INSTALLATION "
                   "PROGRAM'; rm $p; done; [ $d = b ] && cp \"$D/cvpack\" CVPACK && cp CVPACK CvPackEp; "
                   "\"$S/$d/cvinst\"; done",
               "",
               1,
               {"=" + kWon + kPluginWon + kWon + kPluginWon + kWon + missingPackage("a") + kWon + kPluginWon +
                kWon + kPluginWon + kWon + missingPackage("b")}});

E2E_CASES(
    Console,
    // Standard input ends at the pause: the run ends there.
    Case{"banner",
         "",
         "q",
         "",
         1,
         {"^\n\n" + kStars + "\n" + kStars + kBanner +
              "*                       Version "
              "10.0                    \n" +
              kStars + "\n" + kStars +
              "\n\nEstimated disk space needed:  167 MB (including "
              "25 MB for tag files)\n\n" +
              kPause,
          "!INSTALLATION PROGRAM", "!license terms"}},
    // Only the whole word counts, in any case, with any line end.
    Case{"agreement_whole_word",
         "",
         "q",
         "\r\ny\nn\nYe\n\nyes please\nYES\r\n$S/i\ny\n",
         0,
         {kPause, kLicense, kAgree, kAgree, kAgree, kAgree, kAgree, kAgree, "!" + kAgree, kDirQ, "!" + kDirQ},
         {kTestI}},
    Case{"agreement_no_any_case",
         "",
         "q",
         "\nNo\n",
         1,
         {"!" + kDirQ, kPause, kLicense, kAgree, "!" + kAgree},
         {"! " + kTestI}},
    Case{"no_license_text",
         "cp -a \"$D\" nl && rm nl/license.txt",
         "nl/cvinst -d -post-install",
         "\n$S/i\ny\n",
         0,
         {"!license terms", kDirQ},
         {kTestI}},
    Case{"license_from_odd_dir",
         "cp -a \"$D\" " + shq(kOdd),
         "cd " + shq(kOdd) + " && \"$S\"/" + shq(kOdd) + "/cvinst -d -post-install",
         answers("$S/i"),
         0,
         {kLicense, kAgree},
         {"test -z \"$(ls -d pwned* dist/pwned* " + shq(kOdd) + "/pwned* 2>/dev/null)\""}},
    // Overlong and random answers: a clear end, no crash. The pager of the agreement reads what
    // standard input holds beyond the installer's buffer, so the long runs end at a question.
    Case{"long_line_at_pause", "", "q", kLong + "\n" + answers("$S/i"), 1, {kAgree, kAgree, "!" + kDirQ}},
    Case{"long_line_at_directory", "", "q", "\nyes\n$S/" + kLong + "\ny\n$S/i\ny\n", 1, {" is too long.\n"}},
    Case{"long_line_at_creation",
         "",
         "q",
         "\nyes\n$S/i\n" + kLong + "\ny\n",
         1,
         {"Please enter 'Y' or 'N'.\n", msg("Cannot query install directory.")}},
    // No "/": an answer taken as install directory stays inside the distribution.
    Case{"noise_at_every_question",
         "",
         "perl -e 'srand 12345; print pack \"C*\", map { rand 256 } 1..200000' | "
         "tr -d / >in && q <in",
         "",
         1,
         {}});
