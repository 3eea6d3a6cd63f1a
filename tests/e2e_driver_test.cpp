// End-to-end: the installation sequence as a whole and the build-time switch for an agreement
// accepted in advance.
#include "tests/harness.h"

namespace {

using DriverTest = InstallerTest;

TEST_F(DriverTest, InteractiveRunSucceeds) {
    RunResult r = runQuick(interactiveAnswers(path("inst")));
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_TRUE(appearsInOrder(r.out, {"INSTALLATION PROGRAM", kPause, kAgreeQuestion,
                                       "Install directory [/opt/corvane/]: ",
                                       "Directory " + path("inst") + "/ does not exist. Create [Y]? ",
                                       "Skipping disk space check.", "\ndone\n", "INSTALLATION SUCCESSFULLY COMPLETED",
                                       "1. Type \"" + path("inst") + "/bin/cv\" to run Corvane.\n"}))
        << r.out;
    EXPECT_TRUE(isSymlink("inst/bin/cvt"));
}

TEST_F(DriverTest, AgreementAcceptedInAdvanceCountsOnlyInAPatchedBuild) {
    std::string patched = makeDistribution(DistOptions(), "patched");
    ASSERT_EQ(enableEulaBypass(patched + "/cvinst"), 1);
    const struct {
        bool patched;
        std::string ini;
        std::vector<std::string> args;
        bool bypassed;   // no banner, no pause, no agreement
    } rows[] = {
        {false, "", {"+accept-eula"}, false},
        {false, "AcceptEula=yes", {}, false},
        {false, "", {"-accept-eula"}, false},
        {true, "", {"+accept-eula"}, true},
        {true, "AcceptEula=yes", {}, true},
        {true, "acceptEULA=ENABLED", {}, true},
        {true, "ACCEPTEULA=1", {}, true},
        {true, "AcceptEula=On", {}, true},
        {true, "", {}, false},
        {true, "AcceptEula=no", {}, false},
        {true, "AcceptEula = yes", {}, false},
        {true, "AcceptEula=maybe", {}, false},
        {true, "AcceptEula=yes", {"-accept-eula"}, false},   // the command line comes later
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE((row.patched ? "patched " : "shipped ") + row.ini + (row.args.empty() ? "" : " " + row.args[0]));
        std::string dir = row.patched ? patched : dist;
        std::string target = path("inst" + std::to_string(n++));
        writeFile(dir + "/setup.ini", "[unattended]\n" + row.ini + "\n");
        RunOptions options;
        options.argv0 = "./cvinst";
        options.cwd = dir;
        options.args = {"-d", "-post-install", "-destination-dir", target};
        options.args.insert(options.args.end(), row.args.begin(), row.args.end());
        options.input = row.bypassed ? "" : kOpening;
        RunResult r = run(options);
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_EQ(appearsInOrder(r.out, {"INSTALLATION PROGRAM", kPause, kAgreeQuestion}), !row.bypassed) << r.out;
        for (const std::string& text : {std::string("INSTALLATION PROGRAM"), kPause, std::string("license terms")})
            EXPECT_EQ(r.out.find(text) == std::string::npos, row.bypassed) << text;
        EXPECT_TRUE(isDirectory(target));
    }
}

}  // namespace
