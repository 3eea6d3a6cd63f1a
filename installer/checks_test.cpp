// The parts of the environment checks a run cannot show: the zcat flag, a figure just below
// the limit, and the slow check that only runs when statfs fails.
#include "installer/checks.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "installer/state.h"

namespace {

class ChecksTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        char pattern[] = "/tmp/cvinst-checks.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        const char* path = getenv("PATH");
        savedPath = path ? path : "";
    }
    void TearDown() override {
        setenv("PATH", savedPath.c_str(), 1);
        if (!mount.empty()) umount2(mount.c_str(), MNT_DETACH);
        EXPECT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
    }
    void touch(const std::string& name, const std::string& content = "") {
        FILE* out = fopen((dir + "/" + name).c_str(), "w");
        ASSERT_NE(out, nullptr) << name;
        fputs(content.c_str(), out);
        fclose(out);
    }
    // The step's output with gState.installDir set to <dir>/<sub>.
    std::string capture(const std::string& sub, int32_t (*step)(), int32_t expected) {
        snprintf(gState.installDir, sizeof(gState.installDir), "%s/%s", dir.c_str(), sub.c_str());
        testing::internal::CaptureStdout();
        EXPECT_EQ(step(), expected);
        return testing::internal::GetCapturedStdout();
    }
    static int32_t slowCheckOfTwoMB() { return slowDiskSpaceCheck(2); }

    std::string dir, savedPath, mount;
};

TEST_F(ChecksTest, ZcatStandsInForUncompress) {
    for (const char* tool : {"uname", "cp", "mv", "rm", "mkdir", "tar", "chgrp", "chown", "touch", "more", "zcat"})
        touch(tool);
    setenv("PATH", dir.c_str(), 1);
    EXPECT_EQ(checkTools(), 0);
    EXPECT_EQ(gState.useZcat, 1);
}

TEST_F(ChecksTest, UnreachableXServerIsRecordedAsSuch) {
    const char* display = getenv("DISPLAY");
    std::string saved = display ? display : "";
    unsetenv("DISPLAY");
    gState.xServerAvailable = 1;
    EXPECT_EQ(probeXServer(), 0);
    EXPECT_EQ(gState.xServerAvailable, 0);
    if (display) setenv("DISPLAY", saved.c_str(), 1);
}

TEST_F(ChecksTest, TwoPagesBelowTheNeededSpaceIsNotEnough) {
    mount = dir + "/less";
    ASSERT_EQ(mkdir(mount.c_str(), 0755), 0);
    std::string options = "size=" + std::to_string(167 * 1024 - 8) + "k";
    if (::mount("tmpfs", mount.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        mount.clear();
        GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << strerror(errno);
    }
    std::string out = capture("less/", checkDiskSpace, 1);
    EXPECT_EQ(out, "\nChecking disk space. Please wait...\nCorvane Install: Insufficient free disk space. Need 167 MB but " +
                       mount + "/ only has 166.99 MB.\n");
}

TEST_F(ChecksTest, StatfsFailureFallsBackToTheSlowCheck) {
    testing::internal::CaptureStderr();
    std::string out = capture("absent/", checkDiskSpace, 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Corvane Install:: No such file or directory\n");
    EXPECT_EQ(out, "\nChecking disk space. Please wait...\nCorvane Install: Insufficient access to " + dir +
                       "/absent/. Read/Write access is required.\n");
}

TEST_F(ChecksTest, SlowCheckWritesItsProbeAndRemovesIt) {
    gState.verbose = 1;
    EXPECT_EQ(capture("", slowCheckOfTwoMB, 0), ">>> Show disk space check ...\n");
    EXPECT_NE(access((dir + "/SPACECHECK").c_str(), F_OK), 0);
    gState.verbose = 0;

    // A link planted under the probe's name is not followed.
    touch("elsewhere", "keep");
    ASSERT_EQ(symlink((dir + "/elsewhere").c_str(), (dir + "/SPACECHECK").c_str()), 0);
    EXPECT_EQ(capture("", slowCheckOfTwoMB, 1), "Corvane Install: Slow disk space check failed.\n");
    struct stat info;
    ASSERT_EQ(stat((dir + "/elsewhere").c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 4);
}

TEST_F(ChecksTest, SlowCheckReportsAFullFileSystemAndCleansUp) {
    mount = dir + "/small";
    ASSERT_EQ(mkdir(mount.c_str(), 0755), 0);
    if (::mount("tmpfs", mount.c_str(), "tmpfs", 0, "size=1m") != 0) {
        mount.clear();
        GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << strerror(errno);
    }
    EXPECT_EQ(capture("small/", slowCheckOfTwoMB, 1), "Corvane Install: Not enough disk space.\n");
    EXPECT_NE(access((mount + "/SPACECHECK").c_str(), F_OK), 0);
}

}  // namespace
