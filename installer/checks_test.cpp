// The environment checks against real directories on PATH, an unreachable X display and
// small tmpfs mounts.
#include "installer/checks.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "installer/state.h"

namespace {

const char* const kTools[] = {"uname", "cp", "mv", "rm", "mkdir", "tar", "uncompress", "chgrp", "chown", "touch", "more"};

std::string makeTempDir() {
    char pattern[] = "/tmp/cvinst-checks.XXXXXX";
    char* dir = mkdtemp(pattern);
    return dir ? dir : "";
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    FILE* out = fopen(path.c_str(), "w");
    ASSERT_NE(out, nullptr) << path;
    fputs(content.c_str(), out);
    fclose(out);
    chmod(path.c_str(), mode);
}

std::string capture(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Saves and restores the environment variables a test changes; unmounts what it mounted.
class ChecksTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        dir = makeTempDir();
        ASSERT_FALSE(dir.empty());
        save("PATH");
        save("DISPLAY");
    }
    void TearDown() override {
        for (const auto& entry : saved) {
            if (entry.second.first) setenv(entry.first.c_str(), entry.second.second.c_str(), 1);
            else unsetenv(entry.first.c_str());
        }
        for (const std::string& mount : mounts) umount2(mount.c_str(), MNT_DETACH);
        std::string command = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }

    void save(const char* name) {
        const char* value = getenv(name);
        saved.push_back({name, {value != nullptr, value ? value : ""}});
    }
    // A directory of empty stand-ins for the tools, minus those named in skip.
    std::string toolDir(const std::string& name, std::initializer_list<const char*> skip) {
        std::string tools = dir + "/" + name;
        EXPECT_EQ(mkdir(tools.c_str(), 0755), 0);
        for (const char* tool : kTools) {
            bool skipped = false;
            for (const char* s : skip) skipped = skipped || strcmp(s, tool) == 0;
            if (!skipped) writeFile(tools + "/" + tool, "", 0644);
        }
        return tools;
    }
    // A tmpfs of the given size at <dir>/<name>; empty when mounting is not allowed here.
    std::string mountTmpfs(const std::string& name, const std::string& size) {
        std::string point = dir + "/" + name;
        EXPECT_EQ(mkdir(point.c_str(), 0755), 0);
        std::string options = "size=" + size;
        if (mount("tmpfs", point.c_str(), "tmpfs", 0, options.c_str()) != 0) return "";
        mounts.push_back(point);
        return point;
    }

    std::string dir;
    std::vector<std::pair<std::string, std::pair<bool, std::string>>> saved;
    std::vector<std::string> mounts;
};

TEST(EstimateDiskSpace, GivesBaseAndTotal) {
    int32_t base = 0, total = 0;
    estimateDiskSpace(&base, &total);
    EXPECT_EQ(base, 142);
    EXPECT_EQ(total, 167);
}

TEST_F(ChecksTest, ZcatStandsInForUncompress) {
    std::string tools = toolDir("tools", {"uncompress"});
    std::string other = dir + "/gz";
    ASSERT_EQ(mkdir(other.c_str(), 0755), 0);
    writeFile(other + "/zcat", "", 0755);
    setenv("PATH", (tools + ":" + other).c_str(), 1);
    gState.verbose = 1;
    int32_t result = -1;
    std::string out = capture([&] { result = checkTools(); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(gState.useZcat, 1);
    EXPECT_NE(out.find(">>>    uncompress ... >>> Missing >>> trying zcat ... >>> Found at " + other + "/\n"),
              std::string::npos)
        << out;
}

TEST_F(ChecksTest, ProbeFailsForADisplayNobodyServes) {
    setenv("DISPLAY", ":987", 1);
    gState.xServerAvailable = 1;
    EXPECT_EQ(probeXServer(), 0);
    EXPECT_EQ(gState.xServerAvailable, 0);
}

TEST_F(ChecksTest, SkippedDiskCheckTouchesNothing) {
    gState.skipDiskSpaceCheck = 1;
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/absent/", dir.c_str());
    std::string out = capture([] { EXPECT_EQ(checkDiskSpace(), 0); });
    EXPECT_EQ(out, "\nSkipping disk space check.\n");
}

TEST_F(ChecksTest, ExactlyEnoughSpacePasses) {
    std::string exact = mountTmpfs("exact", "167m");
    if (exact.empty()) GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << strerror(errno);
    struct statfs info;
    ASSERT_EQ(statfs(exact.c_str(), &info), 0);
    ASSERT_EQ((double)info.f_bsize * (double)info.f_bavail, 167.0 * 1048576.0);
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/", exact.c_str());
    std::string out = capture([] { EXPECT_EQ(checkDiskSpace(), 0); });
    EXPECT_EQ(out, "\nChecking disk space. Please wait...\n");

    // Two pages less is shown as 166.99 MB and is not enough.
    std::string less = mountTmpfs("less", std::to_string(167 * 1024 - 8) + "k");
    ASSERT_FALSE(less.empty());
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/", less.c_str());
    out = capture([] { EXPECT_EQ(checkDiskSpace(), 1); });
    EXPECT_NE(out.find("only has 166.99 MB."), std::string::npos) << out;
}

TEST_F(ChecksTest, StatfsFailureFallsBackToTheSlowCheck) {
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/absent/", dir.c_str());
    testing::internal::CaptureStderr();
    std::string out = capture([] { EXPECT_EQ(checkDiskSpace(), 1); });
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "Corvane Install:: No such file or directory\n");
    EXPECT_EQ(out, "\nChecking disk space. Please wait...\nCorvane Install: Insufficient access to " + dir +
                       "/absent/. Read/Write access is required.\n");
}

TEST_F(ChecksTest, SlowCheckWritesAndRemovesItsProbe) {
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/", dir.c_str());
    gState.verbose = 1;
    std::string out = capture([] { EXPECT_EQ(slowDiskSpaceCheck(2), 0); });
    EXPECT_EQ(out, ">>> Show disk space check ...\n");
    EXPECT_NE(access((dir + "/SPACECHECK").c_str(), F_OK), 0);
}

TEST_F(ChecksTest, SlowCheckReportsAFullFileSystemAndCleansUp) {
    std::string small = mountTmpfs("small", "1m");
    if (small.empty()) GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << strerror(errno);
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/", small.c_str());
    std::string out = capture([] { EXPECT_EQ(slowDiskSpaceCheck(2), 1); });
    EXPECT_EQ(out, "Corvane Install: Not enough disk space.\n");
    EXPECT_NE(access((small + "/SPACECHECK").c_str(), F_OK), 0);
}

TEST_F(ChecksTest, SlowCheckDoesNotFollowALinkInThePlaceOfItsProbe) {
    std::string target = dir + "/elsewhere";
    writeFile(target, "keep", 0644);
    ASSERT_EQ(symlink(target.c_str(), (dir + "/SPACECHECK").c_str()), 0);
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/", dir.c_str());
    std::string out = capture([] { EXPECT_EQ(slowDiskSpaceCheck(1), 1); });
    EXPECT_EQ(out, "Corvane Install: Slow disk space check failed.\n");
    struct stat info;
    ASSERT_EQ(stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_size, 4);
}

TEST_F(ChecksTest, SlowCheckNeedsReadAndWriteAccess) {
    snprintf(gState.installDir, sizeof(gState.installDir), "%s/absent/", dir.c_str());
    std::string out = capture([] { EXPECT_EQ(slowDiskSpaceCheck(1), 1); });
    EXPECT_EQ(out, "Corvane Install: Insufficient access to " + dir + "/absent/. Read/Write access is required.\n");
}

}  // namespace
