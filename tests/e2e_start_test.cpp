// End-to-end: how a run starts. The command line, the answers file, the name the installer was
// started by and the choice of the package.
#include "tests/harness.h"

namespace {

const std::string kUsage =
    "\ncvinst Version 10.0\nUSAGE: cvinst [-h][-s][-o ostype-version-release]\n\n"
    "       -o  -- specify OS type and version information\n"
    "              Examples: irix-6-5 for Irix 6.5\n"
    "                        aix-4-3 for AIX 4.3\n"
    "       -s  -- skip size and checksum verification\n"
    "       -d  -- skip disk space check\n"
    "       -h  -- this help information\n"
    "       -v  -- verbose\n"
    "       -destination-dir -- installation dir\n"
    "       -backup-dir -- Where should files be backed up?\n"
    "       +/-accept-eula -- Accept EULA/Don't accept EULA\n"
    "       +/-post-install -- Perform/Dont perform post-install tasks immediately after installation\n\n";
const std::string kBanner = "\n*           Corvane INSTALLATION PROGRAM            \n";
const std::string kPluginBanner = "\n*       Corvane PLUG-IN INSTALLATION PROGRAM        \n";

// One run in $S/<d> per line "d|options|entry|file" of the input: setup.ini holds the entry in the
// section "unattended", or the whole file with the escapes of printf's %b ("\c" alone: empty).
const std::string kEach = R"sh(while IFS='|' read -r d a e f; do
    cd "$S/$d" && rm -rf "$S/i" setup.ini &&
    { [ -z "$e" ] || printf '[unattended]\n%s\n' "$e" >setup.ini; } &&
    { [ -z "$f" ] || printf %b "$f" >setup.ini; } && )sh";

// The distribution directory from the name the installer was started by, found along PATH and
// seen in the verbose trace: the run ends at the pause, or for want of a distribution.
Case locate(Str name, Str path, Lines out, bool found, bool changes = false) {
    if (!changes) out.insert(out.begin(), "!Changing to directory");
    out.push_back(found ? kBanner : "!INSTALLATION PROGRAM");
    return {name, "", "export PATH=" + path + R"sh(; exec -a cvinst "$D/cvinst" -v -d -post-install)sh",
            "",   1,  out};
}
std::string traced(Str text) {
    return ">>>    " + text;
}

// The packages by rank, each a copy of the demo package.
const std::string kRanked = "cvpackd cvpackepd cvpacku cvpackep cvpack";
const std::string kWon = kBanner.substr(1), kPluginWon = kPluginBanner.substr(1);
std::string missingPackage(Str dir) {
    return msg("Missing distribution file.") +
           msg("Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in $S/" + dir + "/.") +
           msg("Make sure the files are in lowercase.");
}

}  // namespace

E2E_CASES(
    CommandLine,
    // Also without a package; "-?" or "-h" ends the parsing.
    Case{"help",
         R"sh(cp -a "$D" e && rm e/cvpack)sh",
         R"sh(e/cvinst -h && e/cvinst -v '-?' -destination-dir "$S/inst" -h -bogus)sh",
         "",
         0,
         {"=" + kUsage + kUsage},
         {"! test -e inst"}},
    // Presets from the options and from setup.ini in the distribution directory, where the run
    // starts: exit status, questions asked (answered with $S/asked), and the directory made.
    // Presets: the later one in any case and first character wins; a path option takes no option
    // as value. The answers file: section and key in any case behind blanks, any line ends, a
    // comment, the last value of the first such section, a trailing blank kept and a final Ctrl-Z
    // not. No preset from other sections, a name that only begins alike, blanks in the key, a
    // comment, entries behind the section, an empty file.
    Case{"presets",
         "",
         "L='a b c d e f x y asked p?1? p2 dist/rel dist/fromargs'; " + kEach +
             R"sh(eval "./cvinst -d -post-install $a" <<<$'\nyes\n'"$S/asked"$'\ny' >../o
                 echo $? $(grep -c 'Install directory \[\|Create \[Y\]?' ../o) $(cd .. && ls -d $L 2>/dev/null | tr '\n' '|')
                 (cd .. && rm -rf $L); done)sh",
         "dist|-destination-dir $S/a\n"
         "dist|-destination-dir $S/x xDESTINATION-Dir $S/e\n"
         "dist|-destination-dir\n"
         "dist|-backup-dir -destination-dir $S/f\n"
         "dist|-destination-dir rel\n"
         "dist|bogus -x + - ''\n"
         // The whole files, in printf's %b escapes.
         R"(dist|||; answers\n  \t[UNATTENDED]\r\r\n\n \t destinationDIR=$S/x\rDestinationDir=$S/p 1 \n)"
         R"([unattended]\nDestinationDir=$S/y\n)"
         "\n"
         R"(dist|||[unattended]\nDestinationDir=$S/p2\x1a)"
         "\n"
         "dist|-destination-dir fromargs|DestinationDir=$S/x\n"
         R"(dist|||[other]\nDestinationDir=$S/a\n[unattendedx]\nDestinationDir=$S/b\n[unattended]\n)"
         R"(DestinationDir = $S/c\n; DestinationDir=$S/d\nPostInstall=no\n[other]\nDestinationDir=$S/e\n)"
         "\n"
         R"(dist|||\c)"
         "\n",
         0,
         {"=0 0 a|\n0 0 e|\n0 2 asked|\n0 0 f|\n0 0 dist/rel|\n0 2 asked|\n0 0 p 1 |\n0 0 p2|\n"
          "0 0 dist/fromargs|\n0 2 asked|\n0 2 asked|\n"}});

E2E_CASES(
    AnswersFile,
    // The shipped installer ignores an agreement accepted in advance; a copy ($S/p) patched at the
    // build-time marker, which must be there exactly once, skips the banner, the pause and the
    // agreement: 1 line of theirs and the completion instead of 4.
    Case{
        "eula_bypass",
        R"sh(cp -a "$D" p && perl -0777 -pi -e '$n = s/EnableBypasEula#0/EnableBypasEula#1/g; END { exit($n != 1) }' p/cvinst)sh",
        kEach + R"sh(./cvinst -d -post-install -destination-dir "$S/i" $a <<<$'\nyes' >../o
                      echo $? $(grep -c 'INSTALLATION PROGRAM\|<ENTER> to continue\|license terms?\|SUCCESSFULLY' ../o) $(ls -d ../i)
                      done)sh",
        "dist|+accept-eula|AcceptEula=yes\n"
        "p|+accept-eula|\n"
        "p||acceptEULA=ENABLED\n"
        "p||AcceptEula=no\n"
        "p||AcceptEula = yes\n"
        "p|-accept-eula|AcceptEula=yes\n",
        0,
        {"=0 4 ../i\n0 1 ../i\n0 1 ../i\n0 4 ../i\n0 4 ../i\n0 4 ../i\n"}});

E2E_CASES(
    Locate,
    // An entry of 511 characters leaves no room for the "/" and the terminating NUL: passed over.
    locate("path_entry_too_long", "$D$(printf %$((511 - ${#D}))s | tr ' ' /):$D",
           {traced("From PATH ==> $D/.\n")}, true),
    locate("path_relative_entry", "/usr/bin:/bin:dist",
           {traced("Changing to directory dist\n"), traced("From relative path in PATH ==> $D/.\n")}, true,
           true),
    locate("path_ends_in_colon", "/usr/bin:/bin:", {msg("Unable to determine the distribution directory.")},
           false),
    // All five packages, made in one order in $S/a and in the other in $S/b, so that the file made
    // first does not decide: each run shows the banner of the winner, which then goes. Without any
    // package, and beside packages in upper case ($S/b), the run ends with the message.
    Case{"package_order",
         R"sh(for d in a b; do cp -a "$D" $d && rm $d/cvpack; done && for p in )sh" + kRanked +
             R"sh(; do cp "$D/cvpack" a/$p; r="$p $r"; done && for p in $r; do cp "$D/cvpack" b/$p; done)sh",
         R"sh(for d in a b; do cd "$S/$d"; for p in )sh" + kRanked +
             R"sh(; do "$S/$d/cvinst" </dev/null | grep 'INSTALLATION PROGRAM'; rm $p; done
              [ $d = b ] && cp "$D/cvpack" CVPACK && cp CVPACK CvPackEp; "$S/$d/cvinst"; done)sh",
         "",
         1,
         {"=" + kWon + kPluginWon + kWon + kPluginWon + kWon + missingPackage("a") + kWon + kPluginWon +
          kWon + kPluginWon + kWon + missingPackage("b")}});
