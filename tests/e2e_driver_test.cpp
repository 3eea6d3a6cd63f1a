// End-to-end: the installation sequence as a whole, its exit status, the package choice at
// start-up and the build-time switch for an agreement accepted in advance.
#include "tests/harness.h"

#include <unistd.h>

namespace {

const char kPause[] = "<ENTER> to continue...";
const char kAgreeQuestion[] = "Do you agree to the above license terms? [yes or no]\n";

class DriverTest : public InstallerTest {
protected:
    RunResult runArgs(const std::vector<std::string>& args, const std::string& input,
                      const std::string& argv0 = "") {
        RunOptions options;
        options.argv0 = argv0;
        options.args = args;
        options.input = input;
        return run(options);
    }
    // The distribution's own installer with the switch turned on.
    void switchBypassOn() { ASSERT_EQ(enableEulaBypass(dist + "/cvinst"), 1); }
    static void expectNoOpeningScreens(const RunResult& r) {
        EXPECT_EQ(r.out.find("INSTALLATION PROGRAM"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find(kPause), std::string::npos);
        EXPECT_EQ(r.out.find("license terms"), std::string::npos);
    }
    static void expectOpeningScreens(const RunResult& r) {
        EXPECT_TRUE(appearsInOrder(r.out, {"INSTALLATION PROGRAM", kPause, kAgreeQuestion})) << r.out;
    }
};

TEST_F(DriverTest, InteractiveRunSucceeds) {
    RunResult r = runArgs({"-d", "-post-install"}, interactiveAnswers(path("inst")));
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_TRUE(appearsInOrder(r.out, {"INSTALLATION PROGRAM", kPause, kAgreeQuestion,
                                       "Install directory [/opt/corvane/]: ",
                                       "Directory " + path("inst") + "/ does not exist. Create [Y]? ",
                                       "Skipping disk space check."}))
        << r.out;
    EXPECT_TRUE(isDirectory("inst"));
}

TEST_F(DriverTest, DeclinedCreationAsksForTheDirectoryAgain) {
    RunResult r = runArgs({"-d", "-post-install"},
                          "\nyes\n" + path("notme") + "\nn\n" + path("inst") + "\n\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(countOf(r.out, "Install directory ["), 2);
    EXPECT_FALSE(exists("notme"));
    EXPECT_TRUE(isDirectory("inst"));
}

TEST_F(DriverTest, MissingPackageEndsTheRunAtStart) {
    DistOptions options;
    options.package = "";
    std::string empty = makeDistribution(options, "empty");
    RunResult r = runArgs({"-d", "-post-install"}, interactiveAnswers(path("inst")), empty + "/cvinst");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {"Corvane Install: Missing distribution file.\n",
                                       "Corvane Install: Please verify that 'cvpack' or 'cvpacku' "
                                       "or 'cvpackd' is in " + empty + "/.\n",
                                       "Corvane Install: Make sure the files are in lowercase.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("INSTALLATION PROGRAM"), std::string::npos);
    EXPECT_FALSE(exists("inst"));
}

TEST_F(DriverTest, EveryPackageNameIsFound) {
    for (const char* package : {"cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd"}) {
        DistOptions options;
        options.package = package;
        std::string other = makeDistribution(options, std::string("with-") + package);
        RunResult r = runArgs({"-d", "-post-install"}, "", other + "/cvinst");
        EXPECT_NE(r.out.find("INSTALLATION PROGRAM"), std::string::npos) << package << "\n" << r.out;
        EXPECT_EQ(r.out.find("Missing distribution file."), std::string::npos) << package;
    }
}

TEST_F(DriverTest, ShippedBuildIgnoresAnAgreementAcceptedInAdvance) {
    RunResult byOption = runArgs({"+accept-eula", "-d", "-post-install", "-destination-dir", path("a")},
                                 "");
    EXPECT_TRUE(appearsInOrder(byOption.out, {"INSTALLATION PROGRAM", kPause})) << byOption.out;
    EXPECT_EQ(byOption.exitStatus, 1);     // end of input at the pause

    writeFile(dist + "/setup.ini", "[unattended]\nAcceptEula=yes\n");
    RunResult byFile = runArgs({"-d", "-post-install", "-destination-dir", path("b")}, "\nyes\n",
                               "./cvinst");
    EXPECT_EQ(byFile.exitStatus, 0) << byFile.out;
    expectOpeningScreens(byFile);
}

TEST_F(DriverTest, PatchedBuildHonoursAcceptEulaOption) {
    switchBypassOn();
    RunResult r = runArgs({"+accept-eula", "-d", "-post-install", "-destination-dir", path("inst")}, "");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    expectNoOpeningScreens(r);
    EXPECT_TRUE(isDirectory("inst"));
}

TEST_F(DriverTest, PatchedBuildHonoursAcceptEulaInTheAnswersFile) {
    switchBypassOn();
    const char* const spellings[] = {"AcceptEula=yes", "acceptEULA=ENABLED", "ACCEPTEULA=1"};
    int n = 0;
    for (const char* line : spellings) {
        writeFile(dist + "/setup.ini", std::string("[unattended]\n") + line + "\n");
        std::string target = path("inst" + std::to_string(n++));
        RunResult r = runArgs({"-d", "-post-install", "-destination-dir", target}, "", "./cvinst");
        EXPECT_EQ(r.exitStatus, 0) << line << "\n" << r.out;
        expectNoOpeningScreens(r);
        EXPECT_TRUE(isDirectory(target)) << line;
    }
}

TEST_F(DriverTest, PatchedBuildStillAsksWithoutAnAnswer) {
    switchBypassOn();
    const std::string files[] = {"", "[unattended]\nAcceptEula=no\n", "[unattended]\nAcceptEula = yes\n",
                                 "[unattended]\nAcceptEula=maybe\n"};
    for (const std::string& content : files) {
        writeFile(dist + "/setup.ini", content);
        RunResult r = runArgs({"-d", "-post-install", "-destination-dir", path("inst")}, "\nyes\n",
                              "./cvinst");
        EXPECT_EQ(r.exitStatus, 0) << content << "\n" << r.out;
        expectOpeningScreens(r);
    }
}

TEST_F(DriverTest, PatchedBuildMinusAcceptEulaOverridesTheAnswersFile) {
    switchBypassOn();
    writeFile(dist + "/setup.ini", "[unattended]\nAcceptEula=yes\n");
    RunResult r = runArgs({"-accept-eula", "-d", "-post-install", "-destination-dir", path("inst")},
                          "\nyes\n", "./cvinst");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    expectOpeningScreens(r);
}

TEST_F(DriverTest, UnprivilegedUserCannotCreateInAForeignDirectory) {
    // The sandbox belongs to root: uid 65534 may not create the install directory in it, but
    // may in a directory handed to it.
    if (geteuid() != 0) GTEST_SKIP() << "changing to uid 65534 needs root";
    makeDirs("mine");
    giveToNobody("mine");
    RunOptions options;
    options.unprivileged = true;
    options.args = {"-d", "-post-install"};
    options.input = interactiveAnswers(path("inst"));
    RunResult r = run(options);
    EXPECT_EQ(r.exitStatus, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("Corvane Install: Insufficient access to create " + path("inst") +
                         "/. Read/Write access is required for " + sandbox + ".\n"),
              std::string::npos)
        << r.out;
    EXPECT_FALSE(exists("inst"));

    options.input = interactiveAnswers(path("mine/inst"));
    r = run(options);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_TRUE(isDirectory("mine/inst"));
}

}  // namespace
