// End-to-end: the environment checks of a real run. Tools are offered through a directory of
// links to the system's own programs, the X server is a real Xvfb, and the file systems of
// the disk-space check are tmpfs mounts of known size.
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>

#include "tests/harness.h"

namespace {

const char* const kTools[] = {"uname", "cp", "mv", "rm", "mkdir", "tar", "uncompress", "chgrp", "chown", "touch", "more"};
const char kAgreeQuestion[] = "Do you agree to the above license terms? [yes or no]\n";
const char kSystemPath[] = "/usr/local/bin:/usr/bin:/bin";

// Where the system keeps a program, searched along the harness's default PATH; empty if nowhere.
std::string systemProgram(const std::string& name) {
    for (const char* dir : {"/usr/local/bin", "/usr/bin", "/bin"}) {
        std::string candidate = std::string(dir) + "/" + name;
        struct stat info;
        if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode)) return candidate;
    }
    return "";
}

class ToolsTest : public InstallerTest {
protected:
    // <sandbox>/<name>: links to the real programs of the given names.
    std::string linkTools(const std::string& name, const std::vector<std::string>& tools) {
        std::string dir = path(name);
        makeDirs(dir);
        for (const std::string& tool : tools) {
            std::string real = systemProgram(tool);
            EXPECT_FALSE(real.empty()) << tool << " is not installed";
            EXPECT_EQ(symlink(real.c_str(), (dir + "/" + tool).c_str()), 0) << tool;
        }
        return dir;
    }
    static std::vector<std::string> toolsWithout(const std::string& missing) {
        std::vector<std::string> tools;
        for (const char* tool : kTools) {
            if (missing != tool) tools.push_back(tool);
        }
        return tools;
    }
    // Runs until the agreement question, which reaches end of input.
    RunResult runWithPath(const std::optional<std::string>& pathValue, bool verbose = false) {
        RunOptions options;
        options.args = {"-post-install", "-d"};
        if (verbose) options.args.push_back("-v");
        options.env["PATH"] = pathValue;
        options.input = "\n";
        return run(options);
    }
};

TEST_F(ToolsTest, EveryToolIsTracedWithWhereItWasFound) {
    RunResult r = runWithPath(std::string(kSystemPath), true);
    EXPECT_FALSE(r.timedOut);
    std::vector<std::string> expected = {std::string(">>> Checking tools: PATH=") + kSystemPath + "\n"};
    for (const char* tool : kTools) {
        std::string real = systemProgram(tool);
        ASSERT_FALSE(real.empty()) << tool;
        // The first directory along PATH that holds the tool.
        expected.push_back(std::string(">>>    ") + tool + " ... >>> Found at " + real.substr(0, real.rfind('/') + 1) + "\n");
    }
    expected.push_back(kAgreeQuestion);
    EXPECT_TRUE(appearsInOrder(r.out, expected)) << r.out;
    EXPECT_EQ(r.out.find("is not found in your PATH"), std::string::npos);
}

TEST_F(ToolsTest, MissingToolStopsTheRunBeforeTheAgreement) {
    std::string dir = linkTools("tools", toolsWithout("chown"));
    RunResult r = runWithPath(dir, true);
    EXPECT_EQ(r.exitStatus, 1) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {">>>    chgrp ... >>> Found at " + dir + "/\n",
                                       ">>>    chown ... >>> Missing\n",
                                       "Corvane Install: 'chown' is not found in your PATH.\n"
                                       "Corvane Install: Please add it to your path and restart the installation.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("   touch ... "), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("license terms"), std::string::npos);
}

TEST_F(ToolsTest, ZcatStandsInForUncompress) {
    std::vector<std::string> tools = toolsWithout("uncompress");
    tools.push_back("zcat");
    std::string dir = linkTools("tools", tools);
    RunResult r = runWithPath(dir, true);
    EXPECT_TRUE(appearsInOrder(r.out, {">>>    uncompress ... >>> Missing >>> trying zcat ... >>> Found at " + dir + "/\n",
                                       ">>>    more ... >>> Found at " + dir + "/\n", kAgreeQuestion}))
        << r.out;
    EXPECT_EQ(r.out.find("is not found in your PATH"), std::string::npos);
}

TEST_F(ToolsTest, NeitherUncompressNorZcatNamesUncompress) {
    std::string dir = linkTools("tools", toolsWithout("uncompress"));
    RunResult r = runWithPath(dir);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("Corvane Install: 'uncompress' is not found in your PATH.\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("zcat' is not found"), std::string::npos);
}

TEST_F(ToolsTest, FileWithoutExecuteBitCountsAsFound) {
    std::string dir = linkTools("tools", toolsWithout("touch"));
    writeFile(dir + "/touch", "not a program\n", 0644);
    RunResult r = runWithPath(dir);
    EXPECT_NE(r.out.find(kAgreeQuestion), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("is not found in your PATH"), std::string::npos);
}

TEST_F(ToolsTest, DirectoryOfTheToolsNameDoesNotCount) {
    std::string dir = linkTools("tools", toolsWithout("touch"));
    makeDirs(dir + "/touch");
    RunResult r = runWithPath(dir);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("Corvane Install: 'touch' is not found in your PATH.\n"), std::string::npos) << r.out;
}

TEST_F(ToolsTest, ToolsSpreadOverSeveralDirectoriesAreFoundInEach) {
    std::string first = linkTools("first", {"uname", "cp", "mv", "rm", "mkdir"});
    std::string second = linkTools("second", {"tar", "uncompress", "chgrp", "chown", "touch", "more"});
    RunResult r = runWithPath(first + "::" + second, true);
    EXPECT_TRUE(appearsInOrder(r.out, {">>>    mkdir ... >>> Found at " + first + "/\n",
                                       ">>>    tar ... >>> Found at " + second + "/\n", kAgreeQuestion}))
        << r.out;
}

TEST_F(ToolsTest, UnsetPathIsShownEmptyAndMissesUname) {
    RunResult r = runWithPath(std::nullopt, true);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {">>> Checking tools: PATH=<EMPTY>\n", ">>>    uname ... >>> Missing\n",
                                       "Corvane Install: 'uname' is not found in your PATH.\n"}))
        << r.out;
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

class XServerTest : public InstallerTest {
protected:
    void TearDown() override {
        stopXvfb();
        InstallerTest::TearDown();
    }

    // Starts Xvfb on a display nobody uses; the display name, or empty with the reason in why.
    std::string startXvfb(std::string* why) {
        std::string program = systemProgram("Xvfb");
        if (program.empty()) {
            *why = "Xvfb is not installed";
            return "";
        }
        int number = 40 + static_cast<int>(getpid() % 400);
        for (int attempt = 0; attempt < 30; attempt++, number++) {
            std::string socketPath = "/tmp/.X11-unix/X" + std::to_string(number);
            std::string lockPath = "/tmp/.X" + std::to_string(number) + "-lock";
            if (access(socketPath.c_str(), F_OK) == 0 || access(lockPath.c_str(), F_OK) == 0) continue;
            std::string display = ":" + std::to_string(number);
            pid_t pid = fork();
            if (pid < 0) break;
            if (pid == 0) {
                int devnull = open("/dev/null", O_RDWR);
                dup2(devnull, 0);
                dup2(devnull, 1);
                dup2(devnull, 2);
                execl(program.c_str(), "Xvfb", display.c_str(), "-nolisten", "tcp", static_cast<char*>(nullptr));
                _exit(127);
            }
            xvfbPid = pid;
            if (waitForServer(socketPath, lockPath)) return display;
            stopXvfb();
        }
        *why = "Xvfb could not be started on any free display";
        return "";
    }

    // True once the socket is there and the lock names our server; false when it gave up.
    bool waitForServer(const std::string& socketPath, const std::string& lockPath) {
        for (int i = 0; i < 200; i++) {
            int status = 0;
            if (waitpid(xvfbPid, &status, WNOHANG) == xvfbPid) {
                xvfbPid = -1;
                return false;
            }
            if (access(socketPath.c_str(), F_OK) == 0) {
                FILE* lock = fopen(lockPath.c_str(), "r");
                long owner = -1;
                if (lock != nullptr) {
                    if (fscanf(lock, "%ld", &owner) != 1) owner = -1;
                    fclose(lock);
                }
                if (owner == xvfbPid) return true;
            }
            usleep(50 * 1000);
        }
        return false;
    }

    void stopXvfb() {
        if (xvfbPid <= 0) return;
        kill(xvfbPid, SIGTERM);
        for (int i = 0; i < 100; i++) {
            if (waitpid(xvfbPid, nullptr, WNOHANG) == xvfbPid) {
                xvfbPid = -1;
                return;
            }
            usleep(20 * 1000);
        }
        kill(xvfbPid, SIGKILL);
        waitpid(xvfbPid, nullptr, 0);
        xvfbPid = -1;
    }

    RunResult runChecks(const std::vector<std::string>& args, const std::optional<std::string>& display,
                        const std::string& input) {
        RunOptions options;
        options.args = args;
        options.args.push_back("-d");
        options.env["DISPLAY"] = display;
        options.input = input;
        return run(options);
    }

    pid_t xvfbPid = -1;
};

TEST_F(XServerTest, ReachableServerPassesWithoutWarning) {
    std::string why;
    std::string display = startXvfb(&why);
    if (display.empty()) GTEST_SKIP() << why;
    RunResult r = runChecks({"-v"}, display, "\nyes\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_TRUE(appearsInOrder(r.out, {">>> Checking X server:\n", kAgreeQuestion,
                                       "Corvane Install: Cannot query install directory.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("X server is not accessible"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Continue installation"), std::string::npos);
}

TEST_F(XServerTest, NoDisplayWarnsAndNoStops) {
    RunResult r = runChecks({}, std::nullopt, "\nn\nyes\n");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {"<ENTER> to continue...", kXWarning + "\n"})) << r.out;
    EXPECT_EQ(r.out.find("license terms"), std::string::npos) << "the run must stop at the X question";
}

TEST_F(XServerTest, UnservedDisplayWarnsAndYesContinues) {
    // A display number whose socket does not exist: nobody serves it.
    int number = 900;
    while (access(("/tmp/.X11-unix/X" + std::to_string(number)).c_str(), F_OK) == 0) number++;
    RunResult r = runChecks({}, ":" + std::to_string(number), "\ny\nyes\n");
    EXPECT_TRUE(appearsInOrder(r.out, {kXWarning + "\n", kAgreeQuestion, "Install directory [/opt/corvane/]: "}))
        << r.out;
}

TEST_F(XServerTest, EmptyAnswerIsNo) {
    RunResult r = runChecks({}, std::nullopt, "\n\nyes\n");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find(kXWarning), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("license terms"), std::string::npos);
}

TEST_F(XServerTest, EndOfInputAtTheQuestionStops) {
    RunResult r = runChecks({}, std::nullopt, "\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find(kXWarning), std::string::npos) << r.out;
}

TEST_F(XServerTest, PostInstallAnswersDecideWhetherTheCheckRuns) {
    RunResult skipped = runChecks({"-post-install"}, std::nullopt, "\n");
    EXPECT_EQ(skipped.out.find("X server is not accessible"), std::string::npos) << skipped.out;
    EXPECT_NE(skipped.out.find(kAgreeQuestion), std::string::npos) << skipped.out;

    RunResult requested = runChecks({"+post-install"}, std::nullopt, "\n");
    EXPECT_NE(requested.out.find(kXWarning), std::string::npos) << requested.out;

    writeFile(dist + "/setup.ini", "[unattended]\nPostInstall=no\n");
    RunResult fromFile = runChecks({}, std::nullopt, "\n");
    EXPECT_EQ(fromFile.out.find("X server is not accessible"), std::string::npos) << fromFile.out;
}

TEST_F(XServerTest, PluginModeDoesNotAskForTheXServer) {
    DistOptions options;
    options.package = "cvpackep";
    std::string plugin = makeDistribution(options, "plugin");
    RunOptions run1;
    run1.argv0 = plugin + "/cvinst";
    run1.cwd = plugin;
    run1.input = "\n";
    RunResult r = run(run1);
    EXPECT_NE(r.out.find(kAgreeQuestion), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("X server is not accessible"), std::string::npos) << r.out;
}

// tmpfs mounts inside the sandbox, taken down before the sandbox goes.
class DiskSpaceTest : public InstallerTest {
protected:
    void TearDown() override {
        for (const std::string& point : mounts) umount2(point.c_str(), MNT_DETACH);
        InstallerTest::TearDown();
    }
    // A tmpfs at <sandbox>/<name>; empty with the reason in why when mounting is not allowed.
    std::string mountTmpfs(const std::string& name, const std::string& size, std::string* why) {
        std::string point = path(name);
        makeDirs(point);
        std::string options = "size=" + size + ",mode=0755";
        if (mount("tmpfs", point.c_str(), "tmpfs", 0, options.c_str()) != 0) {
            *why = "mounting a tmpfs is not permitted here: " + std::string(strerror(errno));
            return "";
        }
        mounts.push_back(point);
        return point;
    }
    RunResult install(const std::string& installDir, const std::vector<std::string>& extra = {}) {
        RunOptions options;
        options.args = {"-post-install"};
        options.args.insert(options.args.end(), extra.begin(), extra.end());
        options.input = interactiveAnswers(installDir);
        return run(options);
    }

    std::vector<std::string> mounts;
};

TEST_F(DiskSpaceTest, SmallFileSystemIsRefusedWithItsFreeSpace) {
    std::string why;
    std::string small = mountTmpfs("small", "100m", &why);
    if (small.empty()) GTEST_SKIP() << why;
    RunResult r = install(small + "/inst");
    EXPECT_EQ(r.exitStatus, 1) << r.out;
    struct statfs info;
    ASSERT_EQ(statfs((small + "/inst").c_str(), &info), 0);
    char expected[1024];
    snprintf(expected, sizeof(expected),
             "Corvane Install: Insufficient free disk space. Need 167 MB but %s/inst/ only has %.2f MB.\n",
             small.c_str(), (double)info.f_bsize * (double)info.f_bavail / 1048576.0);
    EXPECT_NE(std::string(expected).find("only has 100.00 MB."), std::string::npos) << expected;
    EXPECT_TRUE(appearsInOrder(r.out, {"\nChecking disk space. Please wait...\n", expected})) << r.out;
}

TEST_F(DiskSpaceTest, ExactlyTheNeededSpacePasses) {
    std::string why;
    std::string exact = mountTmpfs("exact", "167m", &why);
    if (exact.empty()) GTEST_SKIP() << why;
    struct statfs info;
    ASSERT_EQ(statfs(exact.c_str(), &info), 0);
    ASSERT_EQ((double)info.f_bsize * (double)info.f_bavail, 167.0 * 1048576.0);
    RunResult r = install(exact + "/inst", {"-v"});
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    char blocks[256];
    snprintf(blocks, sizeof(blocks), ">>> checkDiskSpace blkavail=%.0f blocks of size blksize=%.0f, inodeavail=",
             (double)info.f_bavail, (double)info.f_bsize);
    EXPECT_TRUE(appearsInOrder(r.out, {"Checking disk space. Please wait...\n", blocks,
                                       ">>> checkDiskSpace availM=167.00 MB needM=167.00 MB\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("Insufficient free disk space"), std::string::npos) << r.out;
}

TEST_F(DiskSpaceTest, SkippedCheckLooksAtNothing) {
    std::string why;
    std::string small = mountTmpfs("small", "10m", &why);
    if (small.empty()) GTEST_SKIP() << why;
    RunResult r = install(small + "/inst", {"-d"});
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("\nSkipping disk space check.\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Checking disk space"), std::string::npos);
    EXPECT_EQ(r.out.find("Insufficient free disk space"), std::string::npos);
    EXPECT_FALSE(exists(small + "/inst/SPACECHECK"));
}

}  // namespace
