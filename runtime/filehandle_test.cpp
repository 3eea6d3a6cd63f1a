// Tests of the handle table, plain-file modes and status codes, the reader lock, whole-file
// reads, and archive members (archives made by the zip program and archives written byte by byte).
#include "runtime/filehandle.h"

#include "runtime/path.h"
#include "runtime/pool.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <ftw.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

uint32_t u32(size_t v) { return static_cast<uint32_t>(v); }

// Reads everything behind a handle through fileRead, in small pieces.
std::string readRest(int32_t handle) {
    std::string bytes;
    char buf[777];
    int32_t n;
    while ((n = fileRead(handle, buf, sizeof buf)) > 0)
        bytes.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(n, 0);
    return bytes;
}

// Opens a path in mode 0 and reads it whole; the open's code when it fails.
std::pair<int32_t, std::string> readThroughHandle(const std::string& path) {
    int32_t h = fileOpen(path.c_str(), 0);
    std::pair<int32_t, std::string> result(h < 0 ? h : 0, h < 0 ? "" : readRest(h));
    EXPECT_EQ(h < 0 ? 0 : fileClose(h, -1), 0);
    return result;
}

// Runs fn in a child process, which exits with status 0 when fn returns true.
template <class Fn>
pid_t spawn(Fn fn) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(fn() ? 0 : 1);
    return pid;
}

bool exitedWithZero(pid_t pid) {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A fresh directory under /tmp, removed with everything in it; archive access is off afterwards.
class FileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/cvrt_file_XXXXXX";
        char real[PATH_MAX];
        ASSERT_TRUE(mkdtemp(name) && realpath(name, real));
        tmp_ = real;
    }
    void TearDown() override {
        fileSetArchiveDecompressor(nullptr);
        if (!tmp_.empty())
            nftw(tmp_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    std::string at(const std::string& rel) const { return tmp_ + "/" + rel; }
    // Writes tmp/rel and returns its path.
    std::string put(const std::string& rel, const std::string& bytes) {
        EXPECT_TRUE(std::ofstream(at(rel), std::ios::binary) << bytes) << rel;
        return at(rel);
    }

    std::string tmp_;
};

TEST_F(FileTest, HandleTable) {
    for (int32_t h : {0, 1, 2})
        EXPECT_EQ(fileClose(h, -1), -35) << h;
    EXPECT_EQ(fileWrite(1, "", 0), 0);
    EXPECT_NE(fcntl(2, F_GETFD), -1);

    std::string path = put("f", "abc");
    int32_t closed = fileOpen(path.c_str(), 0);
    ASSERT_GE(closed, 3);
    EXPECT_EQ(fileClose(closed, -1), 0);
    char c;
    for (int32_t h : {-1, 99999, INT32_MIN, closed}) {
        SCOPED_TRACE(h);
        EXPECT_EQ(fileRead(h, &c, 1), -33);
        EXPECT_EQ(fileSeek(h, 0, 0), -33);
        EXPECT_EQ(fileWrite(h, "x", 1), -34);
        EXPECT_EQ(fileTruncate(h), -34);
        EXPECT_EQ(fileFlush(h), -34);
        EXPECT_EQ(fileClose(h, -1), -35);
    }

    // The table grows past its first rows, and the last handle closed is the first reused.
    std::string bytes;
    for (int i = 0; i < 250; ++i)
        bytes += static_cast<char>('A' + i % 26);
    path = put("f", bytes);
    std::vector<int32_t> handles;
    for (int i = 0; i < 250; ++i) {
        handles.push_back(fileOpen(path.c_str(), 0));
        ASSERT_GE(handles.back(), 3) << i;
        ASSERT_EQ(fileSeek(handles.back(), i, 0), i);
    }
    for (int i = 0; i < 250; ++i) {
        ASSERT_EQ(fileRead(handles[i], &c, 1), 1);
        EXPECT_EQ(c, bytes[i]) << i;
    }
    // With 250 open, handles 5 and 7 are among them.
    EXPECT_EQ(fileClose(5, -1), 0);
    EXPECT_EQ(fileClose(7, -1), 0);
    EXPECT_EQ(fileOpen(path.c_str(), 0), 7);
    EXPECT_EQ(fileOpen(path.c_str(), 0), 5);
    for (int32_t h : handles)
        EXPECT_EQ(fileClose(h, -1), 0);
}

TEST_F(FileTest, StatusCodes) {
    const struct { int err; int32_t code; } errnos[] = {
        {0, 0},       {ENOENT, -2}, {ENOTDIR, -3}, {ENFILE, -4},  {EMFILE, -4},  {EACCES, -5},
        {ETXTBSY, -5}, {ENOMEM, -8}, {EIO, -23},    {ENOSPC, -36}, {EINVAL, -52}, {EEXIST, -99},
    };
    for (const auto& e : errnos)
        EXPECT_EQ(fileMapErrno(e.err, -99), e.code) << e.err;

    put("plain", "x");
    const struct { const char* rel; int32_t mode; int32_t code; } rows[] = {
        {"nodir/file", 0, -3}, {"nodir/deeper/file", 2, -3}, {"nofile", 0, -2}, {"nofile", 3, -2},
        {"plain/below", 0, -3},                      // ENOTDIR
        {"plain", 5, -32},     {"", 2, -32},         // EEXIST, EISDIR: the open's default
        {"plain", 6, -52},     {"plain", -1, -52},   // unknown modes
        {"new", 4, -2},                              // write-only needs an existing file
    };
    for (const auto& r : rows)
        EXPECT_EQ(fileOpen(at(r.rel).c_str(), r.mode), r.code) << r.rel << " mode " << r.mode;
    EXPECT_EQ(fileOpen("cvrt-no-such-file-here", 0), -2);
}

TEST_F(FileTest, PlainFileModesWriteSeekTruncateAndRead) {
    std::string path = at("f");
    int32_t h = fileOpen(path.c_str(), 2);
    ASSERT_GE(h, 3);
    EXPECT_EQ(fileWrite(h, "hello world", 11), 11);
    EXPECT_EQ(fileSeek(h, 0, 2), 11);
    EXPECT_EQ(fileSeek(h, -6, 1), 5);
    EXPECT_EQ(fileTruncate(h), 0);
    EXPECT_EQ(fileFlush(h), 0);
    EXPECT_EQ(fileSeek(h, 0, 2), 5);
    EXPECT_EQ(fileSeek(h, 0, 9), -52);
    EXPECT_EQ(fileSeek(h, -100, 0), -52);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_EQ(readThroughHandle(path).second, "hello");

    h = fileOpen(path.c_str(), 3);
    EXPECT_EQ(readRest(h), "hello");
    EXPECT_EQ(fileClose(h, -1), 0);
    h = fileOpen(path.c_str(), 4);
    char c;
    EXPECT_EQ(fileRead(h, &c, 1), -33);  // EBADF: the read's default
    EXPECT_EQ(fileWrite(h, "J", 1), 1);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_EQ(readThroughHandle(path).second, "Jello");
    h = fileOpen(path.c_str(), 0);
    EXPECT_EQ(fileWrite(h, "x", 1), -34);
    EXPECT_EQ(fileClose(h, -1), 0);
    h = fileOpen(path.c_str(), 1);
    EXPECT_EQ(fileSeek(h, 0, 2), 0);  // truncated
    EXPECT_EQ(fileClose(h, -1), 0);

    // Permission bits of created files under different umasks.
    mode_t old = umask(0);
    const struct { int32_t mode; mode_t umask, expected; } rows[] = {
        {1, 0, 0666}, {1, 022, 0644}, {1, 002, 0664}, {2, 0, 0644}, {5, 0, 0666}, {5, 022, 0644},
    };
    for (const auto& r : rows) {
        umask(r.umask);
        std::string created = at("p" + std::to_string(&r - rows));
        EXPECT_EQ(fileClose(fileOpen(created.c_str(), r.mode), -1), 0);
        struct stat st;
        ASSERT_EQ(stat(created.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, r.expected) << "mode " << r.mode << " umask " << r.umask;
    }
    umask(old);
}

TEST_F(FileTest, ReaderLockTakesTheFirstFreeByte) {
    std::string path = put("f", std::string(100, 'x'));
    // Mode 0 opens read-only, where no byte can be locked; that is no error.
    EXPECT_EQ(readThroughHandle(path), std::make_pair(0, std::string(100, 'x')));
    int fd = open(path.c_str(), O_RDONLY);
    lseek(fd, 3, SEEK_SET);
    EXPECT_EQ(fileLockReaderByte(fd), -1);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0);
    close(fd);

    fd = open(path.c_str(), O_RDWR);
    EXPECT_EQ(fileLockReaderByte(fd), 0);
    close(fd);  // drops this process's locks on the file

    // Another reader holds bytes 0, 1 and 2 until told to go.
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t holder = spawn([&] {
        int hfd = open(path.c_str(), O_RDWR);
        bool ok = hfd >= 0 && lockf(hfd, F_TLOCK, 3) == 0;
        char c = ok ? 'y' : 'n';
        return write(ready[1], &c, 1) == 1 && read(done[0], &c, 1) >= 0 && ok;
    });
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    fd = open(path.c_str(), O_RDWR);
    lseek(fd, 50, SEEK_SET);
    EXPECT_EQ(fileLockReaderByte(fd), 3);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0);
    // A third process sees byte 3 taken and byte 4 free.
    EXPECT_TRUE(exitedWithZero(spawn([&] {
        int pfd = open(path.c_str(), O_RDWR);
        return lseek(pfd, 3, SEEK_SET) == 3 && lockf(pfd, F_TEST, 1) != 0 && lseek(pfd, 4, SEEK_SET) == 4 &&
               lockf(pfd, F_TEST, 1) == 0;
    })));
    ASSERT_EQ(write(done[1], "x", 1), 1);
    EXPECT_TRUE(exitedWithZero(holder));
    for (int p : {fd, ready[0], ready[1], done[0], done[1]})
        close(p);
}

TEST_F(FileTest, ReadAllKeepsOrDropsATrailingCtrlZ) {
    std::string big;
    for (int i = 0; i < 100000; ++i)
        big += static_cast<char>(i * 7);
    const std::string text("text\x1a", 5);
    const struct { std::string bytes; int32_t keepEof, length; } rows[] = {
        {text, 0, 4}, {text, 1, 5}, {"", 0, 0}, {big, 0, 100000},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::to_string(r.bytes.size()) + " bytes, keepEof " + std::to_string(r.keepEof));
        char* buffer = nullptr;
        int32_t length = -1;
        ASSERT_EQ(fileReadAll(put("f", r.bytes).c_str(), &buffer, &length, r.keepEof, 0), 0);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(length, r.length);
        EXPECT_EQ(std::string(buffer, r.bytes.size()), r.bytes);  // a dropped Ctrl-Z stays in the buffer
        EXPECT_EQ(buffer[r.bytes.size()], 0);
        libFree(buffer);
    }
    char* buffer = reinterpret_cast<char*>(&big);
    int32_t length = -1;
    EXPECT_EQ(fileReadAll(at("missing").c_str(), &buffer, &length, 0, 0), -2);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 0);
}

// ---------------------------------------------------------------------------------------------
// Archive members: archives made by the zip program.

class ZipTest : public FileTest {
protected:
    void SetUp() override {
        FileTest::SetUp();
        fileSetArchiveDecompressor(uncompress);
        ASSERT_EQ(mkdir(at("src").c_str(), 0755), 0);
        ASSERT_EQ(mkdir(at("src/sub").c_str(), 0755), 0);
        for (int i = 0; i < 2000; ++i)
            deep_ += "line " + std::to_string(i % 37) + " of a compressible text\n";
        for (int i = 0; i < 3000; ++i)
            binary_ += static_cast<char>((i * 131 + i / 7) & 0xff);
        put("src/hello.txt", hello_);
        put("src/sub/deep.txt", deep_);
        put("src/bin.dat", binary_);
    }
    // Makes tmp/<name> with "zip <arguments>" run in tmp/src.
    std::string makeZip(const std::string& name, const std::string& arguments) {
        std::string command = "cd " + at("src") + " && zip -q -X " + at(name) + " " + arguments + " >/dev/null";
        EXPECT_EQ(system(command.c_str()), 0) << command;
        return at(name);
    }

    const std::string hello_ = "Hello, archive.\n";
    std::string deep_, binary_;
};

TEST_F(ZipTest, StoredAndDeflatedMembers) {
    for (int i = 0; i < 300; ++i)
        put("src/m" + std::to_string(i) + ".txt", "member " + std::to_string(i));
    std::string stored = makeZip("stored.zip", "-0 -r hello.txt sub bin.dat m*.txt");
    std::string deflated = makeZip("deflated.zip", "-9 sub/deep.txt hello.txt bin.dat");
    std::string raw = readThroughHandle(deflated).second;
    ASSERT_GE(raw.size(), 30u);
    ASSERT_EQ(raw[8], 8) << "first member should be deflated";
    ASSERT_LT(raw.size(), deep_.size() / 4);

    for (const std::string& zip : {stored, deflated}) {
        SCOPED_TRACE(zip);
        EXPECT_EQ(readThroughHandle(zip + "/hello.txt"), std::make_pair(0, hello_));
        EXPECT_EQ(readThroughHandle(zip + "/sub/deep.txt"), std::make_pair(0, deep_));
        EXPECT_EQ(readThroughHandle(zip + "/bin.dat"), std::make_pair(0, binary_));
        EXPECT_EQ(readThroughHandle(zip + "/nothere.txt").first, -2);
    }
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(readThroughHandle(stored + "/m" + std::to_string(i) + ".txt"),
                  std::make_pair(0, "member " + std::to_string(i)));
    EXPECT_EQ(readThroughHandle(stored + "/M17.TXT"), std::make_pair(0, std::string("member 17")));

    char* buffer = nullptr;
    int32_t length = 0;
    ASSERT_EQ(fileReadAll((deflated + "/sub/deep.txt").c_str(), &buffer, &length, 0, 0), 0);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(length)), deep_);
    EXPECT_EQ(buffer[length], 0);
    libFree(buffer);
}

TEST_F(ZipTest, SeekAndReadWithinAMember) {
    int32_t h = fileOpen((makeZip("a.jar", "-9 hello.txt") + "/hello.txt").c_str(), 0);
    ASSERT_GE(h, 3);
    const int32_t size = static_cast<int32_t>(hello_.size());
    // Whence 0 counts from the start, 1 from the current position, any other value from the end.
    // Seek does not check the position; reading outside the member gives nothing.
    const struct { int32_t offset, whence, position; uint32_t count; std::string bytes; } steps[] = {
        {0, 2, size, 64, ""},  {-4, 2, size - 4, 64, hello_.substr(size - 4)}, {7, 0, 7, 0, ""},
        {2, 1, 9, 3, hello_.substr(9, 3)}, {1, 7, size + 1, 64, ""}, {1000, 0, 1000, 64, ""}, {-5, 0, -5, 64, ""},
    };
    for (const auto& s : steps) {
        char buf[64];
        EXPECT_EQ(fileSeek(h, s.offset, s.whence), s.position);
        int32_t n = fileRead(h, buf, s.count);
        EXPECT_EQ(std::string(buf, static_cast<size_t>(n > 0 ? n : 0)), s.bytes) << s.offset << " " << s.whence;
    }
    EXPECT_EQ(fileWrite(h, "x", 1), -2113);
    EXPECT_EQ(fileTruncate(h), 1);
    EXPECT_EQ(fileFlush(h), 1);
    EXPECT_EQ(fileClose(h, -1), 0);
}

TEST_F(ZipTest, MemberExistenceAndPathsThatAreNoArchives) {
    std::string zip = makeZip("e.zip", "-r hello.txt sub");
    put("broken.zip", "not an archive at all");
    ASSERT_EQ(mkdir(at("d.zip").c_str(), 0755), 0);  // named like an archive, passed over
    put("d.zip/plain.txt", "plain");
    std::string inner = makeZip("d.zip/inner.jar", "hello.txt");
    const struct { std::string path; int32_t member, exists, open; } rows[] = {
        {zip + "/hello.txt", 1, 1, 0},      {zip + "/sub", 1, 1, -2},           {zip + "/sub/", 1, 1, 0},
        {zip + "/sub/deep.txt", 1, 1, 0},   {zip + "/missing", 0, 0, -2},       {zip, -1, 1, 0},
        {zip + "/sub/missing", 0, 0, -2},  // its directory exists inside the archive: file not found
        {at("src/hello.txt"), -1, 1, 0},    {at("broken.zip/x"), 0, 0, -4134},  {at("missing.zip/x"), -1, 0, -3},
        {at("d.zip/plain.txt"), -1, 1, 0},  {inner + "/hello.txt", 1, 1, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.path);
        EXPECT_EQ(fileArchiveMemberExists(r.path.c_str()), r.member);
        EXPECT_EQ(entryExists(r.path.c_str()), r.exists);
        EXPECT_EQ(readThroughHandle(r.path).first, r.open);
    }
    EXPECT_EQ(readThroughHandle(at("d.zip/plain.txt")).second, "plain");
    EXPECT_EQ(readThroughHandle(inner + "/hello.txt").second, hello_);
}

TEST_F(ZipTest, OnlyReadingWithArchiveAccessOn) {
    std::string zip = makeZip("r.zip", "hello.txt");
    std::string member = zip + "/hello.txt";
    EXPECT_EQ(fileOpen(member.c_str(), 1), -2113);
    EXPECT_EQ(fileOpen(member.c_str(), 2), -2113);
    XXFH_JAR jar;
    EXPECT_EQ(jar.openMember(zip.c_str(), "hello.txt", 3), -2113);

    fileSetArchiveDecompressor(nullptr);
    EXPECT_EQ(jar.openMember(zip.c_str(), "hello.txt", 0), -2113);
    EXPECT_EQ(jar.open(member.c_str(), 0), -2113);
    EXPECT_EQ(fileArchiveMemberExists(member.c_str()), -1);
    EXPECT_EQ(entryExists(member.c_str()), 0);
    // Without archive access a member answers -2113 in every mode; the archive itself and paths
    // whose prefixes are no archives stay plain files.
    for (int32_t mode : {0, 1, 2}) EXPECT_EQ(fileOpen(member.c_str(), mode), -2113) << mode;
    ASSERT_EQ(mkdir(at("d.zip").c_str(), 0755), 0);
    put("d.zip/plain.txt", "plain");
    EXPECT_EQ(readThroughHandle(at("d.zip/plain.txt")).second, "plain");
    EXPECT_EQ(readThroughHandle(zip).first, 0);

    fileSetArchiveDecompressor(uncompress);
    ASSERT_EQ(jar.open(member.c_str(), 0), 0);
    char buf[64];
    int32_t n = jar.read(buf, sizeof buf);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n > 0 ? n : 0)), hello_);
    EXPECT_EQ(jar.close(-1), 0);
}

// ---------------------------------------------------------------------------------------------
// Archive members: archives written byte by byte, most of them damaged.

// Appends little-endian fields; widths holds the byte width (2 or 4) of each value.
void pack(std::string& s, const char* widths, std::initializer_list<uint32_t> values) {
    for (uint32_t v : values)
        for (int i = 0, n = *widths++ - '0'; i < n; ++i, v >>= 8)
            s += static_cast<char>(v & 0xff);
}

std::string patched(std::string s, size_t at, int width, uint32_t v) {
    for (int i = 0; i < width; ++i, v >>= 8)
        s[at + i] = static_cast<char>(v & 0xff);
    return s;
}

// zlib's stream without its 2-byte header and 4-byte trailer is raw deflate data.
std::string rawDeflate(const std::string& text) {
    uLongf n = compressBound(text.size());
    std::string out(n, '\0');
    const Bytef* in = reinterpret_cast<const Bytef*>(text.data());
    EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(&out[0]), &n, in, text.size(), 9), Z_OK);
    return out.substr(2, n - 6);
}

struct Member {
    std::string name, stored;  // stored: the bytes as they stand in the archive
    uint32_t method, size;     // size: uncompressed
};

Member storedMember(const std::string& name, const std::string& text) { return {name, text, 0, u32(text.size())}; }
Member deflatedMember(const std::string& name, const std::string& text) {
    return {name, rawDeflate(text), 8, u32(text.size())};
}

struct BuiltZip {
    std::string bytes;
    std::vector<size_t> local, central;  // offsets of the local and central directory headers
    size_t end = 0;                      // offset of the end record
};

// Local headers and data, the central directory, padding, the end record, trailing bytes. Local
// headers carry an extra field of 3 bytes, central ones one of 4.
BuiltZip buildZip(const std::vector<Member>& members, size_t padding = 0, size_t trailing = 0) {
    BuiltZip z;
    std::string& s = z.bytes;
    for (const Member& m : members) {
        z.local.push_back(s.size());
        pack(s, "4222444422",
             {0x04034b50, 20, 0, m.method, 0, 0, u32(m.stored.size()), m.size, u32(m.name.size()), 3});
        s += m.name + "xyz" + m.stored;
    }
    uint32_t directory = u32(s.size());
    for (size_t i = 0; i < members.size(); ++i) {
        const Member& m = members[i];
        z.central.push_back(s.size());
        pack(s, "4222244442222244", {0x02014b50, 20, 20, 0, m.method, 0, 0, u32(m.stored.size()), m.size,
                                     u32(m.name.size()), 4, 0, 0, 0, 0, u32(z.local[i])});
        s += m.name + "abcd";
    }
    uint32_t directorySize = u32(s.size()) - directory, count = u32(members.size());
    s.append(padding, '\0');
    z.end = s.size();
    pack(s, "42222442", {0x06054b50, 0, 0, count, count, directorySize, directory, 0});
    s.append(trailing, 'T');
    return z;
}

TEST_F(ZipTest, HandMadeAndDamagedArchives) {
    const std::string text = "The quick brown fox jumps over the lazy dog. The quick brown fox again.";
    const std::string packed = rawDeflate(text);
    const uint32_t n = u32(text.size());
    const BuiltZip two = buildZip({storedMember("a.txt", text), deflatedMember("b.txt", text)});
    const std::string& t = two.bytes;
    const uint32_t size = u32(t.size());
    const size_t c0 = two.central[0], c1 = two.central[1], end = two.end;
    // The last 4096 bytes are read; an end record at their first byte is not looked at.
    const BuiltZip atZero = buildZip({storedMember("a.txt", text)}, 0, 4096 - 22);
    ASSERT_EQ(atZero.bytes.size() - 4096, atZero.end);
    // Room for two central headers of 46 bytes, but the second entry does not fit.
    const BuiltZip padded = buildZip({storedMember("a.txt", text)}, 41);
    const BuiltZip cases = buildZip({storedMember("Read.me", "mixed"), storedMember("READ.ME", "upper")});
    const BuiltZip empties = buildZip({storedMember("empty", ""), deflatedMember("nothing", "")});

    const struct { const char* what; std::string bytes; int32_t code;
                   const char* member = "a.txt"; std::string content = ""; } rows[] = {
        {"stored", t, 0, "a.txt", text},
        {"deflated", t, 0, "b.txt", text},
        {"empty stored", empties.bytes, 0, "empty"},
        {"empty deflated", empties.bytes, 0, "nothing"},
        {"exact case wins", cases.bytes, 0, "READ.ME", "upper"},
        {"exact case wins too", cases.bytes, 0, "Read.me", "mixed"},
        {"end record at offset 1", buildZip({storedMember("a.txt", text)}, 0, 4096 - 23).bytes, 0, "a.txt", text},
        {"end record at offset 0", atZero.bytes, -4134},
        {"nothing but an end record", buildZip({}).bytes, -4134},
        {"empty file", "", -4134},
        {"no end record", std::string(10000, 'P'), -4134},
        {"too many entries", patched(t, end + 8, 2, 500), -4137},
        {"entry beyond the block", patched(padded.bytes, padded.end + 8, 2, 2), -4137},
        {"name beyond the block", patched(t, c1 + 28, 2, 0xffff), -4137},
        {"extra field beyond the block", patched(t, c0 + 30, 2, 0x8000), -4137},
        {"directory past the end", patched(t, end + 16, 4, size + 100), -4137},
        {"directory in the end record", patched(t, end + 16, 4, size - 10), -4137},
        {"directory offset huge", patched(t, end + 16, 4, 0xfffffff0u), -4137},
        {"local header past the end", patched(t, c0 + 42, 4, size - 10), -4137},
        {"local header offset huge", patched(t, c0 + 42, 4, 0xffffff00u), -4137},
        {"no local header there", patched(t, c0 + 42, 4, u32(c0)), -4137},
        {"stored size past the end", patched(patched(t, c0 + 20, 4, 0x7fff0000u), c0 + 24, 4, 0x7fff0000u), -33},
        {"deflated size past the end", patched(t, c1 + 20, 4, size), -33, "b.txt"},
        {"local name past the end", patched(t, two.local[0] + 28, 2, 0xffff), -33},
        {"unknown method", buildZip({{"a.txt", text, 12, n}}).bytes, -4136},
        {"not deflate data", buildZip({{"a.txt", std::string(40, '\xff'), 8, n}}).bytes, -4136},
        {"inflates shorter", buildZip({{"a.txt", packed, 8, n + 1}}).bytes, -4136},
        {"inflates longer", buildZip({{"a.txt", packed, 8, n - 1}}).bytes, -4136},
        {"claims a huge size", buildZip({{"a.txt", packed, 8, 0x7ff00000u}}).bytes, -4136},
        {"cut deflate data", buildZip({{"a.txt", packed.substr(0, packed.size() / 2), 8, n}}).bytes, -4136},
        {"stored sizes differ", buildZip({{"a.txt", text, 0, 5}}).bytes, -4136},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        std::string zip = put("t" + std::to_string(&r - rows) + ".zip", r.bytes);
        EXPECT_EQ(readThroughHandle(zip + "/" + r.member), std::make_pair(r.code, r.content));
    }
}

}  // namespace
