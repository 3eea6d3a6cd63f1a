// Path utilities at their edges ("/", "", a relative path). Trees made parent first and copying
// are checked by every installation.
#include "installer/fileutil.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "installer/state.h"
#include "runtime/path.h"

TEST(FileUtil, ParentAndTrailingSlash) {
    // A path, its parent directory, and the path without and with one trailing "/".
    const struct {
        const char *path, *parent, *stripped, *appended;
    } rows[] = {{"/a/b/c", "/a/b/", "/a/b/c", "/a/b/c/"},
                {"/a", "/", "/a", "/a/"},
                {"rel/path", "rel/path", "rel/path", "rel/path/"},
                {"/", "/", "/", "/"},
                {"/a/b/", "/a/b/", "/a/b", "/a/b/"},
                {"", "", "", "/"}};
    for (const auto& row : rows) {
        char parent[kPathSize], stripped[kPathSize], appended[kPathSize];
        for (char* copy : {parent, stripped, appended}) strCopyBounded(copy, row.path, kPathSize);
        cutToParentDir(parent), stripTrailingSlash(stripped), appendSlash(appended);
        EXPECT_TRUE(!strcmp(parent, row.parent) && !strcmp(stripped, row.stripped) &&
                    !strcmp(appended, row.appended))
            << row.path << ": " << parent << " " << stripped << " " << appended;
    }
}
