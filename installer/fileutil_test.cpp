// Path utilities at their edges ("/", "", a relative path). Trees made parent first and copying
// are checked by every installation.
#include "installer/fileutil.h"

#include <gtest/gtest.h>

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

TEST(FileUtil, ParentAndTrailingSlash) {
    // A path, its parent directory, and the path without and with one trailing "/".
    const struct {
        const char *path, *parent, *stripped, *appended;
    } rows[] = {
        {"/a/b/c", "/a/b/", "/a/b/c", "/a/b/c/"},
        {"/a", "/", "/a", "/a/"},
        {"rel/path", "rel/path", "rel/path", "rel/path/"},
        {"/", "/", "/", "/"},
        {"/a/b/", "/a/b/", "/a/b", "/a/b/"},
        {"", "", "", "/"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(edited(row.path, cutToParentDir), row.parent) << row.path;
        EXPECT_EQ(edited(row.path, stripTrailingSlash), row.stripped) << row.path;
        EXPECT_EQ(edited(row.path, appendSlash), row.appended) << row.path;
    }
}

}  // namespace
