// The environment snapshot, the current directory and existence, absolute paths and link
// resolution, and the search along a list of directories.
#include "runtime/path.h"

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

std::string physicalCwd() {
    char buf[PATH_MAX];
    return getcwd(buf, sizeof buf) ? buf : "";
}

// A fresh tree under /tmp (by its physical path), made by the shell; back to the start afterwards.
// chain7_1 and chain8_1 lead through 7 and 8 links to "target".
class PathTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/cvrt_path_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        char real[PATH_MAX];
        ASSERT_NE(realpath(name, real), nullptr);
        tmp_ = real;
        start_ = physicalCwd();
        const std::string make = "cd " + tmp_ +
                                 " && mkdir real sub a b d1 d3 d4 && touch t b/file d3/tool d4/c d4/cc"
                                 " && chmod 700 d3/tool && chmod 755 d4/c d4/cc && ln -s \"$PWD/real\" link"
                                 " && ln -s sub sublink && ln -s ../b/file a/link && ln -s real dirlink";
        ASSERT_EQ(system(make.c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(changeDirectory(start_.c_str()), 0);
        EXPECT_EQ(system(("rm -rf " + tmp_).c_str()), 0);
    }
    // "@" in text stands for the temporary directory.
    std::string at(const std::string& rel) const { return tmp_ + "/" + rel; }
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
    std::string tmp_, start_;
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
        {"../a/link", 0, "@/b/file"},
    };
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
}

}  // namespace
