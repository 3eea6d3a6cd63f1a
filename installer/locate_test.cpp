#include "installer/locate.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "installer/state.h"
#include "runtime/path.h"

namespace {

std::string currentDir() {
    char buf[PATH_MAX];
    return getcwd(buf, sizeof(buf)) ? buf : "";
}

// Every test gets a fresh directory tree; the current directory and PATH are put back after it.
class LocateTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        savedCwd = currentDir();
        const char* path = getenv("PATH");
        hadPath = path != nullptr;
        if (hadPath) savedPath = path;

        char pattern[] = "/tmp/cvinst-locate-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        char real[PATH_MAX];
        ASSERT_NE(nullptr, realpath(pattern, real));
        root = real;
    }
    void TearDown() override {
        ASSERT_EQ(0, chdir(savedCwd.c_str()));
        changeDirectory(savedCwd.c_str());
        if (hadPath)
            setenv("PATH", savedPath.c_str(), 1);
        else
            unsetenv("PATH");
        std::string cmd = "rm -rf '" + root + "'";
        ASSERT_EQ(0, system(cmd.c_str()));
    }

    void makeDir(const std::string& rel) { ASSERT_EQ(0, mkdir((root + "/" + rel).c_str(), 0755)); }
    // A plain, non-executable file: the search does not look at the execute bits.
    void makeFile(const std::string& rel) {
        int fd = open((root + "/" + rel).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    void enter(const std::string& rel) { ASSERT_EQ(0, chdir((root + "/" + rel).c_str())); }

    std::string locate(const char* program, int32_t* status) {
        char out[kDistribDirSize] = "unchanged";
        *status = findDistributionDir(program, out);
        return out;
    }

    std::string savedCwd, savedPath, root;
    bool hadPath = false;
};

TEST(DirPartTest, KeepsEverythingUpToTheLastSlash) {
    char out[64];
    dirPartOf("/mnt/cd/cvinst", out, sizeof(out));
    EXPECT_STREQ("/mnt/cd/", out);
    dirPartOf("dist/sub/", out, sizeof(out));
    EXPECT_STREQ("dist/sub/", out);
    dirPartOf("/cvinst", out, sizeof(out));
    EXPECT_STREQ("/", out);
    dirPartOf("/abc/def/cvinst", out, 5);
    EXPECT_STREQ("/abc", out);
}

TEST_F(LocateTest, FullPathNeedsNoChangeOfDirectory) {
    enter("");
    int32_t status = 1;
    EXPECT_EQ("/mnt/cd/", locate("/mnt/cd/cvinst", &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(root, currentDir());
}

TEST_F(LocateTest, DotSlashKeepsTheCurrentDirectory) {
    makeDir("dist");
    enter("dist");
    int32_t status = 1;
    EXPECT_EQ(root + "/dist/", locate("./cvinst", &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(root + "/dist", currentDir());
}

TEST_F(LocateTest, RelativePathChangesIntoTheProgramDirectory) {
    makeDir("dist");
    makeDir("other");
    enter("");
    int32_t status = 1;
    EXPECT_EQ(root + "/dist/", locate("dist/cvinst", &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(root + "/dist", currentDir());

    enter("other");
    EXPECT_EQ(root + "/dist/", locate("../dist/cvinst", &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(root + "/dist", currentDir());
}

TEST_F(LocateTest, RelativePathIntoMissingDirectoryFails) {
    enter("");
    int32_t status = 0;
    locate("missing/cvinst", &status);
    EXPECT_NE(0, status);
    EXPECT_EQ(root, currentDir());
}

TEST_F(LocateTest, BareNameIsFoundAlongPath) {
    makeDir("cd");
    makeFile("cd/cvinst");
    makeDir("work");
    enter("work");
    setenv("PATH", ("/usr/bin:" + root + "/cd").c_str(), 1);
    int32_t status = 1;
    EXPECT_EQ(root + "/cd/", locate("cvinst", &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(root + "/work", currentDir());
}

TEST_F(LocateTest, RelativePathEntryChangesIntoIt) {
    makeDir("dist");
    makeFile("dist/cvinst");
    enter("");
    setenv("PATH", (root + "/nowhere:dist").c_str(), 1);
    int32_t status = 1;
    EXPECT_EQ(root + "/dist/", locate("cvinst", &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(root + "/dist", currentDir());
}

TEST_F(LocateTest, UnsetOrEmptyPathFails) {
    makeFile("cvinst");
    enter("");
    unsetenv("PATH");
    int32_t status = 0;
    locate("cvinst", &status);
    EXPECT_NE(0, status);
    setenv("PATH", "", 1);
    locate("cvinst", &status);
    EXPECT_NE(0, status);
    EXPECT_EQ(root, currentDir());
}

TEST_F(LocateTest, EmptyEntriesDoNotMeanTheCurrentDirectory) {
    makeDir("cd");
    makeDir("empty");
    makeFile("cd/cvinst");
    char dir[kPathSize];

    setenv("PATH", (":" + root + "/empty::" + root + "/cd").c_str(), 1);
    ASSERT_EQ(0, searchProgramInPath("cvinst", dir));
    EXPECT_EQ(root + "/cd/", std::string(dir));

    // the program lies in the current directory, but neither a leading, an inner nor a trailing
    // empty entry finds it there
    enter("cd");
    for (const std::string& list : {":" + root + "/empty", root + "/empty:", root + "/empty::/nowhere",
                                    std::string(":"), std::string("::")}) {
        setenv("PATH", list.c_str(), 1);
        EXPECT_EQ(1, searchProgramInPath("cvinst", dir)) << list;
    }
}

TEST_F(LocateTest, OnlyRegularFilesCount) {
    makeDir("a");
    makeDir("a/cvinst");
    makeDir("b");
    makeFile("b/cvinst");
    char dir[kPathSize];
    setenv("PATH", (root + "/a:" + root + "/b/").c_str(), 1);
    ASSERT_EQ(0, searchProgramInPath("cvinst", dir));
    EXPECT_EQ(root + "/b/", std::string(dir));

    setenv("PATH", (root + "/a").c_str(), 1);
    EXPECT_EQ(1, searchProgramInPath("cvinst", dir));
}

TEST_F(LocateTest, OverlongPathEntryIsPassedOver) {
    makeDir("cd");
    makeFile("cd/cvinst");
    char dir[kPathSize];
    std::string huge = "/" + std::string(3000, 'x');
    setenv("PATH", (huge + ":" + root + "/cd").c_str(), 1);
    ASSERT_EQ(0, searchProgramInPath("cvinst", dir));
    EXPECT_EQ(root + "/cd/", std::string(dir));
}

TEST_F(LocateTest, VerboseTraceOfAFullPath) {
    gState.verbose = 1;
    char out[kDistribDirSize];
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(0, findDistributionDir("/mnt/cd/cvinst", out));
    EXPECT_EQ(">>> Finding the full path to executable...\n"
              ">>>    From full path ==> /mnt/cd/.\n",
              ::testing::internal::GetCapturedStdout());
}

TEST_F(LocateTest, VerboseTraceOfARelativePath) {
    makeDir("dist");
    enter("");
    gState.verbose = 1;
    char out[kDistribDirSize];
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(0, findDistributionDir("dist/cvinst", out));
    EXPECT_EQ(">>> Finding the full path to executable...\n"
              ">>>    Current directory is " + root + ".\n"
              ">>>    Changing to directory dist\n"
              ">>>    New current directory is " + root + "/dist/\n"
              ">>>    From relative path ==> " + root + "/dist/.\n",
              ::testing::internal::GetCapturedStdout());
}

TEST_F(LocateTest, VerboseTraceOfPathSearches) {
    makeDir("cd");
    makeFile("cd/cvinst");
    enter("");
    gState.verbose = 1;
    char out[kDistribDirSize];
    setenv("PATH", (root + "/cd").c_str(), 1);
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(0, findDistributionDir("cvinst", out));
    EXPECT_EQ(">>> Finding the full path to executable...\n"
              ">>>    From PATH ==> " + root + "/cd/.\n",
              ::testing::internal::GetCapturedStdout());

    setenv("PATH", "cd", 1);
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(0, findDistributionDir("cvinst", out));
    EXPECT_EQ(">>> Finding the full path to executable...\n"
              ">>>    Current directory is " + root + ".\n"
              ">>>    Changing to directory cd\n"
              ">>>    New current directory is " + root + "/cd/\n"
              ">>>    From relative path in PATH ==> " + root + "/cd/.\n",
              ::testing::internal::GetCapturedStdout());
}

TEST_F(LocateTest, QuietWithoutVerbose) {
    makeDir("dist");
    enter("");
    char out[kDistribDirSize];
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(0, findDistributionDir("dist/cvinst", out));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

}  // namespace
