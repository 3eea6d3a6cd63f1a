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

const char kDirQuestion[] = "Install directory [";

class CommandLineTest : public InstallerTest {
protected:
    RunResult runArgs(const std::vector<std::string>& args, const std::string& input) {
        RunOptions options;
        options.args = args;
        options.input = input;
        return run(options);
    }
    // Input for a run whose install directory is preset: the pause and the agreement.
    static std::string presetAnswers() { return "\nyes\n"; }
};

TEST_F(CommandLineTest, HelpPrintsTheUsageTextAndSucceeds) {
    for (const char* option : {"-h", "-?"}) {
        RunResult r = runArgs({option}, "");
        EXPECT_EQ(r.exitStatus, 0) << option;
        EXPECT_EQ(r.out, kUsage) << option;
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(CommandLineTest, HelpEndsTheRunBeforeAnythingElse) {
    // No package in the distribution: a run would fail, but the usage text comes first.
    DistOptions options;
    options.package = "";
    std::string empty = makeDistribution(options, "empty");
    RunOptions runOptions;
    runOptions.argv0 = empty + "/cvinst";
    runOptions.cwd = empty;
    runOptions.args = {"-v", "-h", "-destination-dir", path("inst"), "-?", "-bogus"};
    RunResult r = run(runOptions);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out, kUsage);
    EXPECT_FALSE(exists("inst"));
}

TEST_F(CommandLineTest, HelpOptionsAreExact) {
    RunResult r = runArgs({"-H", "--h", "+h", "-help", "-d", "-post-install"}, "");
    EXPECT_EQ(r.exitStatus, 1);   // end of input at the pause
    EXPECT_EQ(r.out.find("USAGE:"), std::string::npos);
    EXPECT_NE(r.out.find("<ENTER> to continue..."), std::string::npos);
}

TEST_F(CommandLineTest, DashOTakesTheNextArgumentWhateverItIs) {
    // "-h" is the value of "-o" here, not a request for help.
    RunResult r = runArgs({"-o", "-h", "-d", "-post-install"}, "");
    EXPECT_EQ(r.out.find("USAGE:"), std::string::npos);
    EXPECT_NE(r.out.find("INSTALLATION PROGRAM"), std::string::npos);
    // "-v" is swallowed the same way: no traces.
    r = runArgs({"-o", "-v", "-d", "-post-install"}, "");
    EXPECT_EQ(countOf(r.out, ">>> "), 0) << r.out;
}

TEST_F(CommandLineTest, VerboseTurnsOnTraces) {
    RunResult quiet = runArgs({"-d", "-post-install"}, "");
    EXPECT_EQ(countOf(quiet.out, ">>> "), 0) << quiet.out;
    RunResult traced = runArgs({"-v", "-d", "-post-install"}, "");
    EXPECT_NE(traced.out.find(">>> Finding the full path to executable...\n"), std::string::npos)
        << traced.out;
}

TEST_F(CommandLineTest, ExactOptionsAreCaseSensitive) {
    RunResult r = runArgs({"-V", "-D", "-post-install"},
                          "\nyes\n" + path("inst") + "\ny\n");
    EXPECT_EQ(countOf(r.out, ">>> "), 0) << r.out;
    EXPECT_EQ(r.out.find("Skipping disk space check."), std::string::npos);
    EXPECT_NE(r.out.find("Checking disk space. Please wait..."), std::string::npos) << r.out;
}

TEST_F(CommandLineTest, DashDSkipsTheDiskSpaceCheck) {
    RunResult r = runArgs({"-d", "-post-install"}, interactiveAnswers(path("inst")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("\nSkipping disk space check.\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Checking disk space"), std::string::npos);
}

TEST_F(CommandLineTest, DestinationDirPresetsTheInstallDirectory) {
    RunResult r = runArgs({"-d", "-post-install", "-destination-dir", path("inst")},
                          presetAnswers());
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.out.find(kDirQuestion), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Create [Y]?"), std::string::npos);
    EXPECT_TRUE(isDirectory("inst"));
}

TEST_F(CommandLineTest, LongOptionsIgnoreCaseAndTheirFirstCharacter) {
    int n = 0;
    for (const char* spelling : {"-DESTINATION-DIR", "+destination-dir", "xDestination-Dir"}) {
        std::string target = path("inst" + std::to_string(n++));
        RunResult r = runArgs({"-d", "-post-install", spelling, target}, presetAnswers());
        EXPECT_EQ(r.exitStatus, 0) << spelling << "\n" << r.out;
        EXPECT_EQ(r.out.find(kDirQuestion), std::string::npos) << spelling;
        EXPECT_TRUE(isDirectory(target)) << spelling;
    }
}

TEST_F(CommandLineTest, DoubleDashLongOptionIsNotRecognised) {
    RunResult r = runArgs({"-d", "-post-install", "--destination-dir", path("other")},
                          interactiveAnswers(path("inst")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find(kDirQuestion), std::string::npos);
    EXPECT_TRUE(isDirectory("inst"));
    EXPECT_FALSE(exists("other"));
}

TEST_F(CommandLineTest, PathOptionFollowedByAnOptionIsDropped) {
    // "-v" is not taken as the path: it is an option of its own and turns on the traces.
    RunResult r = runArgs({"-d", "-post-install", "-destination-dir", "-v"},
                          interactiveAnswers(path("inst")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find(kDirQuestion), std::string::npos);
    EXPECT_NE(r.out.find(">>> "), std::string::npos);
    EXPECT_FALSE(exists(dist + "/-v"));
}

TEST_F(CommandLineTest, PathOptionAtTheEndChangesNothing) {
    RunResult r = runArgs({"-d", "-post-install", "-destination-dir"},
                          interactiveAnswers(path("inst")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find(kDirQuestion), std::string::npos);
}

TEST_F(CommandLineTest, LaterOptionWins) {
    RunResult r = runArgs({"-d", "-post-install", "-destination-dir", path("first"),
                           "-destination-dir", path("second")},
                          presetAnswers());
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(isDirectory("second"));
    EXPECT_FALSE(exists("first"));
}

TEST_F(CommandLineTest, UnknownArgumentsAreIgnoredSilently) {
    RunResult r = runArgs({"-d", "-post-install", "bogus", "-x", "+", "-", ""},
                          interactiveAnswers(path("inst")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.err, "");
}

TEST_F(CommandLineTest, PostInstallOptionIgnoresCase) {
    // Without an accessible X server the check asks whether to go on; an explicit
    // "-post-install" in any case skips that check.
    RunResult skipped = runArgs({"-d", "-Post-Install"}, interactiveAnswers(path("inst")));
    EXPECT_EQ(skipped.exitStatus, 0) << skipped.out;
    EXPECT_EQ(skipped.out.find("X server is not accessible"), std::string::npos) << skipped.out;

    RunResult checked = runArgs({"-d"}, "\nn\n");
    EXPECT_NE(checked.out.find("Corvane Install: X server is not accessible."), std::string::npos)
        << checked.out;
    EXPECT_EQ(checked.exitStatus, 1);
}

TEST_F(CommandLineTest, AcceptEulaIsIgnoredByTheShippedBuild) {
    for (const char* option : {"+accept-eula", "-accept-eula"}) {
        RunResult r = runArgs({option, "-d", "-post-install", "-destination-dir", path("inst")},
                              "\nyes\n");
        EXPECT_EQ(r.exitStatus, 0) << option << "\n" << r.out;
        EXPECT_NE(r.out.find("INSTALLATION PROGRAM"), std::string::npos) << option;
        EXPECT_NE(r.out.find("Do you agree to the above license terms?"), std::string::npos);
    }
}

}  // namespace
