// Tests of the bounded strings, path parts, current directory, link resolution, PATH search,
// existence checks and the environment snapshot.
#include "runtime/path.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Set before main so that it is part of the environment snapshot, whenever that is taken.
const bool gProbeSet = setenv("CVRT_PATHTEST_PROBE", "a=b=c", 1) == 0;

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// A fresh directory under /tmp (its physical path), removed with everything in it.
class TempDir {
public:
    TempDir()
    {
        char name[] = "/tmp/cvrt_path_XXXXXX";
        char* made = mkdtemp(name);
        char real[PATH_MAX];
        path_ = made && realpath(made, real) ? real : "";
    }
    ~TempDir()
    {
        if (!path_.empty())
            nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

void writeFile(const std::string& path, const std::string& text, mode_t mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    chmod(path.c_str(), mode);
}

std::string physicalCwd()
{
    char buf[PATH_MAX];
    return getcwd(buf, sizeof buf) ? buf : "";
}

// Enters a directory for one test and restores the starting one afterwards.
class DirectoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(tmp_.path().empty());
        start_ = physicalCwd();
        ASSERT_EQ(getCurrentDirectory(startLogical_, 0, 1), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(changeDirectory(start_.c_str()), 0);
        EXPECT_EQ(physicalCwd(), start_);
    }
    std::string current(int logical)
    {
        char out[512];
        EXPECT_EQ(getCurrentDirectory(out, 0, logical), 0);
        return out;
    }

    TempDir tmp_;
    std::string start_;
    char startLogical_[512];
};

// ---------------------------------------------------------------------------------------------
// Bounded copy and append.

TEST(BoundedStrings, CopyCutsToSizeMinusOne)
{
    char buf[8];
    memset(buf, 'X', sizeof buf);
    strCopyBounded(buf, "abcdef", 4);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(buf[4], 'X');

    strCopyBounded(buf, "abc", 4);
    EXPECT_STREQ(buf, "abc");
    strCopyBounded(buf, "abcdef", 1);
    EXPECT_STREQ(buf, "");
}

TEST(BoundedStrings, CopyWithSizeZeroOrLessStoresOneNul)
{
    for (int32_t size : {0, -1, -100}) {
        char buf[4] = {'X', 'X', 'X', 'X'};
        strCopyBounded(buf, "abcdef", size);
        EXPECT_EQ(buf[0], 0) << size;
        EXPECT_EQ(buf[1], 'X') << size;
    }
}

TEST(BoundedStrings, AppendCutsWhenTheBufferFills)
{
    char buf[8] = "abc";
    memset(buf + 4, 'X', 4);
    strAppendBounded(buf, "def", 5);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(buf[5], 'X');

    strAppendBounded(buf, "xyz", 5);
    EXPECT_STREQ(buf, "abcd");

    char roomy[16] = "ab";
    strAppendBounded(roomy, "cd", sizeof roomy);
    EXPECT_STREQ(roomy, "abcd");
    strAppendBounded(roomy, "", sizeof roomy);
    EXPECT_STREQ(roomy, "abcd");
}

TEST(BoundedStrings, AppendToOverlongDestination)
{
    // Exactly size characters: the last one is cut off.
    char exact[8] = "abcde";
    strAppendBounded(exact, "x", 5);
    EXPECT_STREQ(exact, "abcd");

    // Longer than size: left as it is.
    char longer[8] = "abcdefg";
    strAppendBounded(longer, "x", 5);
    EXPECT_STREQ(longer, "abcdefg");
}

TEST(BoundedStrings, AppendWithSizeZeroOrLessWritesNothing)
{
    for (int32_t size : {0, -1}) {
        char mem[6] = {'G', 0, 'X', 'X', 'X', 'X'};
        strAppendBounded(mem + 1, "abc", size);
        EXPECT_EQ(mem[0], 'G') << size;
        EXPECT_EQ(mem[1], 0) << size;
        EXPECT_EQ(mem[2], 'X') << size;
    }
}

// ---------------------------------------------------------------------------------------------
// Path parts and extensions.

TEST(PathParts, LastCharAndDirectoryLength)
{
    EXPECT_EQ(pathLastChar(""), 32);
    EXPECT_EQ(pathLastChar("/usr/"), 47);
    EXPECT_EQ(pathLastChar("abc"), 'c');

    EXPECT_EQ(pathDirLength("/usr/lib/x.so"), 9);
    EXPECT_EQ(pathDirLength("x.so"), 0);
    EXPECT_EQ(pathDirLength("/"), 1);
    EXPECT_EQ(pathDirLength("a\\b\\c"), 4);
    EXPECT_EQ(pathDirLength("a/b\\c"), 4);
    EXPECT_EQ(pathDirLength(""), 0);
}

TEST(PathParts, Extension)
{
    char ext[32];
    pathExtension("/a/b.tar.gz", ext, sizeof ext);
    EXPECT_STREQ(ext, ".gz");
    pathExtension("dir.d/name", ext, sizeof ext);
    EXPECT_STREQ(ext, "");
    pathExtension("dir.d\\name", ext, sizeof ext);
    EXPECT_STREQ(ext, "");
    pathExtension("/home/u/.profile", ext, sizeof ext);
    EXPECT_STREQ(ext, ".profile");
    pathExtension("name.", ext, sizeof ext);
    EXPECT_STREQ(ext, ".");
    pathExtension("x.longext", ext, 4);
    EXPECT_STREQ(ext, ".lo");

    char untouched[4] = {'X', 'X', 'X', 0};
    pathExtension("x.c", untouched, 0);
    EXPECT_STREQ(untouched, "XXX");
}

TEST(PathParts, EditInPlace)
{
    char p[64];
    strCopyBounded(p, "/usr/lib/libx.so", sizeof p);
    pathPart(p, 'P');
    EXPECT_STREQ(p, "libx.so");

    strCopyBounded(p, "/usr/lib/libx.so", sizeof p);
    pathPart(p, 'N');
    EXPECT_STREQ(p, "/usr/lib/");

    strCopyBounded(p, "/usr/lib/libx.so", sizeof p);
    pathPart(p, 'E');
    EXPECT_STREQ(p, "/usr/lib/libx");

    strCopyBounded(p, "/usr/lib.d/libx.so", sizeof p);
    pathPart(p, 'B');
    EXPECT_STREQ(p, "libx");

    strCopyBounded(p, "/usr/lib.d/libx", sizeof p);
    pathPart(p, 'E');
    EXPECT_STREQ(p, "/usr/lib.d/libx");

    strCopyBounded(p, "C:/tmp/x", sizeof p);
    pathPart(p, 'D');
    EXPECT_STREQ(p, "/tmp/x");
    pathPart(p, 'D');
    EXPECT_STREQ(p, "/tmp/x");

    strCopyBounded(p, "plain", sizeof p);
    pathPart(p, 'N');
    EXPECT_STREQ(p, "");
}

TEST(PathParts, LongExtensionLosesOnlyItsLastNineteenCharacters)
{
    char p[64];
    strCopyBounded(p, "a.abcdefghijklmnopqrstuvwxyz", sizeof p);
    pathPart(p, 'E');
    EXPECT_STREQ(p, "a.abcdefg");
}

// ---------------------------------------------------------------------------------------------
// Current directory, directory changes and removal.

TEST_F(DirectoryTest, PhysicalAndLogicalDirectoryThroughALink)
{
    ASSERT_EQ(mkdir((tmp_ / "real").c_str(), 0755), 0);
    ASSERT_EQ(symlink((tmp_ / "real").c_str(), (tmp_ / "link").c_str()), 0);

    ASSERT_EQ(changeDirectory((tmp_ / "link/").c_str()), 0);
    EXPECT_EQ(physicalCwd(), tmp_ / "real");
    EXPECT_EQ(current(0), tmp_ / "real");
    EXPECT_EQ(current(1), tmp_ / "link");

    ASSERT_EQ(changeDirectory("../real/."), 0);
    EXPECT_EQ(current(1), tmp_ / "real");
}

TEST_F(DirectoryTest, FailedChangeKeepsTheDirectory)
{
    ASSERT_EQ(changeDirectory(tmp_.path().c_str()), 0);
    writeFile(tmp_ / "file", "x", 0644);

    EXPECT_EQ(changeDirectory((tmp_ / "missing").c_str()), -2);
    EXPECT_EQ(changeDirectory((tmp_ / "file").c_str()), -3);
    EXPECT_EQ(current(1), tmp_.path());
    EXPECT_EQ(current(0), tmp_.path());
    EXPECT_EQ(physicalCwd(), tmp_.path());
}

TEST_F(DirectoryTest, CacheNoticesAChdirMadeElsewhere)
{
    ASSERT_EQ(current(0), start_);
    ASSERT_EQ(chdir(tmp_.path().c_str()), 0);
    EXPECT_EQ(current(0), tmp_.path());
    EXPECT_EQ(current(1), tmp_.path());
}

TEST_F(DirectoryTest, RemoveDirectory)
{
    ASSERT_EQ(mkdir((tmp_ / "empty").c_str(), 0755), 0);
    EXPECT_EQ(removeDirectory((tmp_ / "empty/").c_str()), 0);
    EXPECT_NE(access((tmp_ / "empty").c_str(), F_OK), 0);

    ASSERT_EQ(mkdir((tmp_ / "full").c_str(), 0755), 0);
    writeFile(tmp_ / "full/f", "x", 0644);
    EXPECT_EQ(removeDirectory((tmp_ / "full").c_str()), -3);  // ENOTEMPTY has no code of its own
    EXPECT_EQ(removeDirectory((tmp_ / "missing").c_str()), -2);
    writeFile(tmp_ / "plainfile", "x", 0644);
    EXPECT_EQ(removeDirectory((tmp_ / "plainfile").c_str()), -3);
}

// ---------------------------------------------------------------------------------------------
// Absolute paths and link resolution.

TEST_F(DirectoryTest, AbsoluteFormsOfRelativePaths)
{
    ASSERT_EQ(mkdir((tmp_ / "sub").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((tmp_ / "real").c_str(), 0755), 0);
    ASSERT_EQ(symlink("real", (tmp_ / "dirlink").c_str()), 0);
    ASSERT_EQ(changeDirectory((tmp_ / "sub").c_str()), 0);

    char out[512];
    EXPECT_EQ(pathAbsolute(out, "name"), 0);
    EXPECT_EQ(std::string(out), tmp_ / "sub/name");
    EXPECT_EQ(pathAbsolute(out, "../dirlink/x.txt"), 0);
    EXPECT_EQ(std::string(out), tmp_ / "real/x.txt");
    EXPECT_EQ(pathAbsolute(out, "\"../sub/q\""), 0);
    EXPECT_EQ(std::string(out), tmp_ / "sub/q");
    EXPECT_EQ(pathAbsolute(out, "nodir/y"), 0);
    EXPECT_EQ(std::string(out), tmp_ / "sub/nodir/y");
    EXPECT_EQ(pathAbsolute(out, "/no/such/dir/z"), 0);
    EXPECT_STREQ(out, "/no/such/dir/z");

    // The excursions into other directories leave no trace.
    EXPECT_EQ(physicalCwd(), tmp_ / "sub");
    EXPECT_EQ(current(1), tmp_ / "sub");
}

TEST_F(DirectoryTest, CollapsingWithoutFollowingLinks)
{
    ASSERT_EQ(changeDirectory(tmp_.path().c_str()), 0);
    char out[512];
    EXPECT_EQ(pathResolve(out, "a/./b/../c", 1), 0);
    EXPECT_EQ(std::string(out), tmp_ / "a/c");
    EXPECT_EQ(pathResolve(out, "/x/../../y//z/", 1), 0);
    EXPECT_STREQ(out, "/y/z/");
    EXPECT_EQ(pathResolve(out, "/..", 1), 0);
    EXPECT_STREQ(out, "/");
}

// Makes links l1 -> l2 -> ... -> l<count> -> target inside dir.
void makeChain(const TempDir& tmp, int count)
{
    writeFile(tmp / "target", "t", 0644);
    for (int i = 1; i <= count; ++i) {
        std::string next = i == count ? "target" : "l" + std::to_string(i + 1);
        ASSERT_EQ(symlink(next.c_str(), (tmp / ("l" + std::to_string(i))).c_str()), 0);
    }
}

TEST_F(DirectoryTest, ChainOfSevenLinksResolves)
{
    makeChain(tmp_, 7);
    char out[512];
    EXPECT_EQ(pathResolve(out, (tmp_ / "l1").c_str(), 0), 0);
    EXPECT_EQ(std::string(out), tmp_ / "target");
    EXPECT_EQ(physicalCwd(), start_);
}

TEST_F(DirectoryTest, ChainOfEightLinksStaysUnresolved)
{
    makeChain(tmp_, 8);
    char out[512];
    EXPECT_EQ(pathResolve(out, (tmp_ / "l1").c_str(), 0), 0);
    EXPECT_EQ(std::string(out), tmp_ / "l1");
    EXPECT_EQ(physicalCwd(), start_);

    ASSERT_EQ(unlink((tmp_ / "l8").c_str()), 0);
    ASSERT_EQ(symlink((tmp_ / "l1").c_str(), (tmp_ / "l8").c_str()), 0);  // a loop
    EXPECT_EQ(pathResolve(out, (tmp_ / "l3").c_str(), 0), 0);
    EXPECT_EQ(std::string(out), tmp_ / "l3");
}

TEST_F(DirectoryTest, RelativeLinkTargetsCountFromTheLinksDirectory)
{
    ASSERT_EQ(mkdir((tmp_ / "a").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((tmp_ / "b").c_str(), 0755), 0);
    writeFile(tmp_ / "b/file", "f", 0644);
    ASSERT_EQ(symlink("../b/file", (tmp_ / "a/link").c_str()), 0);
    ASSERT_EQ(changeDirectory(tmp_.path().c_str()), 0);

    char out[512];
    EXPECT_EQ(pathResolve(out, "a/link", 0), 0);
    EXPECT_EQ(std::string(out), tmp_ / "b/file");
    EXPECT_EQ(current(1), tmp_.path());
}

// ---------------------------------------------------------------------------------------------
// Search along a PATH-like list.

class PathSearchTest : public DirectoryTest {
protected:
    void SetUp() override
    {
        DirectoryTest::SetUp();
        ASSERT_EQ(mkdir((tmp_ / "d1").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((tmp_ / "d2").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((tmp_ / "d3").c_str(), 0755), 0);
    }
};

TEST_F(PathSearchTest, BlankAfterColonIsSkipped)
{
    writeFile(tmp_ / "d2/tool", "#!/bin/sh\n", 0755);
    std::string list = (tmp_ / "d1") + ": " + (tmp_ / "d2/");
    char out[512];
    EXPECT_EQ(pathSearch(out, "tool", list.c_str(), 0x80, sizeof out), 0);
    EXPECT_EQ(std::string(out), tmp_ / "d2/tool");
}

TEST_F(PathSearchTest, EmptyElementMeansTheCurrentDirectory)
{
    writeFile(tmp_ / "d3/tool", "#!/bin/sh\n", 0755);
    ASSERT_EQ(changeDirectory((tmp_ / "d3").c_str()), 0);
    std::string list = (tmp_ / "d1") + "::" + (tmp_ / "d2");
    char out[512];
    EXPECT_EQ(pathSearch(out, "tool", list.c_str(), 0x80, sizeof out), 0);
    EXPECT_STREQ(out, "tool");
    // A list that ends in ":" has an empty last element too.
    list = (tmp_ / "d1") + ":";
    EXPECT_EQ(pathSearch(out, "tool", list.c_str(), 0x80, sizeof out), 0);
    EXPECT_STREQ(out, "tool");
}

TEST_F(PathSearchTest, NonExecutablesAndDirectoriesAreRejected)
{
    writeFile(tmp_ / "d1/tool", "data", 0644);
    ASSERT_EQ(mkdir((tmp_ / "d2/tool").c_str(), 0755), 0);
    std::string list = (tmp_ / "d1") + ":" + (tmp_ / "d2");
    char out[512];
    EXPECT_EQ(pathSearch(out, "tool", list.c_str(), 0x80, sizeof out), -2);

    writeFile(tmp_ / "d3/tool", "#!/bin/sh\n", 0700);
    list += ":" + (tmp_ / "d3");
    EXPECT_EQ(pathSearch(out, "tool", list.c_str(), 0x80, sizeof out), 0);
    EXPECT_EQ(std::string(out), tmp_ / "d3/tool");
}

TEST_F(PathSearchTest, ListFromAVariableOrPath)
{
    writeFile(tmp_ / "d2/tool", "#!/bin/sh\n", 0755);
    std::string list = (tmp_ / "d1") + ":" + (tmp_ / "d2");
    char out[512];

    ASSERT_EQ(setenv("CVRT_PATHTEST_LIST", list.c_str(), 1), 0);
    EXPECT_EQ(pathSearch(out, "tool", "CVRT_PATHTEST_LIST", 0, sizeof out), 0);
    EXPECT_EQ(std::string(out), tmp_ / "d2/tool");
    unsetenv("CVRT_PATHTEST_LIST");

    const char* old = getenv("PATH");
    std::string saved = old ? old : "";
    ASSERT_EQ(setenv("PATH", list.c_str(), 1), 0);
    int32_t rc = pathSearch(out, "tool", nullptr, 0, sizeof out);
    std::string found = out;
    int32_t rcMissing = pathSearch(out, "cvrt-no-such-tool", nullptr, 0, sizeof out);
    if (old)
        setenv("PATH", saved.c_str(), 1);
    else
        unsetenv("PATH");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(found, tmp_ / "d2/tool");
    EXPECT_EQ(rcMissing, -2);
}

TEST_F(PathSearchTest, UnsetVariableTestsTheNameItself)
{
    writeFile(tmp_ / "d1/tool", "#!/bin/sh\n", 0755);
    ASSERT_EQ(changeDirectory((tmp_ / "d1").c_str()), 0);
    unsetenv("CVRT_PATHTEST_UNSET");
    char out[512];
    EXPECT_EQ(pathSearch(out, "tool", "CVRT_PATHTEST_UNSET", 0, sizeof out), 0);
    EXPECT_STREQ(out, "tool");
    EXPECT_EQ(pathSearch(out, "other", "CVRT_PATHTEST_UNSET", 0, sizeof out), -2);
}

TEST_F(PathSearchTest, NameWithSlashIsOnlyTestedItself)
{
    writeFile(tmp_ / "d1/tool", "#!/bin/sh\n", 0755);
    std::string list = tmp_ / "d1";
    std::string direct = tmp_ / "d1/tool";
    char out[512];
    EXPECT_EQ(pathSearch(out, direct.c_str(), list.c_str(), 0x80, sizeof out), 0);
    EXPECT_EQ(std::string(out), direct);
    EXPECT_EQ(pathSearch(out, "d1/tool", list.c_str(), 0x80, sizeof out), -2);
}

TEST_F(PathSearchTest, CandidateLongerThanTheBufferIsNotCutToAnotherName)
{
    writeFile(tmp_ / "d1/c", "#!/bin/sh\n", 0755);
    writeFile(tmp_ / "d1/cc", "#!/bin/sh\n", 0755);
    std::string list = tmp_ / "d1";
    char out[512];
    int32_t size = static_cast<int32_t>(list.size()) + 3;  // room for ".../c" but not ".../cc"
    EXPECT_EQ(pathSearch(out, "cc", list.c_str(), 0x80, size), -2);
    EXPECT_EQ(pathSearch(out, "c", list.c_str(), 0x80, size), 0);
    EXPECT_EQ(std::string(out), tmp_ / "d1/c");
}

// ---------------------------------------------------------------------------------------------
// Existence and the environment snapshot.

TEST(EntryExists, FilesDirectoriesAndMissingPaths)
{
    TempDir tmp;
    writeFile(tmp / "f", "x", 0644);
    EXPECT_EQ(entryExists((tmp / "f").c_str()), 1);
    EXPECT_EQ(entryExists(tmp.path().c_str()), 1);
    EXPECT_EQ(entryExists((tmp.path() + "/").c_str()), 1);
    EXPECT_EQ(entryExists("/"), 1);
    EXPECT_EQ(entryExists((tmp / "missing").c_str()), 0);
    EXPECT_EQ(entryExists((tmp / "f/below").c_str()), 0);
}

TEST(Environment, SnapshotLookup)
{
    ASSERT_TRUE(gProbeSet);
    const char* value = envGet("CVRT_PATHTEST_PROBE");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "a=b=c");
    EXPECT_EQ(envGet("CVRT_PATHTEST_PROB"), nullptr);
    EXPECT_EQ(envGet("CVRT_PATHTEST_PROBE="), nullptr);
    EXPECT_EQ(envGet("cvrt_pathtest_probe"), nullptr);
    EXPECT_EQ(envGet(""), nullptr);
    EXPECT_EQ(envGet("CVRT_PATHTEST_NO_SUCH_VARIABLE"), nullptr);
}

}  // namespace
