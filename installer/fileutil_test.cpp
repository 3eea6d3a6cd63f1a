// Copying a file and making a directory with its parents, at the edges that no installation
// reaches: an unreadable source, a full or missing destination.
#include "installer/fileutil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "runtime/path.h"
#include "tests/scratchdir.h"

// A copy has the bytes and the permission bits of its source; a source that cannot be read or a
// destination that fills up fails the copy.
TEST(FileUtil, CopyAndEnsureDirectory) {
    ScratchDir scratch("cvinst-fileutil");
    const std::string& dir = scratch.path();
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
}
