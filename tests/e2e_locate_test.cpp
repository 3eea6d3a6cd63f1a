// End-to-end: how the installer finds its distribution directory from the name it was
// started by, seen through its verbose traces and through where a relative answer lands.
#include "tests/harness.h"

#include <unistd.h>

namespace {

class LocateTest : public InstallerTest {
protected:
    // A verbose run that ends at the pause (no input).
    RunResult runAs(const std::string& argv0, const std::string& cwd,
                    std::map<std::string, std::optional<std::string>> env = {}) {
        RunOptions options;
        options.argv0 = argv0;
        options.cwd = cwd;
        options.env = env;
        options.args = {"-v", "-d", "-post-install"};
        return run(options);
    }
    static std::string trace(const std::string& text) { return ">>> " + text; }
    // The run got past the search and chose the package, so the banner came up.
    static void expectFound(const RunResult& r) {
        EXPECT_NE(r.out.find("INSTALLATION PROGRAM"), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Unable to determine the distribution directory."), std::string::npos);
    }
};

TEST_F(LocateTest, AbsolutePath) {
    makeDirs("work");
    RunResult r = runAs(dist + "/cvinst", "work");
    EXPECT_NE(r.out.find(trace("   From full path ==> " + dist + "/.\n")), std::string::npos) << r.out;
    // The current directory is left alone.
    EXPECT_EQ(r.out.find("Changing to directory"), std::string::npos);
    expectFound(r);
}

TEST_F(LocateTest, DotSlashFromTheDistribution) {
    RunResult r = runAs("./cvinst", dist);
    EXPECT_TRUE(appearsInOrder(r.out, {trace("   Current directory is " + dist + ".\n"),
                                       trace("   Changing to directory .\n"),
                                       trace("   New current directory is " + dist + "/\n"),
                                       trace("   From relative path ==> " + dist + "/.\n")}))
        << r.out;
    expectFound(r);
}

TEST_F(LocateTest, RelativePathChangesIntoTheDistribution) {
    RunResult r = runAs("dist/cvinst", sandbox);
    EXPECT_TRUE(appearsInOrder(r.out, {trace("   Current directory is " + sandbox + ".\n"),
                                       trace("   Changing to directory dist\n"),
                                       trace("   New current directory is " + dist + "/\n"),
                                       trace("   From relative path ==> " + dist + "/.\n")}))
        << r.out;
    expectFound(r);
}

TEST_F(LocateTest, BareNameFoundAlongPath) {
    RunResult r = runAs("cvinst", sandbox, {{"PATH", "/usr/local/bin:/usr/bin:/bin:" + dist}});
    EXPECT_NE(r.out.find(trace("   From PATH ==> " + dist + "/.\n")), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Changing to directory"), std::string::npos);
    expectFound(r);
}

TEST_F(LocateTest, EmptyPathEntriesAreSkipped) {
    RunResult r = runAs("cvinst", sandbox, {{"PATH", "::/usr/bin:::/bin:" + dist + "/"}});
    EXPECT_NE(r.out.find(trace("   From PATH ==> " + dist + "/.\n")), std::string::npos) << r.out;
    expectFound(r);
}

TEST_F(LocateTest, RelativePathEntry) {
    RunResult r = runAs("cvinst", sandbox, {{"PATH", "/usr/bin:/bin:dist"}});
    EXPECT_TRUE(appearsInOrder(r.out, {trace("   Changing to directory dist\n"),
                                       trace("   From relative path in PATH ==> " + dist + "/.\n")}))
        << r.out;
    expectFound(r);
}

TEST_F(LocateTest, DirectoryOfTheSameNameIsPassedOver) {
    makeDirs("decoy/cvinst");
    RunResult r = runAs("cvinst", sandbox, {{"PATH", path("decoy") + ":/usr/bin:/bin:" + dist}});
    EXPECT_NE(r.out.find(trace("   From PATH ==> " + dist + "/.\n")), std::string::npos) << r.out;
    expectFound(r);
}

TEST_F(LocateTest, NonExecutableFileOfTheSameNameIsTaken) {
    // The search only asks for a regular file; that directory has no package, so the run
    // stops there and names it.
    writeFile("decoy/cvinst", "not a program\n", 0644);
    RunResult r = runAs("cvinst", sandbox, {{"PATH", path("decoy") + ":/usr/bin:/bin:" + dist}});
    EXPECT_NE(r.out.find(trace("   From PATH ==> " + path("decoy") + "/.\n")), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Corvane Install: Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in " +
                         path("decoy") + "/.\n"),
              std::string::npos);
    EXPECT_EQ(r.exitStatus, 1);
}

TEST_F(LocateTest, UnsetOrEmptyPathFailsForABareName) {
    const std::optional<std::string> settings[] = {std::nullopt, std::string(""),
                                                   std::string("/usr/bin:/bin:")};
    for (const auto& setting : settings) {
        RunResult r = runAs("cvinst", sandbox, {{"PATH", setting}});
        EXPECT_EQ(r.exitStatus, 1) << (setting ? *setting : "unset");
        EXPECT_NE(r.out.find("Corvane Install: Unable to determine the distribution directory.\n"),
                  std::string::npos)
            << r.out;
        EXPECT_EQ(r.out.find("INSTALLATION PROGRAM"), std::string::npos);
    }
}

TEST_F(LocateTest, LinkElsewhereNamesTheLinksDirectory) {
    makeDirs("links");
    ASSERT_EQ(symlink((dist + "/cvinst").c_str(), path("links/cvinst").c_str()), 0);
    RunResult r = runAs(path("links/cvinst"), sandbox);
    EXPECT_NE(r.out.find(trace("   From full path ==> " + path("links") + "/.\n")), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Corvane Install: Missing distribution file.\n"), std::string::npos);
    EXPECT_EQ(r.exitStatus, 1);
}

// A relative install directory is taken from the current directory after the search, so it
// shows whether the installer changed into its own directory.
TEST_F(LocateTest, RelativeAnswerFollowsTheCurrentDirectory) {
    makeDirs("work");
    RunOptions absolute;
    absolute.argv0 = dist + "/cvinst";
    absolute.cwd = "work";
    absolute.args = {"-d", "-post-install"};
    absolute.input = interactiveAnswers("inst");
    RunResult r = run(absolute);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(isDirectory("work/inst"));
    EXPECT_FALSE(exists(dist + "/inst"));

    RunOptions relative = absolute;
    relative.argv0 = "dist/cvinst";
    relative.cwd = sandbox;
    relative.input = interactiveAnswers("inst2");
    r = run(relative);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(isDirectory(dist + "/inst2"));
    EXPECT_FALSE(exists("inst2"));
}

}  // namespace
