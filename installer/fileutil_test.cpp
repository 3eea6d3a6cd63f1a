// Directory utilities: the parent of a path and trees made parent first. Copying is checked by
// every installation.
#include "installer/fileutil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "installer/state.h"
#include "runtime/path.h"

namespace {

// The operation's result and what it printed, as "<result>:<output>".
template <class Op>
std::string run(Op op) {
    testing::internal::CaptureStdout();
    int32_t result = op();
    return std::to_string(result) + ":" + testing::internal::GetCapturedStdout();
}

TEST(FileUtil, PathsAndDirectoryTrees) {
    // A path, its parent directory, and the path without and with one trailing "/".
    const struct { const char *path, *parent, *stripped, *appended; } rows[] = {
        {"/a/b/c", "/a/b/", "/a/b/c", "/a/b/c/"}, {"/a", "/", "/a", "/a/"}, {"rel/path", "rel/path", "rel/path", "rel/path/"},
        {"/", "/", "/", "/"}, {"/a/b/", "/a/b/", "/a/b", "/a/b/"}, {"", "", "", "/"}};
    for (const auto& row : rows) {
        char parent[kPathSize], stripped[kPathSize], appended[kPathSize];
        strCopyBounded(parent, row.path, kPathSize), strCopyBounded(stripped, row.path, kPathSize);
        strCopyBounded(appended, row.path, kPathSize);
        cutToParentDir(parent), stripTrailingSlash(stripped), appendSlash(appended);
        EXPECT_TRUE(!strcmp(parent, row.parent) && !strcmp(stripped, row.stripped) && !strcmp(appended, row.appended))
            << row.path << ": " << parent << " " << stripped << " " << appended;
    }
    resetInstallState();
    char pattern[] = "/tmp/fileutil_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern;
    auto at = [&](const char* name) { return dir + "/" + name; };
    auto isDir = [&](const char* name) {
        struct stat info;
        return stat(at(name).c_str(), &info) == 0 && S_ISDIR(info.st_mode) && (info.st_mode & 0777) == 0755;
    };
    fclose(fopen(at("file").c_str(), "w"));
    mode_t old = umask(022);
    std::string abc = at("a/b/c"), xy = at("x/y/"), blocked = at("file/sub/deeper");
    EXPECT_EQ(run([&] { return makeDirectoryTree(abc.c_str()) + makeDirectoryTree(xy.c_str()) + makeDirectoryTree("") +
                               makeDirectoryTree("/"); }), "0:");
    EXPECT_TRUE(isDir("a/b") && isDir("a/b/c") && isDir("x/y"));
    // It stops at the first directory that cannot be made.
    EXPECT_EQ(run([&] { return makeDirectoryTree(blocked.c_str()); }), "1:Corvane Install: Cannot create directory " +
                                                                          at("file/sub") + ".\n");
    umask(old);
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
