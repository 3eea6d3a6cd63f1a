// The environment snapshot, the current directory and existence, absolute paths and link
// resolution, and the search along a list of directories.
#include "runtime/path.h"
#include "tests/scratchdir.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

// Set before main so that it is part of the environment snapshot, whenever that is taken.
const bool gProbeSet = setenv("CVRT_PATHTEST_PROBE", "a=b=c", 1) == 0;

TEST(PathText, EnvironmentSnapshot) {
    ASSERT_TRUE(gProbeSet);
    EXPECT_STREQ(envGet("CVRT_PATHTEST_PROBE"), "a=b=c");
}

// Bounded copies and appends, and the parts of a path; "|" in a row's input separates the two
// texts of an append.
TEST(PathText, BoundedStringsAndParts) {
    const struct {
        char op;  // c copy, a append, or a pathPart letter
        int32_t size;
        const char* in;
        const char* out;
    } rows[] = {
        {'c', 4, "abcdef", "abc"},
        {'c', 1, "abcdef", ""},
        {'c', 0, "abcdef", ""},
        {'a', 5, "abc|def", "abcd"},
        {'a', 5, "abcd|x", "abcd"},
        {'a', 5, "ab|cd", "abcd"},
        {'a', 0, "ab|cd", "ab"},
        {'P', 0, "/a/b.c", "b.c"},
        {'N', 0, "/a/b.c", "/a/"},
        {'E', 0, "/a.d/b.tar.gz", "/a.d/b.tar"},
        {'E', 0, "/a.d/b", "/a.d/b"},
        {'E', 0, "x.abcdefghijklmnopqrstuvw", "x.abcd"},  // only 19 characters of the extension go
        {'B', 0, "C:\\dir\\b.c", "b"},
        {'D', 0, "C:/x", "/x"},
        {'D', 0, "/x:", "/x:"},
        {'Q', 0, "/x", "/x"},
    };
    for (const auto& r : rows) {
        char out[64];
        std::string in = r.in;
        size_t bar = in.find('|');
        if (r.op == 'c') {
            strCopyBounded(out, r.in, r.size);
        } else if (r.op == 'a') {
            strCopyBounded(out, in.substr(0, bar).c_str(), sizeof out);
            strAppendBounded(out, in.substr(bar + 1).c_str(), r.size);
        } else {
            strCopyBounded(out, r.in, sizeof out);
            pathPart(out, r.op);
        }
        EXPECT_STREQ(out, r.out) << r.op << " " << r.in << " " << r.size;
    }
    char ext[4];
    pathExtension("d.x/name.long", ext, sizeof ext);
    EXPECT_STREQ(ext, ".lo");
    EXPECT_EQ(pathLastChar(""), 32);
    EXPECT_EQ(pathLastChar("a/"), '/');
    EXPECT_EQ(pathDirLength("a/b\\c"), 4);
    EXPECT_EQ(envGet("CVRT_PATHTEST_NO_SUCH_VARIABLE"), nullptr);
}

std::string physicalCwd() {
    char buf[PATH_MAX];
    return getcwd(buf, sizeof buf) ? buf : "";
}

// A fresh tree under /tmp (by its physical path), made by the shell; back to the start afterwards.
// chain7_1 and chain8_1 lead through 7 and 8 links to "target".
class PathTest : public ::testing::Test {
protected:
    void SetUp() override {
        start_ = physicalCwd();
        const std::string make = "cd " + tmp_ +
                                 " && mkdir real sub a b d1 d3 d4 && touch t b/file d3/tool d4/c d4/cc"
                                 " && chmod 700 d3/tool && chmod 755 d4/c d4/cc && ln -s \"$PWD/real\" link"
                                 " && ln -s sub sublink && ln -s ../b/file a/link && ln -s real dirlink";
        ASSERT_EQ(system(make.c_str()), 0);
    }
    void TearDown() override { EXPECT_EQ(changeDirectory(start_.c_str()), 0); }
    // "@" in text stands for the temporary directory.
    std::string at(const std::string& rel) const { return scratch_.at(rel); }
    std::string expand(const std::string& text) const {
        std::string out;
        for (char c : text) out += c == '@' ? tmp_ : std::string(1, c);
        return out;
    }
    static std::string current(int logical) {
        char out[512];
        EXPECT_EQ(getCurrentDirectory(out, 0, logical), 0);
        return out;
    }
    ScratchDir scratch_{"cvrt_path"};
    const std::string tmp_ = scratch_.path();
    std::string start_;
};

TEST_F(PathTest, CurrentDirectoryAndExistence) {
    ASSERT_EQ(changeDirectory(at("link/").c_str()), 0);
    EXPECT_EQ(current(1), at("link"));
    // A directory whose physical path does not fit 511 characters, entered by a short link.
    std::string deep = tmp_ + "/" + std::string(250, 'd') + "/" + std::string(250, 'e') + "/f";
    ASSERT_EQ(system(("mkdir -p " + deep).c_str()), 0);
    ASSERT_EQ(symlink(deep.c_str(), at("short").c_str()), 0);
    EXPECT_EQ(changeDirectory(at("short").c_str()), 0);
    EXPECT_EQ(current(1), at("short"));
    ASSERT_EQ(chdir(tmp_.c_str()), 0);
    EXPECT_EQ(entryExists("t/"), 1);
}

// One empty directory at a time; a directory the process is in that is removed has no name.
TEST_F(PathTest, RemovedDirectories) {
    ASSERT_EQ(system(("cd " + tmp_ + " && mkdir -p e full/x").c_str()), 0);
    EXPECT_EQ(removeDirectory(at("e/").c_str()), 0);
    EXPECT_EQ(entryExists(at("e").c_str()), 0);
    EXPECT_EQ(removeDirectory(at("full").c_str()), -3);  // not empty: no code of its own
    EXPECT_EQ(removeDirectory(at("e").c_str()), -2);
    ASSERT_EQ(chdir(at("full/x").c_str()), 0);
    ASSERT_EQ(rmdir(at("full/x").c_str()), 0);
    char out[512];
    EXPECT_EQ(getCurrentDirectory(out, 0, 0), -2);
    EXPECT_EQ(pathAbsolute(out, "\"q/r\""), -2);
    EXPECT_STREQ(out, "q/r");
    ASSERT_EQ(chdir(tmp_.c_str()), 0);
}

TEST_F(PathTest, AbsolutePathsAndLinkResolution) {
    ASSERT_EQ(changeDirectory(at("sublink").c_str()), 0);  // logically through a link
    // noFollow -1 stands for pathAbsolute; "@" is the temporary directory.
    const struct {
        const char* in;
        int noFollow;
        const char* out;
    } rows[] = {
        {"../dirlink/x.txt", -1, "@/real/x.txt"},
        {"\"../sub/q\"", -1, "@/sub/q"},
        {"/no/such/dir/z", -1, "/no/such/dir/z"},
        {"a/./b/../c", 1, "@/sublink/a/c"},
        {"/..", 1, "/"},
        {"/x/y/../", 1, "/x/"},  // a trailing "/" stays, behind the shorter path
        {"../a/link", 0, "@/b/file"},
        {"../none/z", -1, "@/sub/../none/z"},  // a directory that cannot be entered stays as given
        {"../chain7_1", 0, "@/target"},
        {"../chain8_1", 0, "@/chain8_1"},  // eight links are too many: left as it is
    };
    for (int n : {7, 8})
        for (int i = 1; i <= n; ++i) {
            std::string next = i == n ? "target" : "chain" + std::to_string(n) + "_" + std::to_string(i + 1);
            ASSERT_EQ(
                symlink(next.c_str(), at("chain" + std::to_string(n) + "_" + std::to_string(i)).c_str()), 0);
        }
    for (const auto& r : rows) {
        char out[512];
        std::string in = expand(r.in);
        int32_t rc =
            r.noFollow < 0 ? pathAbsolute(out, in.c_str()) : pathResolve(out, in.c_str(), r.noFollow);
        EXPECT_EQ(rc, 0) << r.in << " " << r.noFollow;
        EXPECT_EQ(out, expand(r.out)) << r.in << " " << r.noFollow;
    }
}

TEST_F(PathTest, SearchAlongAList) {
    const int32_t kList = 0x80;  // listName is the list itself
    char out[512];
    // A name with "/" is only tested itself.
    ASSERT_EQ(changeDirectory(tmp_.c_str()), 0);
    EXPECT_EQ(pathSearch(out, "d3/tool", at("d1").c_str(), kList, 512), 0);
    EXPECT_STREQ(out, "d3/tool");
    // A candidate longer than the buffer is skipped, not cut into the name of another file; a
    // search that fails empties the result.
    std::string d4 = at("d4");
    int32_t size = static_cast<int32_t>(d4.size()) + 3;  // room for ".../c" but not ".../cc"
    EXPECT_EQ(pathSearch(out, "cc", d4.c_str(), kList, size), -2);
    EXPECT_EQ(pathSearch(out, "c", d4.c_str(), kList, size), 0);
    EXPECT_EQ(pathSearch(out, (d4 + "/cc").c_str(), nullptr, 0, size), -2);
    EXPECT_STREQ(out, "");
    // Without the list's variable the name is tried as it is, in the current directory.
    ASSERT_EQ(changeDirectory(d4.c_str()), 0);
    EXPECT_EQ(pathSearch(out, "cc", "CVRT_PATHTEST_NO_LIST", 0, 512), 0);
    EXPECT_STREQ(out, "cc");
    EXPECT_EQ(pathSearch(out, "cc", "CVRT_PATHTEST_NO_LIST", 0, 2), -2);
    EXPECT_EQ(pathSearch(out, "t", "CVRT_PATHTEST_NO_LIST", 0, 512), -2);
    EXPECT_EQ(pathSearch(out, "cc", "CVRT_PATHTEST_NO_LIST", 0, 0), -2);
}

}  // namespace
