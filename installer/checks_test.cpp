// The slow disk-space check, which a run only reaches when statfs fails: its fallback, its
// probe file, and a file system that fills up.
#include "installer/checks.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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
    }
    void TearDown() override {
        umount2((dir + "/small").c_str(), MNT_DETACH);
        EXPECT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
    }
    // The step's result and output with gState.installDir set to <dir>/<sub>.
    std::string run(const std::string& sub, int32_t (*step)()) {
        snprintf(gState.installDir, sizeof(gState.installDir), "%s/%s", dir.c_str(), sub.c_str());
        testing::internal::CaptureStdout();
        int32_t result = step();
        return std::to_string(result) + ":" + testing::internal::GetCapturedStdout();
    }
    static int32_t slowCheckOfTwoMB() { return slowDiskSpaceCheck(2); }
    std::string dir;
};

TEST_F(ChecksTest, SlowCheckWritesItsProbeAndRemovesIt) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(run("absent/", checkDiskSpace), "1:\nChecking disk space. Please wait...\nCorvane Install: Insufficient "
                                              "access to " + dir + "/absent/. Read/Write access is required.\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Corvane Install:: No such file or directory\n");
    gState.verbose = 1;
    EXPECT_EQ(run("", slowCheckOfTwoMB), "0:>>> Show disk space check ...\n");
    gState.verbose = 0;
    EXPECT_NE(access((dir + "/SPACECHECK").c_str(), F_OK), 0);
    // A link planted under the probe's name is not followed.
    FILE* out = fopen((dir + "/elsewhere").c_str(), "w");
    fputs("keep", out);
    fclose(out);
    ASSERT_EQ(symlink((dir + "/elsewhere").c_str(), (dir + "/SPACECHECK").c_str()), 0);
    EXPECT_EQ(run("", slowCheckOfTwoMB), "1:Corvane Install: Slow disk space check failed.\n");
    struct stat info;
    EXPECT_TRUE(stat((dir + "/elsewhere").c_str(), &info) == 0 && info.st_size == 4);

    ASSERT_EQ(mkdir((dir + "/small").c_str(), 0755), 0);
    if (mount("tmpfs", (dir + "/small").c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "no tmpfs mounts here";
    EXPECT_EQ(run("small/", slowCheckOfTwoMB), "1:Corvane Install: Not enough disk space.\n");
    EXPECT_NE(access((dir + "/small/SPACECHECK").c_str(), F_OK), 0);
}

}  // namespace
