// Path utilities at the edge that no installation reaches: the root. Trees made parent first and
// copying are checked by every installation.
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

// The root keeps its "/" when trailing ones are stripped, and gets no second one.
TEST(FileUtil, RootKeepsItsSlash) {
    EXPECT_EQ(edited("/", stripTrailingSlash), "/");
    EXPECT_EQ(edited("/", appendSlash), "/");
}

}  // namespace
