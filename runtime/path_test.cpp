// Tests of the bounded strings, path parts, current directory, link resolution, PATH search,
// existence checks and the environment snapshot.
#include "runtime/path.h"

#include <gtest/gtest.h>

#include <algorithm>
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

std::string physicalCwd() {
    char buf[PATH_MAX];
    return getcwd(buf, sizeof buf) ? buf : "";
}

// Works in a fresh directory under /tmp (its physical path) and goes back to the starting
// directory afterwards.
class PathTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/cvrt_path_XXXXXX";
        char real[PATH_MAX];
        ASSERT_TRUE(mkdtemp(name) && realpath(name, real));
        tmp_ = real;
        start_ = physicalCwd();
    }
    void TearDown() override {
        EXPECT_EQ(changeDirectory(start_.c_str()), 0);
        EXPECT_EQ(physicalCwd(), start_);
        if (!tmp_.empty())
            nftw(tmp_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    std::string at(const std::string& rel) const { return tmp_ + "/" + rel; }
    // "@" in text stands for the temporary directory.
    std::string expand(const std::string& text) const {
        std::string out;
        for (char c : text)
            out += c == '@' ? tmp_ : std::string(1, c);
        return out;
    }
    void makeDirs(std::initializer_list<const char*> rels) {
        for (const char* rel : rels)
            ASSERT_EQ(mkdir(at(rel).c_str(), 0755), 0) << rel;
    }
    void makeFile(const std::string& rel, mode_t mode = 0644) {
        ASSERT_EQ(close(creat(at(rel).c_str(), mode)), 0) << rel;
        ASSERT_EQ(chmod(at(rel).c_str(), mode), 0);  // whatever the umask
    }
    std::string current(int logical) {
        char out[512];
        EXPECT_EQ(getCurrentDirectory(out, 0, logical), 0);
        return out;
    }

    std::string tmp_, start_;
};

TEST(BoundedStrings, CopyAndAppendCutSilently) {
    const struct { bool append; const char *before, *src; int32_t size; const char* after; } rows[] = {
        {false, "zz", "abcdef", 4, "abc"},  {false, "zz", "abc", 4, "abc"},
        {false, "zz", "abcdef", 1, ""},     {false, "zz", "abcdef", 0, ""},
        {false, "zz", "abcdef", -1, ""},    {false, "zz", "abcdef", -100, ""},
        {true, "abc", "def", 5, "abcd"},    {true, "abcd", "xyz", 5, "abcd"},
        {true, "ab", "cd", 16, "abcd"},     {true, "abcd", "", 16, "abcd"},
        // Exactly size characters lose the last one; longer ones are left as they are.
        {true, "abcde", "x", 5, "abcd"},    {true, "abcdefg", "x", 5, "abcdefg"},
        {true, "", "abc", 0, ""},           {true, "", "abc", -1, ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.append ? "append " : "copy ") + r.src + " " + std::to_string(r.size));
        char mem[24];
        memset(mem, 'X', sizeof mem);
        char* buf = mem + 1;  // mem[0] guards against writes in front of the buffer
        memcpy(buf, r.before, strlen(r.before) + 1);
        (r.append ? strAppendBounded : strCopyBounded)(buf, r.src, r.size);
        EXPECT_EQ(mem[0], 'X');
        EXPECT_STREQ(buf, r.after);
        for (size_t i = std::max(strlen(r.before), strlen(r.after)) + 1; i < 23; ++i)
            ASSERT_EQ(buf[i], 'X') << i;
    }
}

TEST(PathParts, LastCharDirectoryLengthExtensionAndEdits) {
    EXPECT_EQ(pathLastChar(""), 32);
    EXPECT_EQ(pathLastChar("/usr/"), 47);
    EXPECT_EQ(pathLastChar("abc"), 'c');
    const struct { const char* path; int32_t dirLength; const char* extension; } parts[] = {
        {"/usr/lib/x.so", 9, ".so"},   {"x.so", 0, ".so"},      {"/", 1, ""},
        {"a\\b\\c", 4, ""},            {"a/b\\c", 4, ""},       {"", 0, ""},
        {"/a/b.tar.gz", 3, ".gz"},     {"dir.d/name", 6, ""},   {"dir.d\\name", 6, ""},
        {"/home/u/.profile", 8, ".profile"}, {"name.", 0, "."},
    };
    for (const auto& p : parts) {
        SCOPED_TRACE(p.path);
        EXPECT_EQ(pathDirLength(p.path), p.dirLength);
        char ext[32];
        pathExtension(p.path, ext, sizeof ext);
        EXPECT_STREQ(ext, p.extension);
    }
    char ext[4] = {'X', 'X', 'X', 0};
    pathExtension("x.c", ext, 0);
    EXPECT_STREQ(ext, "XXX");
    pathExtension("x.longext", ext, 4);
    EXPECT_STREQ(ext, ".lo");

    const struct { const char* path; char what; const char* result; } edits[] = {
        {"/usr/lib/libx.so", 'P', "libx.so"},  {"/usr/lib/libx.so", 'N', "/usr/lib/"},
        {"/usr/lib/libx.so", 'E', "/usr/lib/libx"}, {"/usr/lib.d/libx.so", 'B', "libx"},
        {"/usr/lib.d/libx", 'E', "/usr/lib.d/libx"}, {"C:/tmp/x", 'D', "/tmp/x"},
        {"/tmp/x", 'D', "/tmp/x"},             {"plain", 'N', ""},
        // The extension is cut through a 20-byte buffer: only its last 19 characters go.
        {"a.abcdefghijklmnopqrstuvwxyz", 'E', "a.abcdefg"},
    };
    for (const auto& e : edits) {
        SCOPED_TRACE(std::string(1, e.what) + " " + e.path);
        char p[64];
        strCopyBounded(p, e.path, sizeof p);
        pathPart(p, e.what);
        EXPECT_STREQ(p, e.result);
    }
}

TEST_F(PathTest, PhysicalAndLogicalCurrentDirectory) {
    makeDirs({"real"});
    makeFile("file");
    ASSERT_EQ(symlink(at("real").c_str(), at("link").c_str()), 0);

    ASSERT_EQ(changeDirectory(at("link/").c_str()), 0);
    EXPECT_EQ(physicalCwd(), at("real"));
    EXPECT_EQ(current(0), at("real"));
    EXPECT_EQ(current(1), at("link"));
    // A failed change keeps both directories.
    EXPECT_EQ(changeDirectory(at("missing").c_str()), -2);
    EXPECT_EQ(changeDirectory(at("file").c_str()), -3);
    EXPECT_EQ(current(1), at("link"));
    EXPECT_EQ(physicalCwd(), at("real"));

    ASSERT_EQ(changeDirectory("../real/."), 0);
    EXPECT_EQ(current(1), at("real"));
    // A chdir made behind the library's back is noticed.
    ASSERT_EQ(chdir(tmp_.c_str()), 0);
    EXPECT_EQ(current(0), tmp_);
    EXPECT_EQ(current(1), tmp_);
}

TEST_F(PathTest, ExistenceAndDirectoryRemoval) {
    makeDirs({"empty", "full"});
    makeFile("full/f");
    EXPECT_EQ(entryExists(at("full/f").c_str()), 1);
    EXPECT_EQ(entryExists(tmp_.c_str()), 1);
    EXPECT_EQ(entryExists(at("").c_str()), 1);
    EXPECT_EQ(entryExists("/"), 1);
    EXPECT_EQ(entryExists(at("missing").c_str()), 0);
    EXPECT_EQ(entryExists(at("full/f/below").c_str()), 0);

    EXPECT_EQ(removeDirectory(at("empty/").c_str()), 0);
    EXPECT_EQ(entryExists(at("empty").c_str()), 0);
    EXPECT_EQ(removeDirectory(at("full").c_str()), -3);  // ENOTEMPTY has no code of its own
    EXPECT_EQ(removeDirectory(at("missing").c_str()), -2);
    EXPECT_EQ(removeDirectory(at("full/f").c_str()), -3);
}

TEST_F(PathTest, AbsolutePathsAndLinkResolution) {
    makeDirs({"sub", "real", "a", "b"});
    makeFile("b/file");
    ASSERT_EQ(symlink("real", at("dirlink").c_str()), 0);
    ASSERT_EQ(symlink("../b/file", at("a/link").c_str()), 0);  // counts from the link's directory
    ASSERT_EQ(changeDirectory(at("sub").c_str()), 0);

    // noFollow -1 stands for pathAbsolute; out is relative to the temporary directory unless it
    // starts with "/".
    const struct { const char* in; int noFollow; const char* out; } rows[] = {
        {"name", -1, "sub/name"},      {"../dirlink/x.txt", -1, "real/x.txt"}, {"\"../sub/q\"", -1, "sub/q"},
        {"nodir/y", -1, "sub/nodir/y"}, {"/no/such/dir/z", -1, "/no/such/dir/z"},
        {"a/./b/../c", 1, "sub/a/c"},  {"/x/../../y//z/", 1, "/y/z/"},        {"/..", 1, "/"},
        {"../dirlink/x", 1, "dirlink/x"}, {"../a/link", 1, "a/link"},          {"../a/link", 0, "b/file"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.in) + " noFollow " + std::to_string(r.noFollow));
        char out[512];
        int32_t rc = r.noFollow < 0 ? pathAbsolute(out, r.in) : pathResolve(out, r.in, r.noFollow);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(std::string(out), r.out[0] == '/' ? r.out : at(r.out));
    }
    // The excursions into other directories leave no trace.
    EXPECT_EQ(physicalCwd(), at("sub"));
    EXPECT_EQ(current(1), at("sub"));
}

TEST_F(PathTest, ChainsOfMoreThanSevenLinksStayUnresolved) {
    makeFile("target");
    for (int count : {7, 8}) {
        SCOPED_TRACE(count);
        std::string prefix = "chain" + std::to_string(count) + "_";  // _1 -> _2 -> ... -> target
        for (int i = 1; i <= count; ++i) {
            std::string next = i == count ? "target" : prefix + std::to_string(i + 1);
            ASSERT_EQ(symlink(next.c_str(), at(prefix + std::to_string(i)).c_str()), 0);
        }
        char out[512];
        EXPECT_EQ(pathResolve(out, at(prefix + "1").c_str(), 0), 0);
        EXPECT_EQ(std::string(out), at(count == 7 ? "target" : prefix + "1"));
    }
    ASSERT_EQ(symlink("loop2", at("loop1").c_str()), 0);
    ASSERT_EQ(symlink("loop1", at("loop2").c_str()), 0);
    char out[512];
    EXPECT_EQ(pathResolve(out, at("loop1").c_str(), 0), 0);
    EXPECT_EQ(std::string(out), at("loop1"));
    EXPECT_EQ(physicalCwd(), start_);
}

TEST_F(PathTest, SearchAlongAList) {
    makeDirs({"d1", "d2", "d2/tool", "d3", "d4"});
    makeFile("d1/tool", 0644);  // not executable
    makeFile("d3/tool", 0700);
    makeFile("d4/c", 0755);
    makeFile("d4/cc", 0755);
    makeFile("d4/tool", 0755);
    const char* oldPath = getenv("PATH");
    std::string savedPath = oldPath ? oldPath : "";
    ASSERT_EQ(setenv("PATH", expand("@/d1:@/d3").c_str(), 1), 0);
    ASSERT_EQ(setenv("CVRT_PATHTEST_LIST", expand("@/d2:@/d4").c_str(), 1), 0);
    unsetenv("CVRT_PATHTEST_UNSET");

    const int32_t kList = 0x80;  // listName is the list itself
    const struct {
        const char *name, *list; int32_t flags; const char* cwd; int32_t rc; const char* found;
    } rows[] = {
        {"tool", "@/d1: @/d3/", kList, "", 0, "@/d3/tool"},  // blank after ":" skipped
        {"tool", "@/d1:@/d2", kList, "", -2, ""},            // no execute bit, directory
        {"tool", "@/d1::@/d2", kList, "d3", 0, "tool"},      // empty element: current directory
        {"tool", "@/d1:", kList, "d3", 0, "tool"},
        {"d3/tool", "@/d1", kList, "", 0, "d3/tool"},        // a name with "/" is only tested itself
        {"@/d3/tool", "@/d1", kList, "d1", 0, "@/d3/tool"},
        {"d3/tool", "@", kList, "d1", -2, ""},               // ... and not along the list
        {"tool", "CVRT_PATHTEST_LIST", 0, "", 0, "@/d4/tool"},
        {"tool", nullptr, 0, "", 0, "@/d3/tool"},
        {"cvrt-no-such-tool", nullptr, 0, "", -2, ""},
        {"tool", "CVRT_PATHTEST_UNSET", 0, "d3", 0, "tool"},  // unset: the name itself is tested
        {"tool", "CVRT_PATHTEST_UNSET", 0, "d1", -2, ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.name) + " in " + (r.list ? r.list : "PATH"));
        EXPECT_EQ(changeDirectory(at(r.cwd).c_str()), 0);
        std::string name = expand(r.name), list = expand(r.list ? r.list : "");
        char out[512];
        int32_t rc = pathSearch(out, name.c_str(), r.list ? list.c_str() : nullptr, r.flags, 512);
        EXPECT_EQ(rc, r.rc);
        if (r.rc == 0) {
            EXPECT_EQ(std::string(out), expand(r.found));
        }
    }
    // A candidate longer than the buffer is skipped, not cut into the name of another file.
    std::string d4 = at("d4");
    char out[512];
    int32_t size = static_cast<int32_t>(d4.size()) + 3;  // room for ".../c" but not ".../cc"
    EXPECT_EQ(pathSearch(out, "cc", d4.c_str(), kList, size), -2);
    EXPECT_EQ(pathSearch(out, "c", d4.c_str(), kList, size), 0);
    EXPECT_EQ(std::string(out), at("d4/c"));

    if (oldPath)
        setenv("PATH", savedPath.c_str(), 1);
    else
        unsetenv("PATH");
    unsetenv("CVRT_PATHTEST_LIST");
}

TEST(Environment, SnapshotLookup) {
    ASSERT_TRUE(gProbeSet);
    const char* value = envGet("CVRT_PATHTEST_PROBE");
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "a=b=c");
    for (const char* name : {"CVRT_PATHTEST_PROB", "CVRT_PATHTEST_PROBE=", "cvrt_pathtest_probe", "",
                             "CVRT_PATHTEST_NO_SUCH_VARIABLE"})
        EXPECT_EQ(envGet(name), nullptr) << name;
}

}  // namespace
