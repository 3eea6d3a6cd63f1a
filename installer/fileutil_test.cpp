// Path utilities at the edge that no installation reaches: the root. Trees made parent first and
// copying are checked by every installation.
#include "installer/fileutil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "installer/state.h"
#include "runtime/path.h"

namespace {

// The path after one of the editing functions.
std::string edited(const char* path, void (*edit)(char*)) {
    char copy[kPathSize];
    strCopyBounded(copy, path, kPathSize);
    edit(copy);
    return copy;
}

// The root keeps its "/" when trailing ones are stripped, and gets no second one.
TEST(FileUtil, RootKeepsItsSlash) {
    EXPECT_EQ(edited("/", stripTrailingSlash), "/");
    EXPECT_EQ(edited("/", appendSlash), "/");
}

// A copy has the bytes and the permission bits of its source; a source that cannot be read or a
// destination that fills up fails the copy.
TEST(FileUtil, CopyAndEnsureDirectory) {
    char name[] = "/tmp/cvinst-fileutil.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    const std::string dir = name;
    const std::string from = dir + "/from", to = dir + "/to";
    ASSERT_EQ(system(("printf abc >" + from + " && chmod 751 " + from).c_str()), 0);
    EXPECT_EQ(copyFile(from.c_str(), to.c_str()), 0);
    uint32_t mode = 0;
    EXPECT_EQ(getFileMode(to.c_str(), &mode), 0);
    EXPECT_EQ(mode & 07777, 0751u);
    EXPECT_EQ(system(("cmp -s " + from + " " + to).c_str()), 0);
    EXPECT_EQ(copyFile((dir + "/none").c_str(), to.c_str()), 1);
    EXPECT_EQ(copyFile(from.c_str(), "/dev/full"), 1);
    EXPECT_EQ(copyFile(from.c_str(), (dir + "/no/dir/to").c_str()), 1);
    // A missing directory is made with its parents, unasked; one that is there is left alone.
    const std::string deep = dir + "/x/y/z/";
    EXPECT_EQ(ensureDirectory(deep.c_str(), 0), 0);
    EXPECT_EQ(pathExists((dir + "/x/y/z").c_str()), 1);
    EXPECT_EQ(ensureDirectory(deep.c_str(), 1), 0);
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
