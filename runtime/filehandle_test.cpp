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
    int32_t h = fileOpen(path.c_str(), 0), n = 0;
    std::string bytes;
    char buf[777];
    while (h >= 0 && (n = fileRead(h, buf, sizeof buf)) > 0) bytes.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(h < 0 ? 0 : n + fileClose(h, -1), 0) << path;  // the end reads as 0
    return {h < 0 ? h : 0, bytes};
}

// A fresh directory under /tmp, removed with everything in it; archive access is on.
class FileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/cvrt_file_XXXXXX", real[PATH_MAX];
        ASSERT_TRUE(mkdtemp(name) && realpath(name, real));
        tmp_ = real;
        fileSetArchiveDecompressor(uncompress);
    }
    void TearDown() override {
        fileSetArchiveDecompressor(nullptr);
        EXPECT_EQ(system(("rm -rf " + tmp_).c_str()), 0);
    }
    std::string at(const std::string& rel) const { return tmp_ + "/" + rel; }
    std::string put(const std::string& rel, const std::string& bytes) {  // writes tmp/rel
        EXPECT_TRUE(std::ofstream(at(rel), std::ios::binary) << bytes) << rel;
        return at(rel);
    }
    std::string tmp_;
};

TEST_F(FileTest, HandlesModesAndStatusCodes) {
    EXPECT_TRUE(fileClose(0, -1) == -35 && fileClose(1, -1) == -35 && fileClose(2, -1) == -35);
    EXPECT_TRUE(fileWrite(1, "", 0) == 0 && fcntl(2, F_GETFD) != -1);
    // Written, cut short and overwritten in place through the modes that write.
    std::string path = at("f");
    char c;
    int32_t h = fileOpen(path.c_str(), 2);
    EXPECT_TRUE(h >= 3 && fileWrite(h, "hello world", 11) == 11 && fileSeek(h, -6, 1) == 5 &&
                fileTruncate(h) == 0);
    EXPECT_TRUE(fileFlush(h) == 0 && fileSeek(h, 0, 2) == 5 && fileSeek(h, 0, 9) == -52 &&
                fileSeek(h, -100, 0) == -52);
    EXPECT_EQ(fileClose(h, -1), 0);
    h = fileOpen(path.c_str(), 4);  // write only: the read fails with EBADF, the read's default
    EXPECT_TRUE(fileRead(h, &c, 1) == -33 && fileWrite(h, "J", 1) == 1 && fileClose(h, -1) == 0);
    EXPECT_EQ(readThroughHandle(path).second, "Jello");
    h = fileOpen(path.c_str(), 0);
    EXPECT_TRUE(fileWrite(h, "x", 1) == -34 && fileClose(h, -1) == 0);
    for (int32_t closed : {-1, 99999, INT32_MIN, h}) {
        EXPECT_TRUE(fileRead(closed, &c, 1) == -33 && fileSeek(closed, 0, 0) == -33) << closed;
        EXPECT_TRUE(fileWrite(closed, "x", 1) == -34 && fileTruncate(closed) == -34 &&
                    fileFlush(closed) == -34);
        EXPECT_EQ(fileClose(closed, -1), -35) << closed;
    }
    // The table grows past its first rows, each handle keeps its own position, and the last handle
    // closed is the first reused.
    std::vector<int32_t> handles;
    for (int i = 0; i < 250; ++i) handles.push_back(fileOpen(path.c_str(), 0));
    EXPECT_TRUE(fileSeek(handles[240], 2, 0) == 2 && fileRead(handles[240], &c, 1) == 1 && c == 'l');
    EXPECT_TRUE(fileClose(5, -1) == 0 && fileClose(7, -1) == 0);  // among the 250 open
    EXPECT_TRUE(fileOpen(path.c_str(), 0) == 7 && fileOpen(path.c_str(), 0) == 5);
    for (int32_t open : handles) EXPECT_EQ(fileClose(open, -1), 0);
    EXPECT_TRUE(fileSeek(h = fileOpen(path.c_str(), 1), 0, 2) == 0 && fileClose(h, -1) == 0);  // truncated

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
    std::string path = put("f", std::string(100, 'x')), big;
    for (int i = 0; i < 100000; ++i) big += static_cast<char>(i * 7);
    const std::string text("text\x1a", 5);
    const struct {
        std::string bytes;
        int32_t keepEof, length;
    } rows[] = {{text, 0, 4}, {text, 1, 5}, {"", 0, 0}, {big, 0, 100000}};
    for (const auto& r : rows) {
        char* buffer = nullptr;
        int32_t length = -1;
        ASSERT_EQ(fileReadAll(put("f", r.bytes).c_str(), &buffer, &length, r.keepEof, 0), 0);
        EXPECT_TRUE(length == r.length && std::string(buffer, r.bytes.size()) == r.bytes &&
                    !buffer[r.bytes.size()])
            << r.bytes.size() << " keepEof " << r.keepEof;  // a dropped Ctrl-Z stays in the buffer
        libFree(buffer);
    }
    char* buffer = &big[0];
    int32_t length = -1;
    EXPECT_TRUE(fileReadAll(at("missing").c_str(), &buffer, &length, 0, 0) == -2 && !buffer && length == 0);
    // A file that reads shorter than its size (sysfs reports 4096 bytes) ends at what was read.
    std::ifstream sys("/sys/devices/system/cpu/online");
    std::string online((std::istreambuf_iterator<char>(sys)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(fileReadAll("/sys/devices/system/cpu/online", &buffer, &length, 0, 0) == 0 &&
                buffer == online);
    libFree(buffer);
    // A directory cannot be read whole, and its handle is given back: the last one closed is reused.
    int32_t h = fileOpen(path.c_str(), 0);
    EXPECT_TRUE(fileClose(h, -1) == 0 && fileReadAll(tmp_.c_str(), &buffer, &length, 0, 0) < 0);
    EXPECT_TRUE(fileOpen(path.c_str(), 0) == h && fileClose(h, -1) == 0);
}

// ---- Archives written byte by byte ----

// Appends little-endian fields; widths holds the byte width (2 or 4) of each value.
void pack(std::string& s, const char* widths, std::initializer_list<uint32_t> values) {
    for (uint32_t v : values)
        for (int i = 0, n = *widths++ - '0'; i < n; ++i, v >>= 8) s += static_cast<char>(v & 0xff);
}

// zlib's stream without its 2-byte header and 4-byte trailer is raw deflate data.
std::string rawDeflate(const std::string& text) {
    uLongf n = compressBound(text.size());
    std::string out(n, '\0');
    compress2(reinterpret_cast<Bytef*>(&out[0]), &n, reinterpret_cast<const Bytef*>(text.data()), text.size(),
              9);
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
    std::vector<Member> members = {deflated("sub/deep.txt", deep),
                                   stored("hello.txt", "Hello, archive.\n"),
                                   stored("sub/", ""),
                                   deflated("nothing", ""),
                                   stored("Read.me", "mixed"),
                                   stored("READ.ME", "upper")};
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
        EXPECT_TRUE(fileArchiveMemberExists(r.path.c_str()) == r.member &&
                    entryExists(r.path.c_str()) == r.exists)
            << r.path;
        EXPECT_EQ(readThroughHandle(r.path), std::make_pair(r.open, r.content));
    }
    // Seek: whence 0 from the start, 1 from the current position, else from the end, unchecked;
    // reading outside the member gives nothing. Members are for reading only.
    const std::string hello = "Hello, archive.\n", member = zip + "/hello.txt";
    int32_t h = fileOpen(member.c_str(), 0), size = int32_t(hello.size());
    char buf[64];
    EXPECT_TRUE(fileSeek(h, -4, 2) == size - 4 && fileRead(h, buf, 64) == 4 && fileSeek(h, 7, 0) == 7);
    EXPECT_TRUE(fileSeek(h, 2, 1) == 9 && fileRead(h, buf, 3) == 3 &&
                std::string(buf, 3) == hello.substr(9, 3));
    EXPECT_TRUE(fileSeek(h, 1, 7) == size + 1 && fileRead(h, buf, 64) <= 0 && fileSeek(h, -5, 0) == -5);
    EXPECT_TRUE(fileRead(h, buf, 64) <= 0 && fileWrite(h, "x", 1) == -2113 && fileTruncate(h) == 1);
    EXPECT_TRUE(fileFlush(h) == 1 && fileClose(h, -1) == 0);
    // The member object itself, and archive access switched off.
    XXFH_JAR jar;
    EXPECT_TRUE(fileOpen(member.c_str(), 2) == -2113 && jar.openMember(zip.c_str(), "hello.txt", 3) == -2113);
    fileSetArchiveDecompressor(nullptr);
    EXPECT_TRUE(jar.open(member.c_str(), 0) == -2113 && fileOpen(member.c_str(), 0) == -2113);
    EXPECT_TRUE(fileArchiveMemberExists(member.c_str()) == -1 && entryExists(member.c_str()) == 0);
    EXPECT_EQ(readThroughHandle(zip).first, 0);  // the archive itself stays a plain file
    fileSetArchiveDecompressor(uncompress);
    EXPECT_TRUE(jar.open(member.c_str(), 0) == 0 && jar.read(buf, sizeof buf) == size && jar.close(-1) == 0);
    EXPECT_TRUE(jar.seek(0, 2) == 0 &&
                std::string(buf, hello.size()) == hello);  // a closed one holds nothing
    // The reader underneath clears its results for a missing member.
    unsigned char* bytes = reinterpret_cast<unsigned char*>(buf);
    uint32_t count = 7;
    EXPECT_TRUE(zipReadMember(zip.c_str(), "missing", nullptr, &bytes, &count) == -2 && !bytes && !count);
}

}  // namespace
