// One file against its listed size, byte sum and digest, reached without following links.
#include "tools/cvcheck/filecheck.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "tools/cvcheck/safedir.h"

namespace {

class FileCheckTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/filecheck_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        root_ = dir;
        std::ofstream(root_ + "/abc") << "abc";
        std::ofstream(root_ + "/bac") << "bac";
        ASSERT_EQ(mkdir((root_ + "/sub").c_str(), 0755), 0);
        ASSERT_EQ(symlink("abc", (root_ + "/link").c_str()), 0);
        ASSERT_EQ(symlink("sub", (root_ + "/linkdir").c_str()), 0);
        ASSERT_EQ(mkfifo((root_ + "/fifo").c_str(), 0644), 0);
        fd_ = open(dir, O_RDONLY | O_DIRECTORY);
    }
    void TearDown() override {
        close(fd_);
        EXPECT_EQ(system(("rm -rf " + root_).c_str()), 0);
    }
    // "abc": 3 bytes, byte sum 294.
    static ListedFile listed(int32_t size, int32_t checksum, const char* digest = nullptr) {
        ListedFile file{"abc", kBaseInstall, "abc", size, checksum, digest != nullptr, "", kMadeNone, false};
        if (digest != nullptr) snprintf(file.digest, sizeof(file.digest), "%s", digest);
        return file;
    }
    std::string root_;
    int fd_ = -1;
};

const char kAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

}  // namespace

TEST_F(FileCheckTest, Drifts) {
    const struct {
        const char* leaf;
        ListedFile file;
        Drift drift;
        CheckMethod method;
    } rows[] = {{"abc", listed(3, 294), kSame, kByByteSum},
                {"abc", listed(3, 0), kSame, kBySize},
                {"abc", listed(3, 295), kContent, kByByteSum},
                {"bac", listed(3, 294), kSame, kByByteSum},  // the same bytes in another order
                {"bac", listed(3, 294, kAbc), kContent, kBySha256},
                {"abc", listed(3, 294, kAbc), kSame, kBySha256},
                {"abc", listed(4, 294, kAbc), kSize, kBySha256},
                {"gone", listed(3, 294), kMissing, kByByteSum},
                {"link", listed(3, 294), kContent, kByByteSum},
                {"fifo", listed(0, 0), kContent, kBySize},
                {"sub", listed(3, 294), kContent, kByByteSum}};
    for (const auto& row : rows) {
        FileCheck result = checkFileAt(fd_, row.leaf, row.file);
        EXPECT_EQ(result.drift, row.drift) << row.leaf;
        EXPECT_EQ(result.method, row.method) << row.leaf;
    }
    EXPECT_EQ(checkFileAt(fd_, "link", listed(3, 294)).error, ELOOP);
    EXPECT_EQ(checkFileAt(fd_, "abc", listed(4, 294)).actualSize, 3);
}

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
        EXPECT_EQ(checkFileAt(-1, "abc", listed(3, 294)).drift, drifts[i]) << errors[i];
    }
}

// Mode and owner beside the content: a file may differ in both, or in its mode alone.
TEST_F(FileCheckTest, ModeAndOwner) {
    ASSERT_EQ(chmod((root_ + "/abc").c_str(), 0644), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown((root_ + "/bac").c_str(), 65534, static_cast<gid_t>(-1)), 0);
    }
    ListedFile executable = listed(3, 294);
    executable.mode = 0755;
    FileCheck lostExec = checkFileAt(fd_, "abc", executable);
    EXPECT_EQ(lostExec.drift, kSame);
    EXPECT_TRUE(lostExec.modeChanged);
    EXPECT_EQ(lostExec.mode, 0644u);
    EXPECT_TRUE(differs(lostExec));
    ListedFile plain = listed(3, 295);
    plain.mode = 0644;
    FileCheck contentOnly = checkFileAt(fd_, "abc", plain);
    EXPECT_FALSE(contentOnly.modeChanged);
    EXPECT_EQ(contentOnly.drift, kContent);
    ListedFile rootsFile = listed(3, 294);
    rootsFile.location = rootsFile.name = "bac";
    rootsFile.ownerRoot = true;
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
    FileCheck givenAway = checkFileAt(fd_, "bac", rootsFile);
    EXPECT_TRUE(givenAway.ownerChanged);
    EXPECT_EQ(givenAway.owner, 65534u);
    EXPECT_FALSE(checkFileAt(fd_, "abc", rootsFile).ownerChanged);
}

// A file named only by the SHA-256 list has no size to compare.
TEST_F(FileCheckTest, DigestAlone) {
    EXPECT_EQ(checkFileAt(fd_, "abc", listed(-1, 0, kAbc)).drift, kSame);
    EXPECT_EQ(checkFileAt(fd_, "bac", listed(-1, 0, kAbc)).drift, kContent);
}

// A directory's mode: one that others may write differs; one that is gone is left to its files.
TEST_F(FileCheckTest, DirectoryMode) {
    ASSERT_EQ(chmod((root_ + "/sub").c_str(), 0777), 0);
    ListedFile dir{"sub", kBaseInstall, "sub", -1, 0, false, "", kMadeNone, false};
    dir.mode = 0755;
    FileCheck opened = checkDirectoryAt(fd_, dir);
    EXPECT_TRUE(opened.modeChanged);
    EXPECT_EQ(opened.mode, 0777u);
    dir.location = "gone";
    EXPECT_FALSE(differs(checkDirectoryAt(fd_, dir)));
    dir.location = "linkdir";  // a link is not followed to the directory behind it
    EXPECT_FALSE(checkDirectoryAt(fd_, dir).modeChanged);
}
