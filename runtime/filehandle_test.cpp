// Plain files through handles: modes and status codes, and whole-file reads; archive members from
// archives written byte by byte, sound and damaged.
#include "runtime/filehandle.h"

#include "runtime/path.h"
#include "runtime/pool.h"
#include "runtime/zipreader.h"
#include "tests/scratchdir.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <functional>
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
    void SetUp() override { fileSetArchiveDecompressor(uncompress); }
    void TearDown() override { fileSetArchiveDecompressor(nullptr); }
    std::string at(const std::string& rel) const { return tmp_ + "/" + rel; }
    std::string put(const std::string& rel, const std::string& bytes) const {  // writes tmp/rel
        EXPECT_TRUE(std::ofstream(at(rel), std::ios::binary) << bytes) << rel;
        return at(rel);
    }
    ScratchDir scratch_{"cvrt_file"};
    const std::string tmp_ = scratch_.path();
};

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
        if (r.before) chmod(put(path.substr(tmp_.size() + 1), "old").c_str(), 0600);
        mode_t saved = umask(r.mask);
        int32_t h = fileOpen(path.c_str(), r.mode);
        umask(saved);
        if (h >= 0) fileClose(h, -1);
        EXPECT_EQ(h < 0 ? h : 3, r.code) << r.mode << " " << r.before;
        EXPECT_EQ(modeOf(path), r.bits) << r.mode << " " << r.before;
        EXPECT_EQ(readThroughHandle(path).second, r.bytes) << r.mode << " " << r.before;
    }
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
int inChild(const std::function<int32_t()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body() + 128);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) - 128 : -1000;
}

// More handles than the table's first 100 entries, numbered in a row; the last one closed is the
// first one given again. A reader takes the first lock byte no other process holds.
TEST_F(FileTest, HandleTableAndReaderLocks) {
    std::string path = put("many", "x");
    std::vector<int32_t> handles;
    handles.reserve(250);
    for (int i = 0; i < 250; ++i) handles.push_back(fileOpen(path.c_str(), 0));
    EXPECT_EQ(handles.back(), handles.front() + 249);
    EXPECT_EQ(fileClose(handles[10], -1), 0);
    EXPECT_EQ(fileClose(handles[20], -1), 0);
    EXPECT_EQ(fileOpen(path.c_str(), 0), handles[20]);
    EXPECT_EQ(fileOpen(path.c_str(), 0), handles[10]);
    for (int32_t h : handles) EXPECT_EQ(fileClose(h, -1), 0);
    int rw = open(path.c_str(), O_RDWR | O_CLOEXEC), ro = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fileLockReaderByte(ro), -1);  // a descriptor not open for writing can take none
    EXPECT_EQ(fileLockReaderByte(rw), 0);
    EXPECT_EQ(inChild([&] { return fileLockReaderByte(open(path.c_str(), O_RDWR)); }), 1);
    close(rw);
    close(ro);
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

// Each row is one call, in order, and its code: on "f" (holding "abcdef") open read-write,
// write-only and on /dev/full, on an archive member, on handles that are not open, and real
// failures of the system calls.
TEST_F(FileTest, CallsAndTheirCodes) {
    std::string f = put("f", "abcdef"), secret = put("secret", "s"),
                zip = put("m.zip", buildZip({stored("a", "xyz")}));
    chmod(secret.c_str(), 0600);
    chmod(tmp_.c_str(), 0755);
    int32_t rw = fileOpen(f.c_str(), 3), wo = fileOpen(f.c_str(), 4), full = fileOpen("/dev/full", 4);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::string pipePath = "/proc/self/fd/" + std::to_string(ends[0]);
    char c = 0, *bytes = nullptr;
    int32_t length = 0;
    std::string eof = put("eof", "ab\x1a");
    auto readAll = [&](const std::string& path, int32_t keepEof) {
        int32_t rc = fileReadAll(path.c_str(), &bytes, &length, keepEof, 0);
        libFree(bytes);
        return rc < 0 ? rc : length;
    };
    auto openWithoutDescriptors = [&] {
        rlimit none = {3, 3};
        return setrlimit(RLIMIT_NOFILE, &none) ? 0 : fileOpen(f.c_str(), 0);
    };
    XXFH_POSIX plain;
    XXFH_JAR jar;
    const struct {
        const char* what;
        std::function<int32_t()> call;
        int32_t code;
    } rows[] = {
        {"standard output", [] { return fileWrite(1, "", 0); }, 0},
        {"write", [&] { return fileWrite(rw, "XY", 2); }, 2},
        {"read on", [&] { return fileRead(rw, &c, 1) == 1 ? c : -1; }, 'c'},
        {"seek back", [&] { return fileSeek(rw, -1, 1); }, 2},
        {"truncate", [&] { return fileTruncate(rw); }, 0},
        {"size", [&] { return fileSeek(rw, 0, 2); }, 2},
        {"unknown whence", [&] { return fileSeek(rw, 0, 3); }, -52},
        {"before the start: EINVAL", [&] { return fileSeek(rw, -1, 0); }, -52},
        {"flush", [&] { return fileFlush(rw); }, 0},
        {"write-only cannot read", [&] { return fileRead(wo, &c, 1); }, -33},
        {"full device: ENOSPC", [&] { return fileWrite(full, "x", 1); }, -36},
        {"no flush on a device: EINVAL", [&] { return fileFlush(full); }, -52},
        {"unknown mode", [&] { return fileOpen(f.c_str(), 6); }, -52},
        {"no path", [] { return fileOpen(nullptr, 0); }, -52},
        {"below a file: ENOTDIR", [&] { return fileOpen((f + "/x").c_str(), 0); }, -3},
        {"missing directory", [&] { return fileOpen(at("no/x").c_str(), 0); }, -3},
        {"missing file", [&] { return fileOpen(at("no").c_str(), 0); }, -2},
        {"directory to write: EISDIR", [&] { return fileOpen(tmp_.c_str(), 2); }, -32},
        {"another user: EACCES",
         [&] { return inChild([&] { return setuid(65534) ? 0 : fileOpen(secret.c_str(), 0); }); }, -5},
        {"no descriptor left: EMFILE", [&] { return inChild(openWithoutDescriptors); }, -4},
        {"whole read without the end mark", [&] { return readAll(eof, 0); }, 2},
        {"whole read with it", [&] { return readAll(eof, 1); }, 3},
        {"whole pipe cannot seek", [&] { return readAll(pipePath, 0); }, -33},
        {"write no handle", [] { return fileWrite(9999, "x", 1); }, -34},
        {"read no handle", [&] { return fileRead(9999, &c, 1); }, -33},
        {"seek no handle", [] { return fileSeek(9999, 0, 0); }, -33},
        {"truncate no handle", [] { return fileTruncate(9999); }, -34},
        {"flush no handle", [] { return fileFlush(9999); }, -34},
        {"close no handle", [] { return fileClose(9999, -1); }, -35},
        {"close a standard handle", [] { return fileClose(2, -1); }, -35},
        {"close below 0", [] { return fileClose(-1, -1); }, -35},
        {"first further operation", [&] { return plain.control1(); }, 0},
        {"second further operation", [&] { return plain.control2(); }, 0},
        {"close nothing open", [&] { return plain.close(-1); }, -35},
        {"member open", [&] { return jar.open((zip + "/a").c_str(), 0); }, 0},
        {"member for writing", [&] { return jar.open((zip + "/a").c_str(), 1); }, -2113},
        {"member write", [&] { return jar.write("x", 1); }, -2113},
        {"member truncate", [&] { return jar.truncate(); }, 1},
        {"member flush", [&] { return jar.flush(); }, 1},
        {"member seek", [&] { return jar.seek(1, 0); }, 1},
        {"member seek on", [&] { return jar.seek(1, 1); }, 2},
        {"member read", [&] { return jar.read(&c, 1) == 1 ? c : -1; }, 'z'},
        {"member through a handle for writing", [&] { return fileOpen((zip + "/a").c_str(), 2); }, -2113},
    };
    for (const auto& r : rows) EXPECT_EQ(r.call(), r.code) << r.what;
    for (int32_t h : {rw, wo, full}) fileClose(h, -1);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
