// End-to-end: the command line as the user sees it, the usage text and the option rules.
#include "tests/harness.h"

namespace {

const char kUsage[] =
    "\n"
    "cvinst Version 10.0\n"
    "USAGE: cvinst [-h][-s][-o ostype-version-release]\n"
    "\n"
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
    "       +/-post-install -- Perform/Dont perform post-install tasks immediately after "
    "installation\n"
    "\n";

using CommandLineTest = InstallerTest;

TEST_F(CommandLineTest, HelpPrintsTheUsageTextBeforeAnythingElse) {
    // No package in the distribution: any other run would fail, the usage text comes first.
    DistOptions options;
    options.package = "";
    std::string empty = makeDistribution(options, "empty");
    const std::vector<std::string> argLists[] = {
        {"-h"}, {"-?"}, {"-v", "-h", "-destination-dir", path("inst"), "-?", "-bogus"}};
    for (const std::vector<std::string>& args : argLists) {
        SCOPED_TRACE(args[0] + " " + std::to_string(args.size()));
        RunOptions run1;
        run1.argv0 = empty + "/cvinst";
        run1.cwd = empty;
        run1.args = args;
        RunResult r = run(run1);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_EQ(r.out, kUsage);
        EXPECT_EQ(r.err, "");
    }
    EXPECT_FALSE(exists("inst"));
}

TEST_F(CommandLineTest, OnlyTheExactHelpOptionsHelp) {
    // "-o" takes the "-h" behind it as its value.
    for (const std::vector<std::string>& args : {std::vector<std::string>{"-H", "--h", "+h", "-help"},
                                                 std::vector<std::string>{"-o", "-h"}}) {
        RunResult r = runQuick("", args);
        EXPECT_EQ(r.exitStatus, 1) << "end of input at the pause";
        EXPECT_EQ(r.out.find("USAGE:"), std::string::npos) << args[0];
        EXPECT_NE(r.out.find(kPause), std::string::npos) << args[0];
    }
}

TEST_F(CommandLineTest, ShortSwitchesAreExactAndCaseSensitive) {
    const struct {
        std::vector<std::string> args;
        bool traced;        // "-v" took effect
        bool diskSkipped;   // "-d" took effect
    } rows[] = {
        {{"-v", "-d"}, true, true},
        {{"-V", "-D"}, false, false},
        {{"-o", "-v", "-d"}, false, true},                // "-o" takes anything as its value
        {{"-destination-dir", "-v", "-d"}, true, true},   // a path option does not take an option
        {{"-o", "a-1-1", "-o", "-v", "-d"}, false, true}, // the later "-o" wins and takes "-v"
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args[0] + " row " + std::to_string(n));
        std::vector<std::string> args = row.args;
        args.push_back("-post-install");
        RunOptions options;
        options.args = args;
        options.input = interactiveAnswers(path("inst" + std::to_string(n++)));
        RunResult r = run(options);
        EXPECT_EQ(r.out.find(">>> Finding the full path to executable...\n") != std::string::npos, row.traced)
            << r.out;
        EXPECT_EQ(countOf(r.out, ">>> ") > 0, row.traced);
        EXPECT_EQ(r.out.find("\nSkipping disk space check.\n") != std::string::npos, row.diskSkipped);
        EXPECT_EQ(r.out.find("Checking disk space. Please wait...") == std::string::npos, row.diskSkipped);
        if (row.diskSkipped) {
            EXPECT_EQ(r.exitStatus, 0) << r.out;
        }
        EXPECT_FALSE(exists(dist + "/-v"));
    }
}

TEST_F(CommandLineTest, DestinationDirRules) {
    const struct {
        std::vector<std::string> args;
        std::string preset;   // directory made without the question; empty: the question is asked
    } rows[] = {
        {{"-destination-dir", path("a")}, path("a")},
        {{"-DESTINATION-DIR", path("b")}, path("b")},
        {{"+destination-dir", path("c")}, path("c")},
        {{"xDestination-Dir", path("d")}, path("d")},      // any first character
        {{"--destination-dir", path("x")}, ""},
        {{"destination-dir", path("x")}, ""},
        {{"-destination-dir"}, ""},                         // nothing behind it
        {{"-destination-dir", path("x"), "-destination-dir", path("e")}, path("e")},
        {{"-backup-dir", "-destination-dir", path("f")}, path("f")},
        {{"-destination-dir", "rel"}, dist + "/rel"},       // from the working directory
        {{"bogus", "-x", "+", "-", ""}, ""},                // ignored without a word
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args[0] + " row " + std::to_string(n));
        std::string asked = path("asked" + std::to_string(n++));
        RunResult r = runQuick(row.preset.empty() ? interactiveAnswers(asked) : kOpening, row.args);
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out.find(kDirQuestion) == std::string::npos, !row.preset.empty()) << r.out;
        EXPECT_EQ(r.out.find("Create [Y]?") == std::string::npos, !row.preset.empty());
        EXPECT_TRUE(isDirectory(row.preset.empty() ? asked : row.preset));
        EXPECT_FALSE(exists("x"));
    }
}

TEST_F(CommandLineTest, PostInstallDecidesOnTheXServerCheck) {
    // Without an accessible X server the check warns; only "no post-install" skips it.
    const struct {
        std::vector<std::string> args;
        bool checked;
    } rows[] = {
        {{}, true},
        {{"-post-install"}, false},
        {{"-Post-Install"}, false},
        {{"*post-install"}, false},   // any first character but "+" means no
        {{"+POST-INSTALL"}, true},
        {{"+post-install", "-post-install"}, false},
        {{"-post-install", "+post-install"}, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args.empty() ? "none" : row.args.back());
        RunOptions options;
        options.args = row.args;
        options.args.push_back("-d");
        options.input = "\nn\n";
        RunResult r = run(options);
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_EQ(r.out.find("Corvane Install: X server is not accessible.") != std::string::npos, row.checked)
            << r.out;
    }
}

}  // namespace
