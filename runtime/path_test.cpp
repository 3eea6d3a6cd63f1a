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
        const std::string make = "cd " + tmp_ + " && mkdir real sub a b empty full d1 d2 d2/tool d3 d4" +
                                 " && touch t b/file full/f target d1/tool d3/tool d4/c d4/cc d4/tool" +
                                 " && chmod 700 d3/tool && chmod 755 d4/c d4/cc d4/tool && ln -s " + tmp_ +
                                 "/real link" +
                                 " && ln -s sub sublink && ln -s ../b/file a/link && ln -s real dirlink" +
                                 " && ln -s loop2 loop1 && ln -s loop1 loop2" +
                                 " && for n in 7 8; do t=target; for i in $(seq $n -1 1); do ln -s $t "
                                 "chain${n}_$i; t=chain${n}_$i; "
                                 "done; done";
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
    EXPECT_EQ(current(0), at("real"));
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
        {"name", -1, "@/sub/name"},
        {"../dirlink/x.txt", -1, "@/real/x.txt"},
        {"\"../sub/q\"", -1, "@/sub/q"},
        {"nodir/y", -1, "@/sub/nodir/y"},
        {"/no/such/dir/z", -1, "/no/such/dir/z"},
        {"a/./b/../c", 1, "@/sublink/a/c"},
        {"/xy/../../yz//z/", 1, "/yz/z/"},
        {"/..", 1, "/"},
        {"../dirlink/x", 1, "@/dirlink/x"},
        {"../a/link", 1, "@/a/link"},
        {"../a/link", 0, "@/b/file"},
        {"@/chain7_1", 0, "@/target"},
        {"@/chain8_1", 0, "@/chain8_1"},
        {"@/loop1", 0, "@/loop1"},  // 8 links or more: unresolved
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
    const char* path = getenv("PATH");
    const std::string savedPath = path != nullptr ? path : "";
    ASSERT_EQ(setenv("PATH", expand("@/d1:@/d3").c_str(), 1), 0);
    ASSERT_EQ(setenv("CVRT_PATHTEST_LIST", expand("@/d2:@/d4").c_str(), 1), 0);
    const int32_t kList = 0x80;  // listName is the list itself
    char out[512];
    const struct {
        const char *name, *list;
        int32_t flags;
        const char *cwd, *found;
    } rows[] = {
        // A blank after ":" is skipped; no execute bit and a directory do not count; an empty element
        // is the current directory; a name with "/" is only tested itself, as is any name when the
        // variable is unset.
        {"tool", "@/d1: @/d3/", kList, "", "@/d3/tool"},
        {"tool", "@/d1:@/d2", kList, "", nullptr},
        {"tool", "@/d1::@/d2", kList, "d3", "tool"},
        {"tool", "@/d1:", kList, "d3", "tool"},
        {"d3/tool", "@/d1", kList, "", "d3/tool"},
        {"@/d3/tool", "@/d1", kList, "d1", "@/d3/tool"},
        {"d3/tool", "@", kList, "d1", nullptr},
        {"tool", "CVRT_PATHTEST_LIST", 0, "", "@/d4/tool"},
        {"tool", nullptr, 0, "", "@/d3/tool"},
        {"cvrt-no-such-tool", nullptr, 0, "", nullptr},
        {"tool", "CVRT_PATHTEST_UNSET", 0, "d3", "tool"},
        {"tool", "CVRT_PATHTEST_UNSET", 0, "d1", nullptr},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(changeDirectory(at(r.cwd).c_str()), 0);
        std::string name = expand(r.name), list = expand(r.list ? r.list : "");
        int32_t rc = pathSearch(out, name.c_str(), r.list ? list.c_str() : nullptr, r.flags, 512);
        EXPECT_EQ(rc, r.found ? 0 : -2) << r.name << " in " << (r.list ? r.list : "PATH");
        EXPECT_EQ(out, expand(r.found ? r.found : "")) << r.name << " in " << (r.list ? r.list : "PATH");
    }
    // A candidate longer than the buffer is skipped, not cut into the name of another file; a
    // search that fails empties the result.
    std::string d4 = at("d4");
    int32_t size = static_cast<int32_t>(d4.size()) + 3;  // room for ".../c" but not ".../cc"
    EXPECT_EQ(pathSearch(out, "cc", d4.c_str(), kList, size), -2);
    EXPECT_EQ(pathSearch(out, "c", d4.c_str(), kList, size), 0);
    EXPECT_EQ(pathSearch(out, (d4 + "/cc").c_str(), nullptr, 0, size), -2);
    EXPECT_STREQ(out, "");
    setenv("PATH", savedPath.c_str(), 1);
    unsetenv("CVRT_PATHTEST_LIST");
}

}  // namespace
