// Plain files through handles: the handle table, modes and status codes, and whole-file reads;
// archive members from archives written byte by byte, sound and damaged.
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
    for (int32_t standard : {0, 1, 2}) EXPECT_EQ(fileClose(standard, -1), -35) << standard;
    EXPECT_EQ(fileWrite(1, "", 0), 0);
    EXPECT_NE(fcntl(2, F_GETFD), -1);
    // Written, cut short and overwritten in place through the modes that write.
    std::string path = at("f");
    char c;
    int32_t h = fileOpen(path.c_str(), 2);
    EXPECT_GE(h, 3);
    EXPECT_EQ(fileWrite(h, "hello world", 11), 11);
    EXPECT_EQ(fileSeek(h, -6, 1), 5);
    EXPECT_EQ(fileTruncate(h), 0);
    EXPECT_EQ(fileFlush(h), 0);
    EXPECT_EQ(fileSeek(h, 0, 2), 5);
    EXPECT_EQ(fileSeek(h, 0, 9), -52);
    EXPECT_EQ(fileSeek(h, -100, 0), -52);
    EXPECT_EQ(fileClose(h, -1), 0);
    h = fileOpen(path.c_str(), 4);  // write only: the read fails with EBADF, the read's default
    EXPECT_EQ(fileRead(h, &c, 1), -33);
    EXPECT_EQ(fileWrite(h, "J", 1), 1);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_EQ(readThroughHandle(path).second, "Jello");
    h = fileOpen(path.c_str(), 0);
    EXPECT_EQ(fileWrite(h, "x", 1), -34);
    EXPECT_EQ(fileClose(h, -1), 0);
    for (int32_t closed : {-1, 99999, INT32_MIN, h}) {
        EXPECT_EQ(fileRead(closed, &c, 1), -33) << closed;
        EXPECT_EQ(fileSeek(closed, 0, 0), -33) << closed;
        EXPECT_EQ(fileWrite(closed, "x", 1), -34) << closed;
        EXPECT_EQ(fileTruncate(closed), -34) << closed;
        EXPECT_EQ(fileFlush(closed), -34) << closed;
        EXPECT_EQ(fileClose(closed, -1), -35) << closed;
    }
    // The table grows past its first rows, each handle keeps its own position, and the last handle
    // closed is the first reused.
    std::vector<int32_t> handles(250);
    for (int32_t& open : handles) open = fileOpen(path.c_str(), 0);
    EXPECT_EQ(fileSeek(handles[240], 2, 0), 2);
    EXPECT_EQ(fileRead(handles[240], &c, 1), 1);
    EXPECT_EQ(c, 'l');
    EXPECT_EQ(fileClose(5, -1), 0);  // among the 250 open
    EXPECT_EQ(fileClose(7, -1), 0);
    EXPECT_EQ(fileOpen(path.c_str(), 0), 7);
    EXPECT_EQ(fileOpen(path.c_str(), 0), 5);
    for (int32_t open : handles) EXPECT_EQ(fileClose(open, -1), 0);
    h = fileOpen(path.c_str(), 1);
    EXPECT_EQ(fileSeek(h, 0, 2), 0);  // truncated
    EXPECT_EQ(fileClose(h, -1), 0);

    const struct {
        const char* rel;
        int32_t mode, code;
    } rows[] = {
        // EEXIST and EISDIR give the open's default; modes 6 and -1 are unknown; write-only needs the file.
        {"nodir/file", 0, -3}, {"nodir/deeper/file", 2, -3},
        {"nofile", 0, -2},     {"nofile", 3, -2},
        {"f/below", 0, -3},    {"f", 5, -32},
        {"", 2, -32},          {"f", 6, -52},
        {"f", -1, -52},        {"new", 4, -2},
    };
    for (const auto& r : rows)
        EXPECT_EQ(fileOpen(at(r.rel).c_str(), r.mode), r.code) << r.rel << " " << r.mode;
}

TEST_F(FileTest, WholeFileReads) {
    std::string path = put("f", std::string(100, 'x'));
    std::string big;
    for (int i = 0; i < 100000; ++i) big += static_cast<char>(i * 7);
    const std::string text("text\x1a", 5);
    const struct {
        std::string bytes;
        int32_t keepEof, length;
    } rows[] = {
        {text, 0, 4},
        {text, 1, 5},
        {"", 0, 0},
        {big, 0, 100000},
    };
    for (const auto& r : rows) {
        char* buffer = nullptr;
        int32_t length = -1;
        ASSERT_EQ(fileReadAll(put("f", r.bytes).c_str(), &buffer, &length, r.keepEof, 0), 0);
        EXPECT_EQ(length, r.length) << r.bytes.size() << " keepEof " << r.keepEof;
        // A dropped Ctrl-Z stays in the buffer, and a NUL follows what was read.
        EXPECT_EQ(std::string(buffer, r.bytes.size() + 1), r.bytes + '\0') << r.bytes.size();
        libFree(buffer);
    }
    char* buffer = big.data();
    int32_t length = -1;
    EXPECT_EQ(fileReadAll(at("missing").c_str(), &buffer, &length, 0, 0), -2);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 0);
    // A file that reads shorter than its size (sysfs reports 4096 bytes) ends at what was read.
    std::ifstream sys("/sys/devices/system/cpu/online");
    std::string online((std::istreambuf_iterator<char>(sys)), std::istreambuf_iterator<char>());
    EXPECT_EQ(fileReadAll("/sys/devices/system/cpu/online", &buffer, &length, 0, 0), 0);
    EXPECT_EQ(buffer, online);
    libFree(buffer);
    // A directory cannot be read whole, and its handle is given back: the last one closed is reused.
    int32_t h = fileOpen(path.c_str(), 0);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_LT(fileReadAll(tmp_.c_str(), &buffer, &length, 0, 0), 0);
    EXPECT_EQ(fileOpen(path.c_str(), 0), h);
    EXPECT_EQ(fileClose(h, -1), 0);
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

TEST_F(FileTest, ArchiveMembersSeekExistenceAndAccess) {
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
    put("broken.zip", "not an archive at all");
    // An unknown method, a stored member shorter than its size, an end record counting 500 entries.
    std::string odd = put("odd.zip", buildZip({{"m12", "abc", 12, 3}, {"short", "abc", 0, 4}}));
    std::string one = buildZip({stored("a", "abc")});
    const std::string many = put("many.zip", one.replace(one.find("PK\5\6") + 8, 2, "\xf4\x01"));
    const std::string headless = put("headless.zip", "PK\3\5" + buildZip({stored("a", "abc")}).substr(4));
    ASSERT_EQ(mkdir(at("d.zip").c_str(), 0755), 0);  // named like an archive, passed over
    put("d.zip/plain.txt", "plain");
    std::string inner = put("d.zip/inner.jar", buildZip({stored("x", "inner")}));
    const struct {
        std::string path;
        int32_t member, exists, open;
        std::string content;
    } rows[] = {
        // Names match without regard to case, but exact case wins; a name missing from a directory that
        // exists inside the archive is a file not found.
        {zip + "/hello.txt", 1, 1, 0, "Hello, archive.\n"},
        {zip + "/sub/deep.txt", 1, 1, 0, deep},
        {zip + "/m17.txt", 1, 1, 0, "member 17"},
        {zip + "/M299.TXT", 1, 1, 0, "member 299"},
        {zip + "/READ.ME", 1, 1, 0, "upper"},
        {zip + "/Read.me", 1, 1, 0, "mixed"},
        {zip + "/nothing", 1, 1, 0, ""},
        {zip + "/sub", 1, 1, -2, ""},
        {zip + "/sub/", 1, 1, 0, ""},
        {zip + "/missing", 0, 0, -2, ""},
        {zip + "/sub/missing", 0, 0, -2, ""},
        {odd + "/m12", 1, 1, -4136, ""},
        {odd + "/short", 1, 1, -4136, ""},
        {headless + "/a", 1, 1, -4137, ""},  // the central directory points at no local header
        {many + "/a", 0, 0, -4137, ""},
        {at("broken.zip/x"), 0, 0, -4134, ""},
        {at("missing.zip/x"), -1, 0, -3, ""},
        {at("d.zip/plain.txt"), -1, 1, 0, "plain"},
        {inner + "/x", 1, 1, 0, "inner"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(fileArchiveMemberExists(r.path.c_str()), r.member) << r.path;
        EXPECT_EQ(entryExists(r.path.c_str()), r.exists) << r.path;
        EXPECT_EQ(readThroughHandle(r.path), std::make_pair(r.open, r.content));
    }
    // Seek: whence 0 from the start, 1 from the current position, else from the end, unchecked;
    // reading outside the member gives nothing. Members are for reading only.
    const std::string hello = "Hello, archive.\n", member = zip + "/hello.txt";
    int32_t h = fileOpen(member.c_str(), 0), size = int32_t(hello.size());
    char buf[64];
    EXPECT_EQ(fileSeek(h, -4, 2), size - 4);
    EXPECT_EQ(fileRead(h, buf, 64), 4);
    EXPECT_EQ(fileSeek(h, 7, 0), 7);
    EXPECT_EQ(fileSeek(h, 2, 1), 9);
    EXPECT_EQ(fileRead(h, buf, 3), 3);
    EXPECT_EQ(std::string(buf, 3), hello.substr(9, 3));
    EXPECT_EQ(fileSeek(h, 1, 7), size + 1);
    EXPECT_LE(fileRead(h, buf, 64), 0);
    EXPECT_EQ(fileSeek(h, -5, 0), -5);
    EXPECT_LE(fileRead(h, buf, 64), 0);
    EXPECT_EQ(fileWrite(h, "x", 1), -2113);
    EXPECT_EQ(fileTruncate(h), 1);
    EXPECT_EQ(fileFlush(h), 1);
    EXPECT_EQ(fileClose(h, -1), 0);
    // The member object itself, and archive access switched off.
    XXFH_JAR jar;
    EXPECT_EQ(fileOpen(member.c_str(), 2), -2113);
    EXPECT_EQ(jar.openMember(zip.c_str(), "hello.txt", 3), -2113);
    fileSetArchiveDecompressor(nullptr);
    EXPECT_EQ(jar.open(member.c_str(), 0), -2113);
    EXPECT_EQ(fileOpen(member.c_str(), 0), -2113);
    EXPECT_EQ(fileArchiveMemberExists(member.c_str()), -1);
    EXPECT_EQ(entryExists(member.c_str()), 0);
    EXPECT_EQ(readThroughHandle(zip).first, 0);  // the archive itself stays a plain file
    fileSetArchiveDecompressor(uncompress);
    EXPECT_EQ(jar.open(member.c_str(), 0), 0);
    EXPECT_EQ(jar.read(buf, sizeof buf), size);
    EXPECT_EQ(std::string(buf, hello.size()), hello);
    EXPECT_EQ(jar.close(-1), 0);
    EXPECT_EQ(jar.seek(0, 2), 0);  // a closed one holds nothing
    // The reader underneath clears its results for a missing member.
    unsigned char* bytes = reinterpret_cast<unsigned char*>(buf);
    uint32_t count = 7;
    EXPECT_EQ(zipReadMember(zip.c_str(), "missing", nullptr, &bytes, &count), -2);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(count, 0u);
}

}  // namespace
