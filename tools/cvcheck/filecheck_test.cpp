// A listed file's directory, reached below the installation without following links.
#include "tools/cvcheck/filecheck.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "tests/scratchdir.h"
#include "tools/cvcheck/safedir.h"

namespace {

class FileCheckTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::ofstream(root_ + "/abc") << "abc";
        std::ofstream(root_ + "/bac") << "bac";
        ASSERT_EQ(mkdir((root_ + "/sub").c_str(), 0755), 0);
        ASSERT_EQ(symlink("abc", (root_ + "/link").c_str()), 0);
        ASSERT_EQ(symlink("sub", (root_ + "/linkdir").c_str()), 0);
        ASSERT_EQ(mkfifo((root_ + "/fifo").c_str(), 0644), 0);
        fd_ = open(root_.c_str(), O_RDONLY | O_DIRECTORY);
    }
    void TearDown() override { close(fd_); }
    ScratchDir scratch_{"filecheck_test"};
    const std::string root_ = scratch_.path();
    int fd_ = -1;
};

}  // namespace

TEST_F(FileCheckTest, DirectoriesOnlyBelowWithoutLinks) {
    int sub = openDirBelow(fd_, "./sub/");
    EXPECT_GE(sub, 0);
    close(sub);
    EXPECT_EQ(openDirBelow(fd_, "linkdir"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(openDirBelow(fd_, "sub/../sub"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(openDirBelow(fd_, "nothere/x"), -1);
    EXPECT_EQ(errno, ENOENT);
    DirCursor cursor(fd_);
    std::string leaf;
    EXPECT_EQ(cursor.dirOf("linkdir/abc", &leaf), -1);
    EXPECT_GE(cursor.dirOf("abc", &leaf), 0);
    EXPECT_EQ(leaf, "abc");
}

// A file whose directory cannot be reached: gone with it, or behind a link.
TEST_F(FileCheckTest, UnreachableDirectory) {
    const int errors[] = {ENOENT, ENOTDIR, EACCES};
    const Drift drifts[] = {kMissing, kContent, kUnreadable};
    for (int i = 0; i < 3; i++) {
        errno = errors[i];
        const ListedFile abc{"abc", kBaseInstall, "abc", 3, 294, false, "", kMadeNone, false};
        EXPECT_EQ(checkFileAt(-1, "abc", abc).drift, drifts[i]) << errors[i];
    }
}
