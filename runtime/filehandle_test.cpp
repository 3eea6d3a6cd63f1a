// Plain files through handles: modes and status codes, and whole-file reads; archive members from
// archives written byte by byte, sound and damaged.
#include "runtime/filehandle.h"

#include "runtime/path.h"
#include "runtime/pool.h"
#include "runtime/zipreader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

uint32_t u32(size_t v) {
    return static_cast<uint32_t>(v);
}

// Opens a path in mode 0 and reads it whole in small pieces: the open's code and the bytes.
std::pair<int32_t, std::string> readThroughHandle(const std::string& path) {
    int32_t h = fileOpen(path.c_str(), 0);
    if (h < 0) return {h, ""};
    std::string bytes;
    char buf[777];
    int32_t n = 0;
    while ((n = fileRead(h, buf, sizeof buf)) > 0) bytes.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(n, 0) << path;  // the end reads as 0
    EXPECT_EQ(fileClose(h, -1), 0) << path;
    return {0, bytes};
}

// A fresh directory under /tmp, removed with everything in it; archive access is on.
class FileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/cvrt_file_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        char real[PATH_MAX];
        ASSERT_NE(realpath(name, real), nullptr);
        tmp_ = real;
        fileSetArchiveDecompressor(uncompress);
    }
    void TearDown() override {
        fileSetArchiveDecompressor(nullptr);
        EXPECT_EQ(system(("rm -rf " + tmp_).c_str()), 0);
    }
    std::string at(const std::string& rel) const { return tmp_ + "/" + rel; }
    std::string put(const std::string& rel, const std::string& bytes) const {  // writes tmp/rel
        EXPECT_TRUE(std::ofstream(at(rel), std::ios::binary) << bytes) << rel;
        return at(rel);
    }
    std::string tmp_;
};

TEST_F(FileTest, HandlesModesAndStatusCodes) {
    EXPECT_EQ(fileWrite(1, "", 0), 0);  // the standard handles are there from the start
    // Written, cut short and read back.
    std::string path = at("f");
    int32_t h = fileOpen(path.c_str(), 2);
    EXPECT_EQ(fileWrite(h, "hello world", 11), 11);
    EXPECT_EQ(fileSeek(h, -6, 1), 5);
    EXPECT_EQ(fileTruncate(h), 0);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_EQ(readThroughHandle(path).second, "hello");
    EXPECT_EQ(fileOpen(path.c_str(), 6), -52);  // an unknown mode
}

// A file that reads shorter than its size (sysfs reports 4096 bytes) ends at what was read. Whole
// reads of ordinary files are the installer's, in every installation.
TEST(WholeFile, ShorterThanItsSize) {
    std::ifstream sys("/sys/devices/system/cpu/online");
    std::string online((std::istreambuf_iterator<char>(sys)), std::istreambuf_iterator<char>());
    char* buffer = nullptr;
    int32_t length = -1;
    EXPECT_EQ(fileReadAll("/sys/devices/system/cpu/online", &buffer, &length, 0, 0), 0);
    EXPECT_EQ(buffer, online);
    libFree(buffer);
}

// ---- Archives written byte by byte ----

// Appends little-endian fields; widths holds the byte width (2 or 4) of each value.
void pack(std::string& s, const char* widths, std::initializer_list<uint32_t> values) {
    for (uint32_t v : values) {
        for (int i = 0, n = *widths - '0'; i < n; ++i) {
            s += static_cast<char>(v & 0xff);
            v >>= 8;
        }
        widths++;
    }
}

// zlib's stream without its 2-byte header and 4-byte trailer is raw deflate data.
std::string rawDeflate(const std::string& text) {
    uLongf n = compressBound(text.size());
    std::string out(n, '\0');
    compress2(reinterpret_cast<Bytef*>(out.data()), &n, reinterpret_cast<const Bytef*>(text.data()),
              text.size(), 9);
    return out.substr(2, n - 6);
}

struct Member {
    std::string name, stored;  // stored: the bytes as they stand in the archive
    uint32_t method, size;     // size: uncompressed
};
Member stored(const std::string& name, const std::string& text) {
    return {name, text, 0, u32(text.size())};
}
Member deflated(const std::string& name, const std::string& t) {
    return {name, rawDeflate(t), 8, u32(t.size())};
}

// Local headers and data, the central directory and the end record. Local headers carry an extra
// field of 3 bytes, central ones one of 4.
std::string buildZip(const std::vector<Member>& members) {
    std::string s;
    for (const Member& m : members) {
        pack(s, "4222444422",
             {0x04034b50, 20, 0, m.method, 0, 0, u32(m.stored.size()), m.size, u32(m.name.size()), 3});
        s += m.name + "xyz" + m.stored;
    }
    uint32_t directory = u32(s.size()), count = u32(members.size()), local = 0;
    for (const Member& m : members) {
        pack(s, "4222244442222244",
             {0x02014b50, 20, 20, 0, m.method, 0, 0, u32(m.stored.size()), m.size, u32(m.name.size()), 4, 0,
              0, 0, 0, local});
        s += m.name + "abcd";
        local += 30 + u32(m.name.size()) + 3 + u32(m.stored.size());  // the member's local header and data
    }
    pack(s, "42222442", {0x06054b50, 0, 0, count, count, u32(s.size()) - directory, directory, 0});
    return s;
}

TEST_F(FileTest, ArchiveMembers) {
    std::string deep;
    for (int i = 0; i < 2000; ++i) deep += "line " + std::to_string(i % 37) + " of a compressible text\n";
    std::vector<Member> members = {
        deflated("sub/deep.txt", deep),
        stored("hello.txt", "Hello, archive.\n"),
        stored("sub/", ""),
        deflated("nothing", ""),
        stored("Read.me", "mixed"),
        stored("READ.ME", "upper"),
    };
    for (int i = 0; i < 300; ++i)  // more names than the first hash table holds
        members.push_back(stored("m" + std::to_string(i) + ".txt", "member " + std::to_string(i)));
    std::string zip = put("a.zip", buildZip(members));
    // A member inflated, read in pieces; an archive that is not there is a directory that is not.
    EXPECT_EQ(readThroughHandle(zip + "/sub/deep.txt"), std::make_pair(0, deep));
    EXPECT_EQ(readThroughHandle(at("missing.zip/x")).first, -3);
    EXPECT_EQ(fileArchiveMemberExists((zip + "/hello.txt").c_str()), 1);
    EXPECT_EQ(fileArchiveMemberExists((zip + "/missing").c_str()), 0);
    // The member object closed holds nothing; the reader underneath clears its results for a
    // missing member.
    XXFH_JAR jar;
    ASSERT_EQ(jar.open((zip + "/hello.txt").c_str(), 0), 0);
    EXPECT_EQ(jar.close(-1), 0);
    EXPECT_EQ(jar.seek(0, 2), 0);
    unsigned char stale[1];
    unsigned char* bytes = stale;
    uint32_t count = 7;
    EXPECT_EQ(zipReadMember(zip.c_str(), "missing", nullptr, &bytes, &count), -2);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(count, 0u);
}

}  // namespace
