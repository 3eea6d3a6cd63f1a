// Plain files through handles: modes and status codes, and whole-file reads; archive members from
// archives written byte by byte, sound and damaged.
#include "runtime/filehandle.h"

#include "runtime/path.h"
#include "runtime/pool.h"
#include "runtime/zipreader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
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

// Permission bits of a path, or -1 when it is not there.
int modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

// What the open modes create and keep: (mode, umask, a file there before?) to (the open's code, or
// 3 for any handle; the file's bits afterwards; its bytes afterwards).
TEST_F(FileTest, OpenModes) {
    const struct {
        int32_t mode;
        mode_t mask;
        bool before;
        int32_t code;
        int bits;
        const char* bytes;
    } rows[] = {
        {1, 022, false, 3, 0644, ""},  // create: group and other write only as the umask lets them
        {1, 002, false, 3, 0664, ""},
        {1, 000, true, 3, 0600, ""},     // an existing file is cut, its bits stay
        {2, 000, false, 3, 0644, ""},    // always 0644
        {3, 022, true, 3, 0600, "old"},  // read-write, not cut
        {3, 022, false, -2, -1, ""},     // must exist
        {4, 022, true, 3, 0600, "old"},  // write-only, not cut
        {4, 022, false, -2, -1, ""},
        {5, 022, false, 3, 0644, ""},  // exclusive create with 0666 under the umask
        {5, 000, false, 3, 0666, ""},
        {5, 022, true, -32, 0600, "old"},  // exists: refused
    };
    int i = 0;
    for (const auto& r : rows) {
        std::string path = at("mode" + std::to_string(i++));
        if (r.before) {
            put(path.substr(tmp_.size() + 1), "old");
            chmod(path.c_str(), 0600);
        }
        mode_t saved = umask(r.mask);
        int32_t h = fileOpen(path.c_str(), r.mode);
        umask(saved);
        EXPECT_EQ(h < 0 ? h : 3, r.code) << r.mode << " " << r.before;
        if (h >= 0) {
            EXPECT_EQ(fileClose(h, -1), 0);
        }
        EXPECT_EQ(modeOf(path), r.bits) << r.mode << " " << r.before;
        EXPECT_EQ(readThroughHandle(path).second, r.bytes) << r.mode << " " << r.before;
    }
}

// Read-write reads what it wrote; write-only cannot read; an unknown whence and a seek before the
// start are invalid parameters; flush forces a plain file out and fails on a device that has no
// such thing.
TEST_F(FileTest, ReadWriteSeekAndFlush) {
    std::string path = put("rw", "abcdef");
    int32_t rw = fileOpen(path.c_str(), 3);
    char buf[8] = {};
    EXPECT_EQ(fileWrite(rw, "XY", 2), 2);
    EXPECT_EQ(fileRead(rw, buf, 3), 3);
    EXPECT_STREQ(buf, "cde");
    EXPECT_EQ(fileSeek(rw, 0, 3), -52);
    EXPECT_EQ(fileSeek(rw, -1, 0), -52);
    EXPECT_EQ(fileFlush(rw), 0);
    EXPECT_EQ(fileClose(rw, -1), 0);
    int32_t wo = fileOpen(path.c_str(), 4);
    EXPECT_EQ(fileRead(wo, buf, 1), -33);
    EXPECT_EQ(fileClose(wo, -1), 0);
    int32_t full = fileOpen("/dev/full", 4);
    EXPECT_EQ(fileWrite(full, "x", 1), -36);
    EXPECT_EQ(fileFlush(full), -52);
    EXPECT_EQ(fileClose(full, -1), 0);
}

// Handles that are not open, and the standard ones, which cannot be closed.
TEST(Handles, UnknownAndStandard) {
    char c;
    EXPECT_EQ(fileWrite(9999, "x", 1), -34);
    EXPECT_EQ(fileRead(9999, &c, 1), -33);
    EXPECT_EQ(fileSeek(9999, 0, 0), -33);
    EXPECT_EQ(fileTruncate(9999), -34);
    EXPECT_EQ(fileFlush(9999), -34);
    EXPECT_EQ(fileClose(9999, -1), -35);
    EXPECT_EQ(fileClose(-1, -1), -35);
    EXPECT_EQ(fileClose(2, -1), -35);
    EXPECT_EQ(fileOpen(nullptr, 0), -52);
}

// More handles than the table's first 100 entries, numbered in a row; the last one closed is the
// first one given again.
TEST_F(FileTest, TableGrowsAndReusesTheLastClosed) {
    std::string path = put("many", "x");
    std::vector<int32_t> handles;
    for (int i = 0; i < 250; ++i) handles.push_back(fileOpen(path.c_str(), 0));
    for (size_t i = 1; i < handles.size(); ++i) EXPECT_EQ(handles[i], handles[0] + int32_t(i));
    char c = 0;
    EXPECT_EQ(fileRead(handles.back(), &c, 1), 1);
    EXPECT_EQ(fileClose(handles[10], -1), 0);
    EXPECT_EQ(fileClose(handles[20], -1), 0);
    EXPECT_EQ(fileOpen(path.c_str(), 0), handles[20]);
    EXPECT_EQ(fileOpen(path.c_str(), 0), handles[10]);
    for (int32_t h : handles) EXPECT_EQ(fileClose(h, -1), 0);
}

// Every errno the layer names, and one it does not (the operation's default).
TEST(ErrnoMap, Table) {
    const std::pair<int, int32_t> rows[] = {
        {0, 0},        {ENOENT, -2}, {ENOTDIR, -3}, {ENFILE, -4},  {EMFILE, -4},  {EACCES, -5},
        {ETXTBSY, -5}, {ENOMEM, -8}, {EIO, -23},    {ENOSPC, -36}, {EINVAL, -52}, {EEXIST, -99},
    };
    for (const auto& r : rows) EXPECT_EQ(fileMapErrno(r.first, -99), r.second) << r.first;
}

// Runs body in a child process and answers what it returned (-128 ... 127).
template <typename F>
int inChild(F body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body() + 128);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) - 128 : -1000;
}

// Codes from real failures: a file the user may not read, a name below a plain file, and a process
// out of descriptors.
TEST_F(FileTest, ErrorsOfRealOpens) {
    std::string secret = put("secret", "s");
    chmod(secret.c_str(), 0600);
    chmod(tmp_.c_str(), 0755);
    EXPECT_EQ(inChild([&] { return setuid(65534) == 0 ? fileOpen(secret.c_str(), 0) : 0; }), -5);
    EXPECT_EQ(fileOpen((secret + "/x").c_str(), 0), -3);
    EXPECT_EQ(fileOpen(at("nodir/x").c_str(), 0), -3);
    EXPECT_EQ(fileOpen(at("nofile").c_str(), 0), -2);
    EXPECT_EQ(fileOpen(tmp_.c_str(), 2), -32);  // a directory: EISDIR has no code of its own
    EXPECT_EQ(inChild([&] {
                  rlimit none = {3, 3};
                  return setrlimit(RLIMIT_NOFILE, &none) == 0 ? fileOpen(secret.c_str(), 0) : 0;
              }),
              -4);
}

// A reader takes the first byte that no other process holds; a descriptor not open for writing
// can take none.
TEST_F(FileTest, ReaderLockByte) {
    std::string path = put("locked", "x");
    int rw = open(path.c_str(), O_RDWR);
    int ro = open(path.c_str(), O_RDONLY);
    EXPECT_EQ(fileLockReaderByte(ro), -1);
    EXPECT_EQ(fileLockReaderByte(rw), 0);
    EXPECT_EQ(inChild([&] { return fileLockReaderByte(open(path.c_str(), O_RDWR)); }), 1);
    close(rw);
    close(ro);
}

// Whole reads: the old end-of-file mark is left out of the length unless asked for; a path that
// cannot be opened or sought gives its code and no buffer.
TEST_F(FileTest, WholeFileReads) {
    const struct {
        const char* bytes;
        int32_t keepEof;
        int32_t length;
    } rows[] = {
        {"ab\x1a", 0, 2},
        {"ab\x1a", 1, 3},
        {"ab", 0, 2},
        {"", 0, 0},
    };
    for (const auto& r : rows) {
        std::string path = put("whole", r.bytes);
        char* buffer = nullptr;
        int32_t length = -1;
        EXPECT_EQ(fileReadAll(path.c_str(), &buffer, &length, r.keepEof, 0), 0);
        EXPECT_EQ(length, r.length) << r.bytes << r.keepEof;
        EXPECT_EQ(std::string(buffer), r.bytes);
        libFree(buffer);
    }
    char* buffer = reinterpret_cast<char*>(1);
    int32_t length = -1;
    EXPECT_EQ(fileReadAll(at("none").c_str(), &buffer, &length, 0, 0), -2);
    EXPECT_EQ(buffer, nullptr);
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    std::string end = "/proc/self/fd/" + std::to_string(pipeEnds[0]);
    EXPECT_EQ(fileReadAll(end.c_str(), &buffer, &length, 0, 0), -33);  // a pipe cannot seek
    EXPECT_EQ(length, 0);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
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

// The operations a class does not override answer 0; an archive member is read-only.
TEST_F(FileTest, ClassDefaultsAndArchiveMemberOperations) {
    XXFH_POSIX plain;
    EXPECT_EQ(plain.control1(), 0);
    EXPECT_EQ(plain.control2(), 0);
    EXPECT_EQ(plain.close(-1), -35);  // nothing open
    std::string zip = put("m.zip", buildZip({stored("a.txt", "abcdef")}));
    XXFH_JAR jar;
    ASSERT_EQ(jar.open((zip + "/a.txt").c_str(), 0), 0);
    EXPECT_EQ(jar.open((zip + "/a.txt").c_str(), 1), -2113);
    EXPECT_EQ(jar.write("x", 1), -2113);
    EXPECT_EQ(jar.truncate(), 1);
    EXPECT_EQ(jar.flush(), 1);
    EXPECT_EQ(jar.seek(2, 0), 2);
    EXPECT_EQ(jar.seek(3, 1), 5);
    char c = 0;
    EXPECT_EQ(jar.read(&c, 1), 1);
    EXPECT_EQ(c, 'f');
    EXPECT_EQ(jar.seek(-1, 2), 5);
    EXPECT_EQ(fileOpen((zip + "/a.txt").c_str(), 2), -2113);
}

}  // namespace
