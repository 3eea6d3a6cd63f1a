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
    // A verbose run until the agreement question, which reaches end of input.
    RunResult runWithPath(const std::optional<std::string>& pathValue) {
        RunOptions options;
        options.args = {"-post-install", "-d", "-v"};
        options.env["PATH"] = pathValue;
        options.input = "\n";
        return run(options);
    }
};

TEST_F(ToolsTest, EveryToolIsTracedWithWhereItWasFound) {
    RunResult r = runWithPath(std::string(kSystemPath));
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

TEST_F(ToolsTest, WhatCountsAsAToolAndWhatStopsTheRun) {
    std::string noChown = linkTools("nochown", toolsWithout("chown"));
    std::vector<std::string> withZcat = toolsWithout("uncompress");
    withZcat.push_back("zcat");
    std::string zcat = linkTools("zcat", withZcat);
    std::string noUncompress = linkTools("nouncompress", toolsWithout("uncompress"));
    std::string fileTouch = linkTools("filetouch", toolsWithout("touch"));
    writeFile(fileTouch + "/touch", "not a program\n", 0644);
    std::string dirTouch = linkTools("dirtouch", toolsWithout("touch"));
    makeDirs(dirTouch + "/touch");
    std::string first = linkTools("first", {"uname", "cp", "mv", "rm", "mkdir"});
    std::string second = linkTools("second", {"tar", "uncompress", "chgrp", "chown", "touch", "more"});
    auto notFound = [](const std::string& tool) {
        return "Corvane Install: '" + tool + "' is not found in your PATH.\n"
               "Corvane Install: Please add it to your path and restart the installation.\n";
    };
    const struct {
        std::optional<std::string> pathVariable;
        std::vector<std::string> shown;   // in this order
        std::string missing;              // the tool reported, empty when the run goes on
    } rows[] = {
        {noChown, {">>>    chgrp ... >>> Found at " + noChown + "/\n", ">>>    chown ... >>> Missing\n", notFound("chown")},
         "chown"},
        {zcat, {">>>    uncompress ... >>> Missing >>> trying zcat ... >>> Found at " + zcat + "/\n",
                ">>>    more ... >>> Found at " + zcat + "/\n", kAgreeQuestion}, ""},
        {noUncompress, {notFound("uncompress")}, "uncompress"},
        {fileTouch, {">>>    touch ... >>> Found at " + fileTouch + "/\n", kAgreeQuestion}, ""},
        {dirTouch, {notFound("touch")}, "touch"},
        {first + "::" + second, {">>>    mkdir ... >>> Found at " + first + "/\n",
                                 ">>>    tar ... >>> Found at " + second + "/\n", kAgreeQuestion}, ""},
        {std::nullopt, {">>> Checking tools: PATH=<EMPTY>\n", ">>>    uname ... >>> Missing\n", notFound("uname")},
         "uname"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pathVariable ? *row.pathVariable : "unset");
        RunResult r = runWithPath(row.pathVariable);
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_TRUE(appearsInOrder(r.out, row.shown)) << r.out;
        EXPECT_EQ(countOf(r.out, "is not found in your PATH"), row.missing.empty() ? 0 : 1) << r.out;
        if (!row.missing.empty()) {
            EXPECT_EQ(r.out.find("   more ... "), std::string::npos) << "the check goes on after a missing tool";
            EXPECT_EQ(r.out.find("license terms"), std::string::npos);
        }
    }
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
        *why = program.empty() ? "Xvfb is not installed" : "Xvfb could not be started on any free display";
        for (int attempt = 0, number = 40 + getpid() % 400; !program.empty() && attempt < 30; attempt++, number++) {
            std::string socketPath = "/tmp/.X11-unix/X" + std::to_string(number);
            std::string lockPath = "/tmp/.X" + std::to_string(number) + "-lock";
            if (access(socketPath.c_str(), F_OK) == 0 || access(lockPath.c_str(), F_OK) == 0) continue;
            std::string display = ":" + std::to_string(number);
            xvfbPid = fork();
            if (xvfbPid < 0) break;
            if (xvfbPid == 0) {
                int devnull = open("/dev/null", O_RDWR);
                for (int fd = 0; fd < 3; fd++) dup2(devnull, fd);
                execl(program.c_str(), "Xvfb", display.c_str(), "-nolisten", "tcp", static_cast<char*>(nullptr));
                _exit(127);
            }
            // Ready once the socket is there and the lock names our server.
            for (int i = 0; i < 200 && xvfbPid > 0; i++, usleep(50 * 1000)) {
                if (waitpid(xvfbPid, nullptr, WNOHANG) == xvfbPid) xvfbPid = -1;   // it gave up
                long owner = -1;
                if (FILE* lock = access(socketPath.c_str(), F_OK) == 0 ? fopen(lockPath.c_str(), "r") : nullptr) {
                    if (fscanf(lock, "%ld", &owner) != 1) owner = -1;
                    fclose(lock);
                }
                if (xvfbPid > 0 && owner == xvfbPid) return display;
            }
            stopXvfb();
        }
        return "";
    }

    void stopXvfb() {
        if (xvfbPid <= 0) return;
        kill(xvfbPid, SIGTERM);
        for (int i = 0; i < 100; i++, usleep(20 * 1000)) {
            if (waitpid(xvfbPid, nullptr, WNOHANG) == xvfbPid) {
                xvfbPid = -1;
                return;
            }
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
    RunResult r = runChecks({"-v"}, display, kOpening);
    EXPECT_FALSE(r.timedOut);
    EXPECT_TRUE(appearsInOrder(r.out, {">>> Checking X server:\n", kAgreeQuestion,
                                       "Corvane Install: Cannot query install directory.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("X server is not accessible"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Continue installation"), std::string::npos);
}

TEST_F(XServerTest, UnreachableServerWarnsAndAsks) {
    // A display number whose socket does not exist: nobody serves it.
    int number = 900;
    while (access(("/tmp/.X11-unix/X" + std::to_string(number)).c_str(), F_OK) == 0) number++;
    const struct {
        std::optional<std::string> display;
        std::string input;
        bool continues;
    } rows[] = {
        {std::nullopt, "\nn\nyes\n", false},
        {std::nullopt, "\n\nyes\n", false},   // an empty answer is no
        {std::nullopt, "\n", false},            // end of input at the question
        {":" + std::to_string(number), "\ny\nyes\n", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.display.value_or("unset") + " " + std::to_string(row.input.size()));
        RunResult r = runChecks({}, row.display, row.input);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_TRUE(appearsInOrder(r.out, {kPause, kXWarning})) << r.out;
        EXPECT_EQ(appearsInOrder(r.out, {kXWarning + "\n", kAgreeQuestion, "Install directory [/opt/corvane/]: "}),
                  row.continues) << r.out;
        EXPECT_EQ(r.out.find("license terms") == std::string::npos, !row.continues);
    }
}

TEST_F(XServerTest, PostInstallStartsTheEditorOnlyWhereTheServerIsReachable) {
    // Without a server the user goes on at the X question and gets the warning afterwards.
    RunResult r = runChecks({"+post-install", "-destination-dir", path("nox")}, std::nullopt, "\ny\nyes\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {"\ndone\n", "Corvane Install: \n"
                                       "Corvane Install: Cannot start post-installation because X server is not accessible.\n"
                                       "Corvane Install: You will need to manually tag your C/C++ headers and Java source\n"
                                       "Corvane Install: files to fully use our new Tagwise feature set.\n",
                                       "INSTALLATION SUCCESSFULLY COMPLETED"})) << r.out;
    EXPECT_FALSE(exists("nox/tagfiles"));
    EXPECT_FALSE(exists("cv-started.log"));

    std::string why;
    std::string display = startXvfb(&why);
    if (display.empty()) GTEST_SKIP() << why;
    r = runChecks({"+post-install", "-v", "-destination-dir", path("x")}, display, kOpening);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {"Starting Corvane with post-installation.\nPlease wait for Corvane to come up...\n",
                                       ">>> Post install: command=\"" + path("x") + "/bin/cv\" +new &\n",
                                       "INSTALLATION SUCCESSFULLY COMPLETED"})) << r.out;
    EXPECT_EQ(modeOf("x/tagfiles"), 0755u);
    // The demo editor records each start in $HOME, which the harness points at the sandbox.
    EXPECT_EQ(readFile("cv-started.log"), path("x") + "/bin/cv +new DISPLAY=" + display + "\n");
}

TEST_F(XServerTest, PluginModeDoesNotAskForTheXServer) {
    RunOptions options;
    options.argv0 = distributionWith("cvpackep", "plugin") + "/cvinst";
    options.input = "\n";
    RunResult r = run(options);
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
    // A tmpfs at <sandbox>/<name>; empty when mounting is not allowed here.
    std::string mountTmpfs(const std::string& name, const std::string& size) {
        std::string point = path(name);
        makeDirs(point);
        if (mount("tmpfs", point.c_str(), "tmpfs", 0, ("size=" + size + ",mode=0755").c_str()) != 0) return "";
        mounts.push_back(point);
        return point;
    }
    RunResult install(const std::string& installDir, const std::vector<std::string>& extra) {
        RunOptions options;
        options.args = {"-post-install"};
        options.args.insert(options.args.end(), extra.begin(), extra.end());
        options.input = interactiveAnswers(installDir);
        return run(options);
    }

    std::vector<std::string> mounts;
};

TEST_F(DiskSpaceTest, FreeSpaceOfTheInstallFileSystemDecides) {
    std::string small = mountTmpfs("small", "100m");
    if (small.empty()) GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << strerror(errno);
    RunResult r = install(small + "/inst", {});
    EXPECT_EQ(r.exitStatus, 1) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {"\nChecking disk space. Please wait...\n",
                                       "Corvane Install: Insufficient free disk space. Need 167 MB but " + small +
                                           "/inst/ only has 100.00 MB.\n"}))
        << r.out;

    std::string exact = mountTmpfs("exact", "167m");
    struct statfs info;
    ASSERT_EQ(statfs(exact.c_str(), &info), 0);
    ASSERT_EQ((double)info.f_bsize * (double)info.f_bavail, 167.0 * 1048576.0);
    r = install(exact + "/inst", {"-v"});
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    char blocks[256];
    snprintf(blocks, sizeof(blocks), ">>> checkDiskSpace blkavail=%.0f blocks of size blksize=%.0f, inodeavail=",
             (double)info.f_bavail, (double)info.f_bsize);
    EXPECT_TRUE(appearsInOrder(r.out, {"Checking disk space. Please wait...\n", blocks,
                                       ">>> checkDiskSpace availM=167.00 MB needM=167.00 MB\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("Insufficient free disk space"), std::string::npos) << r.out;

    // "-d" looks at nothing: the small file system is taken, no probe is written.
    r = install(small + "/inst2", {"-d"});
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("\nSkipping disk space check.\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Checking disk space"), std::string::npos);
    EXPECT_FALSE(exists(small + "/inst2/SPACECHECK"));
    EXPECT_TRUE(isRegularFile(small + "/inst2/bin/corv.ini"));
}

}  // namespace
