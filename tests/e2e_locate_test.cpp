// End-to-end: how the installer finds its distribution directory from the name it was
// started by, seen through its verbose traces and through where a relative answer lands.
#include "tests/harness.h"

#include <unistd.h>

namespace {

using LocateTest = InstallerTest;

std::string trace(const std::string& text) { return ">>>    " + text; }

TEST_F(LocateTest, EveryFormOfTheProgramName) {
    makeDirs("work");
    makeDirs("decoy/cvinst");                                  // a directory does not count
    writeFile("plain/cvinst", "not a program\n", 0644);        // a regular file does, even so
    makeDirs("links");
    ASSERT_EQ(symlink((dist + "/cvinst").c_str(), path("links/cvinst").c_str()), 0);
    const std::string sys = "/usr/local/bin:/usr/bin:/bin";
    const std::string unable = "Corvane Install: Unable to determine the distribution directory.\n";
    const std::string missing = "Corvane Install: Missing distribution file.\n";
    const std::string fromPath = trace("From PATH ==> " + dist + "/.\n");
    const struct {
        std::string argv0, cwd;
        std::optional<std::string> pathVariable;
        std::vector<std::string> expected;   // in this order
        bool found;                          // the banner came up
        bool changesDirectory;
    } rows[] = {
        {dist + "/cvinst", "work", sys, {trace("From full path ==> " + dist + "/.\n")}, true, false},
        {"./cvinst", dist, sys,
         {trace("Current directory is " + dist + ".\n"), trace("Changing to directory .\n"),
          trace("New current directory is " + dist + "/\n"), trace("From relative path ==> " + dist + "/.\n")},
         true, true},
        {"dist/cvinst", sandbox, sys,
         {trace("Current directory is " + sandbox + ".\n"), trace("Changing to directory dist\n"),
          trace("New current directory is " + dist + "/\n"), trace("From relative path ==> " + dist + "/.\n")},
         true, true},
        {"cvinst", sandbox, sys + ":" + dist, {fromPath}, true, false},
        // empty entries are not the working directory, which holds a "cvinst" here
        {"cvinst", "plain", "::/usr/bin:::/bin:" + dist + "/", {fromPath}, true, false},
        {"cvinst", sandbox, path("decoy") + ":" + sys + ":" + dist, {fromPath}, true, false},
        // an entry too long for a path is passed over, not cut down to the distribution
        {"cvinst", sandbox, dist + std::string(600, '/') + "x:" + dist, {fromPath}, true, false},
        {"cvinst", sandbox, "/usr/bin:/bin:dist",
         {trace("Changing to directory dist\n"), trace("From relative path in PATH ==> " + dist + "/.\n")}, true,
         true},
        {"cvinst", sandbox, path("plain") + ":" + sys + ":" + dist,
         {trace("From PATH ==> " + path("plain") + "/.\n"),
          "Corvane Install: Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in " + path("plain") + "/.\n"},
         false, false},
        {path("links/cvinst"), sandbox, sys, {trace("From full path ==> " + path("links") + "/.\n"), missing},
         false, false},
        {"cvinst", sandbox, std::nullopt, {unable}, false, false},
        {"cvinst", sandbox, std::string(""), {unable}, false, false},
        {"cvinst", sandbox, std::string("/usr/bin:/bin:"), {unable}, false, false},
        {"missing/cvinst", sandbox, sys, {trace("Changing to directory missing\n"), unable}, false, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.argv0 + " with PATH " + (row.pathVariable ? row.pathVariable->substr(0, 80) : "unset"));
        RunOptions options;
        options.argv0 = row.argv0;
        if (row.argv0 == "missing/cvinst") options.program = dist + "/cvinst";
        options.cwd = row.cwd;
        options.env["PATH"] = row.pathVariable;
        options.args = {"-v", "-d", "-post-install"};
        RunResult r = run(options);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 1) << "end of input at the pause, or no distribution";
        EXPECT_TRUE(appearsInOrder(r.out, row.expected)) << r.out;
        EXPECT_EQ(r.out.find("INSTALLATION PROGRAM") != std::string::npos, row.found) << r.out;
        EXPECT_EQ(r.out.find("Changing to directory") != std::string::npos, row.changesDirectory);
    }
}

// A relative install directory is taken from the current directory after the search, so it
// shows whether the installer changed into its own directory.
TEST_F(LocateTest, RelativeAnswerFollowsTheCurrentDirectory) {
    makeDirs("work");
    RunOptions options;
    options.cwd = "work";
    options.args = {"-d", "-post-install"};
    options.input = interactiveAnswers("inst");
    EXPECT_EQ(run(options).exitStatus, 0);
    EXPECT_TRUE(isDirectory("work/inst"));

    options.argv0 = "dist/cvinst";
    options.cwd = sandbox;
    options.input = interactiveAnswers("inst2");
    EXPECT_EQ(run(options).exitStatus, 0);
    EXPECT_TRUE(isDirectory(dist + "/inst2"));
    EXPECT_FALSE(exists("inst2"));
    EXPECT_FALSE(exists(dist + "/inst"));
}

}  // namespace
