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
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

class TempDir {
public:
    TempDir()
    {
        char name[] = "/tmp/cvrt_file_XXXXXX";
        char* made = mkdtemp(name);
        char real[PATH_MAX];
        path_ = made && realpath(made, real) ? real : "";
    }
    ~TempDir()
    {
        if (!path_.empty())
            nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

void writeFile(const std::string& path, const std::string& bytes)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

std::string slurp(const std::string& path)
{
    std::string bytes;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return bytes;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        bytes.append(buf, static_cast<size_t>(n));
    close(fd);
    return bytes;
}

// Reads everything behind a handle through fileRead, in small pieces.
std::string readRest(int32_t handle)
{
    std::string bytes;
    char buf[777];
    int32_t n;
    while ((n = fileRead(handle, buf, sizeof buf)) > 0)
        bytes.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(n, 0);
    return bytes;
}

// Opens a path in mode 0 and reads it whole; the open's code when it fails.
std::pair<int32_t, std::string> readThroughHandle(const std::string& path)
{
    int32_t h = fileOpen(path.c_str(), 0);
    if (h < 0)
        return {h, ""};
    std::string bytes = readRest(h);
    EXPECT_EQ(fileClose(h, -1), 0);
    return {0, bytes};
}

// Runs a program in dir with its output discarded; its exit status.
int runProgram(const std::string& dir, const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0)
            dup2(null, 1);
        if (chdir(dir.c_str()) == 0)
            execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// ---------------------------------------------------------------------------------------------
// Handle table.

TEST(HandleTable, StandardHandlesCannotBeClosed)
{
    for (int32_t h : {0, 1, 2})
        EXPECT_EQ(fileClose(h, -1), -35) << h;
    EXPECT_EQ(fileWrite(1, "", 0), 0);
    EXPECT_NE(fcntl(2, F_GETFD), -1);
}

TEST(HandleTable, UnknownHandles)
{
    char c;
    for (int32_t h : {-1, 99999, INT32_MIN}) {
        EXPECT_EQ(fileRead(h, &c, 1), -33) << h;
        EXPECT_EQ(fileSeek(h, 0, 0), -33) << h;
        EXPECT_EQ(fileWrite(h, "x", 1), -34) << h;
        EXPECT_EQ(fileTruncate(h), -34) << h;
        EXPECT_EQ(fileFlush(h), -34) << h;
        EXPECT_EQ(fileClose(h, -1), -35) << h;
    }

    TempDir tmp;
    writeFile(tmp / "f", "abc");
    int32_t h = fileOpen((tmp / "f").c_str(), 0);
    ASSERT_GE(h, 3);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_EQ(fileClose(h, -1), -35);
    EXPECT_EQ(fileRead(h, &c, 1), -33);
}

TEST(HandleTable, LastClosedIsReusedFirst)
{
    TempDir tmp;
    writeFile(tmp / "f", "abc");
    std::vector<int32_t> handles;
    for (int i = 0; i < 10; ++i) {
        handles.push_back(fileOpen((tmp / "f").c_str(), 0));
        ASSERT_GE(handles.back(), 3);
    }
    EXPECT_EQ(fileClose(handles[2], -1), 0);
    EXPECT_EQ(fileClose(handles[5], -1), 0);
    int32_t first = fileOpen((tmp / "f").c_str(), 0);
    int32_t second = fileOpen((tmp / "f").c_str(), 0);
    EXPECT_EQ(first, handles[5]);
    EXPECT_EQ(second, handles[2]);
    handles[2] = second;
    handles[5] = first;
    for (int32_t h : handles)
        EXPECT_EQ(fileClose(h, -1), 0);
}

TEST(HandleTable, GrowsPastItsFirstRows)
{
    TempDir tmp;
    std::string bytes;
    for (int i = 0; i < 250; ++i)
        bytes += static_cast<char>('A' + i % 26);
    writeFile(tmp / "f", bytes);

    std::vector<int32_t> handles;
    for (int i = 0; i < 250; ++i) {
        int32_t h = fileOpen((tmp / "f").c_str(), 0);
        ASSERT_GE(h, 3) << i;
        ASSERT_EQ(fileSeek(h, i, 0), i);
        handles.push_back(h);
    }
    for (int i = 0; i < 250; ++i) {
        char c = 0;
        ASSERT_EQ(fileRead(handles[i], &c, 1), 1);
        EXPECT_EQ(c, bytes[i]) << i;
    }
    for (int32_t h : handles)
        EXPECT_EQ(fileClose(h, -1), 0);
}

// ---------------------------------------------------------------------------------------------
// Plain files: modes and status codes.

TEST(ErrnoMapping, Table)
{
    EXPECT_EQ(fileMapErrno(0, -99), 0);
    EXPECT_EQ(fileMapErrno(ENOENT, -99), -2);
    EXPECT_EQ(fileMapErrno(ENOTDIR, -99), -3);
    EXPECT_EQ(fileMapErrno(ENFILE, -99), -4);
    EXPECT_EQ(fileMapErrno(EMFILE, -99), -4);
    EXPECT_EQ(fileMapErrno(EACCES, -99), -5);
    EXPECT_EQ(fileMapErrno(ETXTBSY, -99), -5);
    EXPECT_EQ(fileMapErrno(ENOMEM, -99), -8);
    EXPECT_EQ(fileMapErrno(EIO, -99), -23);
    EXPECT_EQ(fileMapErrno(ENOSPC, -99), -36);
    EXPECT_EQ(fileMapErrno(EINVAL, -99), -52);
    EXPECT_EQ(fileMapErrno(EEXIST, -99), -99);
    EXPECT_EQ(fileMapErrno(EISDIR, -32), -32);
}

TEST(ErrnoMapping, MissingDirectoryAndMissingFile)
{
    TempDir tmp;
    writeFile(tmp / "plain", "x");
    EXPECT_EQ(fileOpen((tmp / "nodir/file").c_str(), 0), -3);
    EXPECT_EQ(fileOpen((tmp / "nodir/deeper/file").c_str(), 2), -3);
    EXPECT_EQ(fileOpen((tmp / "nofile").c_str(), 0), -2);
    EXPECT_EQ(fileOpen((tmp / "nofile").c_str(), 3), -2);
    EXPECT_EQ(fileOpen((tmp / "plain/below").c_str(), 0), -3);  // ENOTDIR
    EXPECT_EQ(fileOpen("cvrt-no-such-file-here", 0), -2);
}

TEST(ErrnoMapping, OtherOpenFailures)
{
    TempDir tmp;
    writeFile(tmp / "f", "x");
    EXPECT_EQ(fileOpen((tmp / "f").c_str(), 5), -32);     // EEXIST: the open's default
    EXPECT_EQ(fileOpen(tmp.path().c_str(), 2), -32);      // EISDIR
    EXPECT_EQ(fileOpen((tmp / "f").c_str(), 6), -52);
    EXPECT_EQ(fileOpen((tmp / "f").c_str(), -1), -52);
    EXPECT_EQ(fileOpen((tmp / "new").c_str(), 4), -2);    // write-only needs an existing file
}

TEST(PlainFiles, WriteSeekTruncateAndRead)
{
    TempDir tmp;
    std::string path = tmp / "f";
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
    EXPECT_EQ(slurp(path), "hello");

    h = fileOpen(path.c_str(), 3);
    ASSERT_GE(h, 3);
    EXPECT_EQ(readRest(h), "hello");
    EXPECT_EQ(fileClose(h, -1), 0);

    h = fileOpen(path.c_str(), 4);
    ASSERT_GE(h, 3);
    char c;
    EXPECT_EQ(fileRead(h, &c, 1), -33);  // EBADF: the read's default
    EXPECT_EQ(fileWrite(h, "J", 1), 1);
    EXPECT_EQ(fileClose(h, -1), 0);
    EXPECT_EQ(slurp(path), "Jello");

    h = fileOpen(path.c_str(), 0);
    ASSERT_GE(h, 3);
    EXPECT_EQ(fileWrite(h, "x", 1), -34);
    EXPECT_EQ(fileClose(h, -1), 0);

    h = fileOpen(path.c_str(), 1);
    ASSERT_GE(h, 3);
    EXPECT_EQ(fileSeek(h, 0, 2), 0);  // truncated
    EXPECT_EQ(fileClose(h, -1), 0);
}

TEST(PlainFiles, PermissionsOfCreatedFiles)
{
    TempDir tmp;
    mode_t old = umask(0);
    struct Case {
        int32_t mode;
        mode_t umask;
        mode_t expected;
    } cases[] = {
        {1, 0, 0666}, {1, 022, 0644}, {1, 002, 0664}, {2, 0, 0644}, {5, 0, 0666}, {5, 022, 0644},
    };
    int n = 0;
    for (const Case& c : cases) {
        umask(c.umask);
        std::string path = tmp / ("f" + std::to_string(n++));
        int32_t h = fileOpen(path.c_str(), c.mode);
        EXPECT_GE(h, 3);
        fileClose(h, -1);
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, c.expected) << "mode " << c.mode << " umask " << c.umask;
    }
    umask(old);
}

// ---------------------------------------------------------------------------------------------
// The reader's lock byte.

TEST(ReaderLock, ReadOnlyOpenSucceedsAtPositionZero)
{
    TempDir tmp;
    writeFile(tmp / "f", "content");
    chmod((tmp / "f").c_str(), 0444);
    int32_t h = fileOpen((tmp / "f").c_str(), 0);
    ASSERT_GE(h, 3);
    EXPECT_EQ(fileSeek(h, 0, 1), 0);
    EXPECT_EQ(readRest(h), "content");
    EXPECT_EQ(fileClose(h, -1), 0);

    int fd = open((tmp / "f").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    lseek(fd, 3, SEEK_SET);
    EXPECT_EQ(fileLockReaderByte(fd), -1);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0);
    close(fd);
}

TEST(ReaderLock, TakesTheFirstByteNoOtherProcessHolds)
{
    TempDir tmp;
    std::string path = tmp / "f";
    writeFile(path, std::string(100, 'x'));

    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        // Another reader holding bytes 0, 1 and 2.
        int fd = open(path.c_str(), O_RDWR);
        bool ok = fd >= 0 && lockf(fd, F_TLOCK, 3) == 0;
        char c = ok ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1 || read(done[0], &c, 1) < 0)
            _exit(2);
        _exit(ok ? 0 : 1);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');

    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    lseek(fd, 50, SEEK_SET);
    EXPECT_EQ(fileLockReaderByte(fd), 3);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0);

    // A third process sees byte 3 taken and byte 4 free.
    pid_t probe = fork();
    ASSERT_GE(probe, 0);
    if (probe == 0) {
        int pfd = open(path.c_str(), O_RDWR);
        bool taken = lseek(pfd, 3, SEEK_SET) == 3 && lockf(pfd, F_TEST, 1) != 0;
        bool free4 = lseek(pfd, 4, SEEK_SET) == 4 && lockf(pfd, F_TEST, 1) == 0;
        _exit(taken && free4 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(probe, &status, 0), probe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    ASSERT_EQ(write(done[1], "x", 1), 1);
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close(fd);
    for (int p : {ready[0], ready[1], done[0], done[1]})
        close(p);
}

// ---------------------------------------------------------------------------------------------
// Whole-file reads.

TEST(ReadAll, TrailingCtrlZ)
{
    TempDir tmp;
    writeFile(tmp / "f", std::string("text\x1a", 5));
    for (int32_t keepEof : {0, 1}) {
        char* buffer = nullptr;
        int32_t length = -1;
        ASSERT_EQ(fileReadAll((tmp / "f").c_str(), &buffer, &length, keepEof, 0), 0);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(length, keepEof ? 5 : 4);
        EXPECT_EQ(std::string(buffer, 5), std::string("text\x1a", 5));
        EXPECT_EQ(buffer[5], 0);
        libFree(buffer);
    }
}

TEST(ReadAll, EmptyAndMissingFiles)
{
    TempDir tmp;
    writeFile(tmp / "empty", "");
    char* buffer = nullptr;
    int32_t length = -1;
    ASSERT_EQ(fileReadAll((tmp / "empty").c_str(), &buffer, &length, 0, 0), 0);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(buffer[0], 0);
    libFree(buffer);

    buffer = reinterpret_cast<char*>(&length);
    EXPECT_EQ(fileReadAll((tmp / "missing").c_str(), &buffer, &length, 0, 0), -2);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 0);
}

TEST(ReadAll, LargerFile)
{
    TempDir tmp;
    std::string bytes;
    for (int i = 0; i < 100000; ++i)
        bytes += static_cast<char>(i * 7);
    writeFile(tmp / "big", bytes);
    char* buffer = nullptr;
    int32_t length = 0;
    ASSERT_EQ(fileReadAll((tmp / "big").c_str(), &buffer, &length, 1, 0), 0);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(length)), bytes);
    libFree(buffer);
}

// ---------------------------------------------------------------------------------------------
// Archive members: archives made by the zip program.

class ZipMembers : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(tmp_.path().empty());
        fileSetArchiveDecompressor(uncompress);
        ASSERT_EQ(mkdir((tmp_ / "src").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((tmp_ / "src/sub").c_str(), 0755), 0);
        hello_ = "Hello, archive.\n";
        for (int i = 0; i < 2000; ++i)
            deep_ += "line " + std::to_string(i % 37) + " of a compressible text\n";
        for (int i = 0; i < 3000; ++i)
            binary_ += static_cast<char>((i * 131 + i / 7) & 0xff);
        writeFile(tmp_ / "src/hello.txt", hello_);
        writeFile(tmp_ / "src/sub/deep.txt", deep_);
        writeFile(tmp_ / "src/bin.dat", binary_);
    }
    void TearDown() override { fileSetArchiveDecompressor(nullptr); }

    // Makes tmp/<name> from files below tmp/src with the given zip options.
    std::string makeZip(const std::string& name, const std::vector<std::string>& options,
                        const std::vector<std::string>& files)
    {
        std::string archive = tmp_ / name;
        std::vector<std::string> args = {"zip", "-q", "-X"};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(archive);
        args.insert(args.end(), files.begin(), files.end());
        EXPECT_EQ(runProgram(tmp_ / "src", args), 0) << "zip " << name;
        return archive;
    }

    TempDir tmp_;
    std::string hello_, deep_, binary_;
};

TEST_F(ZipMembers, StoredMembers)
{
    std::string zip = makeZip("stored.zip", {"-0", "-r"}, {"hello.txt", "sub", "bin.dat"});
    EXPECT_EQ(readThroughHandle(zip + "/hello.txt"), std::make_pair(0, hello_));
    EXPECT_EQ(readThroughHandle(zip + "/sub/deep.txt"), std::make_pair(0, deep_));
    EXPECT_EQ(readThroughHandle(zip + "/bin.dat"), std::make_pair(0, binary_));
    EXPECT_EQ(readThroughHandle(zip + "/nothere.txt").first, -2);
}

TEST_F(ZipMembers, DeflatedMembers)
{
    std::string zip = makeZip("deflated.zip", {"-9"}, {"sub/deep.txt", "hello.txt", "bin.dat"});
    std::string raw = slurp(zip);
    ASSERT_GE(raw.size(), 30u);
    ASSERT_EQ(raw[8], 8) << "first member should be deflated";
    ASSERT_LT(raw.size(), deep_.size() / 4);

    EXPECT_EQ(readThroughHandle(zip + "/sub/deep.txt"), std::make_pair(0, deep_));
    EXPECT_EQ(readThroughHandle(zip + "/hello.txt"), std::make_pair(0, hello_));
    EXPECT_EQ(readThroughHandle(zip + "/bin.dat"), std::make_pair(0, binary_));

    char* buffer = nullptr;
    int32_t length = 0;
    ASSERT_EQ(fileReadAll((zip + "/sub/deep.txt").c_str(), &buffer, &length, 0, 0), 0);
    EXPECT_EQ(std::string(buffer, static_cast<size_t>(length)), deep_);
    EXPECT_EQ(buffer[length], 0);
    libFree(buffer);
}

TEST_F(ZipMembers, SeekAndReadWithinAMember)
{
    std::string zip = makeZip("a.jar", {"-9"}, {"hello.txt"});
    int32_t h = fileOpen((zip + "/hello.txt").c_str(), 0);
    ASSERT_GE(h, 3);
    int32_t size = static_cast<int32_t>(hello_.size());
    char buf[64];
    EXPECT_EQ(fileSeek(h, 0, 2), size);
    EXPECT_EQ(fileRead(h, buf, sizeof buf), 0);
    EXPECT_EQ(fileSeek(h, -4, 2), size - 4);
    EXPECT_EQ(fileRead(h, buf, sizeof buf), 4);
    EXPECT_EQ(std::string(buf, 4), hello_.substr(hello_.size() - 4));
    EXPECT_EQ(fileSeek(h, 7, 0), 7);
    EXPECT_EQ(fileSeek(h, 2, 1), 9);
    EXPECT_EQ(fileRead(h, buf, 3), 3);
    EXPECT_EQ(std::string(buf, 3), hello_.substr(9, 3));
    EXPECT_EQ(fileSeek(h, 1, 7), size + 1);  // any other whence counts from the end
    // The position is not checked by seek; reading outside the member gives nothing.
    EXPECT_EQ(fileSeek(h, 1000, 0), 1000);
    EXPECT_EQ(fileRead(h, buf, sizeof buf), 0);
    EXPECT_EQ(fileSeek(h, -5, 0), -5);
    EXPECT_EQ(fileRead(h, buf, sizeof buf), 0);
    EXPECT_EQ(fileWrite(h, "x", 1), -2113);
    EXPECT_EQ(fileTruncate(h), 1);
    EXPECT_EQ(fileFlush(h), 1);
    EXPECT_EQ(fileClose(h, -1), 0);
}

TEST_F(ZipMembers, ManyMembersAndCaseInsensitiveNames)
{
    std::vector<std::string> names;
    for (int i = 0; i < 300; ++i) {
        std::string name = "m" + std::to_string(i) + ".txt";
        writeFile(tmp_ / ("src/" + name), "member " + std::to_string(i));
        names.push_back(name);
    }
    std::string zip = makeZip("many.zip", {"-0"}, names);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(readThroughHandle(zip + "/m" + std::to_string(i) + ".txt"),
                  std::make_pair(0, "member " + std::to_string(i)));
    EXPECT_EQ(readThroughHandle(zip + "/M17.TXT"), std::make_pair(0, std::string("member 17")));
}

TEST_F(ZipMembers, ExistenceOfMembers)
{
    std::string zip = makeZip("e.zip", {"-r"}, {"hello.txt", "sub"});
    EXPECT_EQ(fileArchiveMemberExists((zip + "/hello.txt").c_str()), 1);
    EXPECT_EQ(fileArchiveMemberExists((zip + "/sub").c_str()), 1);
    EXPECT_EQ(fileArchiveMemberExists((zip + "/missing").c_str()), 0);
    EXPECT_EQ(fileArchiveMemberExists(zip.c_str()), -1);
    EXPECT_EQ(fileArchiveMemberExists((tmp_ / "src/hello.txt").c_str()), -1);

    EXPECT_EQ(entryExists((zip + "/sub/deep.txt").c_str()), 1);
    EXPECT_EQ(entryExists((zip + "/sub/").c_str()), 1);
    EXPECT_EQ(entryExists((zip + "/missing").c_str()), 0);
    // The directory of a missing member exists inside the archive: file not found.
    EXPECT_EQ(fileOpen((zip + "/sub/missing").c_str(), 0), -2);

    writeFile(tmp_ / "broken.zip", "not an archive at all");
    EXPECT_EQ(entryExists((tmp_ / "broken.zip/x").c_str()), 0);
    EXPECT_EQ(fileOpen((tmp_ / "broken.zip/x").c_str(), 0), -4134);
}

TEST_F(ZipMembers, MarkersThatAreNoArchives)
{
    // A directory named like an archive is passed over, also on the way to a real archive.
    ASSERT_EQ(mkdir((tmp_ / "d.zip").c_str(), 0755), 0);
    writeFile(tmp_ / "d.zip/plain.txt", "plain");
    EXPECT_EQ(readThroughHandle(tmp_ / "d.zip/plain.txt"), std::make_pair(0, std::string("plain")));
    std::string inner = makeZip("d.zip/inner.jar", {}, {"hello.txt"});
    EXPECT_EQ(readThroughHandle(inner + "/hello.txt"), std::make_pair(0, hello_));

    EXPECT_EQ(fileOpen((tmp_ / "missing.zip/x").c_str(), 0), -3);
}

TEST_F(ZipMembers, OnlyReadingWithArchiveAccessOn)
{
    std::string zip = makeZip("r.zip", {}, {"hello.txt"});
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
    // Without archive access the path is just a file below a file.
    EXPECT_EQ(fileOpen(member.c_str(), 0), -3);

    fileSetArchiveDecompressor(uncompress);
    ASSERT_EQ(jar.open(member.c_str(), 0), 0);
    char buf[64];
    int32_t n = jar.read(buf, sizeof buf);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n > 0 ? n : 0)), hello_);
    EXPECT_EQ(jar.close(-1), 0);
}

// ---------------------------------------------------------------------------------------------
// Archive members: archives written byte by byte, most of them damaged.

void put16(std::string& s, size_t at, uint32_t v)
{
    s[at] = static_cast<char>(v & 0xff);
    s[at + 1] = static_cast<char>((v >> 8) & 0xff);
}

void put32(std::string& s, size_t at, uint32_t v)
{
    put16(s, at, v & 0xffff);
    put16(s, at + 2, v >> 16);
}

void add16(std::string& s, uint32_t v)
{
    s.append(2, '\0');
    put16(s, s.size() - 2, v);
}

void add32(std::string& s, uint32_t v)
{
    s.append(4, '\0');
    put32(s, s.size() - 4, v);
}

std::string rawDeflate(const std::string& text)
{
    z_stream z;
    memset(&z, 0, sizeof z);
    EXPECT_EQ(deflateInit2(&z, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out(compressBound(text.size()) + 64, '\0');
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

struct Member {
    std::string name;
    std::string stored;  // the bytes as they stand in the archive
    uint16_t method;
    uint32_t size;       // uncompressed size
};

Member storedMember(const std::string& name, const std::string& text)
{
    return {name, text, 0, static_cast<uint32_t>(text.size())};
}

Member deflatedMember(const std::string& name, const std::string& text)
{
    return {name, rawDeflate(text), 8, static_cast<uint32_t>(text.size())};
}

struct BuiltZip {
    std::string bytes;
    std::vector<size_t> local;    // offsets of the local headers
    std::vector<size_t> central;  // offsets of the central directory headers
    size_t end = 0;               // offset of the end record
};

// Local headers and data, the central directory, padding, the end record, trailing bytes.
BuiltZip buildZip(const std::vector<Member>& members, size_t padding = 0, size_t trailing = 0)
{
    BuiltZip z;
    std::string& s = z.bytes;
    for (const Member& m : members) {
        z.local.push_back(s.size());
        add32(s, 0x04034b50);
        add16(s, 20);
        add16(s, 0);
        add16(s, m.method);
        add32(s, 0);
        add32(s, 0);
        add32(s, static_cast<uint32_t>(m.stored.size()));
        add32(s, m.size);
        add16(s, static_cast<uint32_t>(m.name.size()));
        add16(s, 3);
        s += m.name;
        s += "xyz";
        s += m.stored;
    }
    size_t directory = s.size();
    for (size_t i = 0; i < members.size(); ++i) {
        const Member& m = members[i];
        z.central.push_back(s.size());
        add32(s, 0x02014b50);
        add16(s, 20);
        add16(s, 20);
        add16(s, 0);
        add16(s, m.method);
        add32(s, 0);
        add32(s, 0);
        add32(s, static_cast<uint32_t>(m.stored.size()));
        add32(s, m.size);
        add16(s, static_cast<uint32_t>(m.name.size()));
        add16(s, 0);
        add16(s, 0);
        add16(s, 0);
        add16(s, 0);
        add32(s, 0);
        add32(s, static_cast<uint32_t>(z.local[i]));
        s += m.name;
    }
    size_t directorySize = s.size() - directory;
    s.append(padding, '\0');
    z.end = s.size();
    add32(s, 0x06054b50);
    add16(s, 0);
    add16(s, 0);
    add16(s, static_cast<uint32_t>(members.size()));
    add16(s, static_cast<uint32_t>(members.size()));
    add32(s, static_cast<uint32_t>(directorySize));
    add32(s, static_cast<uint32_t>(directory));
    add16(s, 0);
    s.append(trailing, 'T');
    return z;
}

class ZipCorrupt : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(tmp_.path().empty());
        fileSetArchiveDecompressor(uncompress);
    }
    void TearDown() override { fileSetArchiveDecompressor(nullptr); }

    // Writes the archive and opens member a.txt of it; the open's code and the bytes read.
    std::pair<int32_t, std::string> tryMember(const std::string& bytes, const std::string& member = "a.txt")
    {
        std::string zip = tmp_ / ("t" + std::to_string(count_++) + ".zip");
        writeFile(zip, bytes);
        return readThroughHandle(zip + "/" + member);
    }

    TempDir tmp_;
    int count_ = 0;
    const std::string text_ = "The quick brown fox jumps over the lazy dog. The quick brown fox again.";
};

TEST_F(ZipCorrupt, HandMadeArchivesAreRead)
{
    BuiltZip z = buildZip({storedMember("a.txt", text_), deflatedMember("b.txt", text_),
                           storedMember("empty", ""), deflatedMember("nothing", "")});
    EXPECT_EQ(tryMember(z.bytes), std::make_pair(0, text_));
    EXPECT_EQ(tryMember(z.bytes, "b.txt"), std::make_pair(0, text_));
    EXPECT_EQ(tryMember(z.bytes, "empty"), std::make_pair(0, std::string()));
    EXPECT_EQ(tryMember(z.bytes, "nothing"), std::make_pair(0, std::string()));
}

TEST_F(ZipCorrupt, ExactNameWinsOverOneInAnotherCase)
{
    BuiltZip z = buildZip({storedMember("Read.me", "mixed"), storedMember("READ.ME", "upper")});
    EXPECT_EQ(tryMember(z.bytes, "READ.ME"), std::make_pair(0, std::string("upper")));
    EXPECT_EQ(tryMember(z.bytes, "Read.me"), std::make_pair(0, std::string("mixed")));
}

TEST_F(ZipCorrupt, EndRecordAtTheStartOfTheReadBlock)
{
    // The last 4096 bytes are read; an end record at their first byte is not looked at.
    BuiltZip atZero = buildZip({storedMember("a.txt", text_)}, 0, 4096 - 22);
    ASSERT_EQ(atZero.bytes.size() - 4096, atZero.end);
    EXPECT_EQ(tryMember(atZero.bytes).first, -4134);

    BuiltZip atOne = buildZip({storedMember("a.txt", text_)}, 0, 4096 - 23);
    EXPECT_EQ(tryMember(atOne.bytes), std::make_pair(0, text_));

    // A file that is nothing but an end record: the record stands at offset 0.
    BuiltZip empty = buildZip({});
    ASSERT_EQ(empty.bytes.size(), 22u);
    EXPECT_EQ(tryMember(empty.bytes).first, -4134);
    EXPECT_EQ(tryMember("").first, -4134);
    EXPECT_EQ(tryMember(std::string(10000, 'P')).first, -4134);
}

TEST_F(ZipCorrupt, CorruptCentralDirectory)
{
    BuiltZip base = buildZip({storedMember("a.txt", text_), storedMember("b.txt", text_)});
    size_t end = base.end;

    std::string tooMany = base.bytes;
    put16(tooMany, end + 8, 500);
    EXPECT_EQ(tryMember(tooMany).first, -4137);

    // The count fits the block (2 x 46 bytes), the second entry does not.
    BuiltZip padded = buildZip({storedMember("a.txt", text_)}, 41);
    put16(padded.bytes, padded.end + 8, 2);
    EXPECT_EQ(tryMember(padded.bytes).first, -4137);

    std::string longName = base.bytes;
    put16(longName, base.central[1] + 28, 0xffff);
    EXPECT_EQ(tryMember(longName).first, -4137);

    std::string longExtra = base.bytes;
    put16(longExtra, base.central[0] + 30, 0x8000);
    EXPECT_EQ(tryMember(longExtra).first, -4137);

    std::string pastEnd = base.bytes;
    put32(pastEnd, end + 16, static_cast<uint32_t>(pastEnd.size() + 100));
    EXPECT_EQ(tryMember(pastEnd).first, -4137);

    std::string nearEnd = base.bytes;  // leaves fewer than 22 bytes for the end record
    put32(nearEnd, end + 16, static_cast<uint32_t>(nearEnd.size() - 10));
    EXPECT_EQ(tryMember(nearEnd).first, -4137);

    std::string huge = base.bytes;
    put32(huge, end + 16, 0xfffffff0u);
    EXPECT_EQ(tryMember(huge).first, -4137);
}

TEST_F(ZipCorrupt, LocalHeaderAndSizesOutsideTheFile)
{
    BuiltZip base = buildZip({storedMember("a.txt", text_), deflatedMember("b.txt", text_)});

    std::string localPast = base.bytes;
    put32(localPast, base.central[0] + 42, static_cast<uint32_t>(localPast.size() - 10));
    EXPECT_EQ(tryMember(localPast).first, -4137);
    put32(localPast, base.central[0] + 42, 0xffffff00u);
    EXPECT_EQ(tryMember(localPast).first, -4137);

    std::string notLocal = base.bytes;
    put32(notLocal, base.central[0] + 42, static_cast<uint32_t>(base.central[0]));
    EXPECT_EQ(tryMember(notLocal).first, -4137);

    std::string bigStored = base.bytes;
    put32(bigStored, base.central[0] + 20, 0x7fff0000u);
    put32(bigStored, base.central[0] + 24, 0x7fff0000u);
    EXPECT_EQ(tryMember(bigStored).first, -33);

    std::string bigDeflated = base.bytes;
    put32(bigDeflated, base.central[1] + 20, static_cast<uint32_t>(bigDeflated.size()));
    EXPECT_EQ(tryMember(bigDeflated, "b.txt").first, -33);

    // A local name and extra field that reach past the file leave no data to read.
    std::string localLengths = base.bytes;
    put16(localLengths, base.local[0] + 28, 0xffff);
    EXPECT_EQ(tryMember(localLengths).first, -33);
}

TEST_F(ZipCorrupt, MethodsAndDecompression)
{
    Member bzip = storedMember("a.txt", text_);
    bzip.method = 12;
    EXPECT_EQ(tryMember(buildZip({bzip}).bytes).first, -4136);

    Member garbage = {"a.txt", std::string(40, '\xff'), 8, static_cast<uint32_t>(text_.size())};
    EXPECT_EQ(tryMember(buildZip({garbage}).bytes).first, -4136);

    Member longer = deflatedMember("a.txt", text_);
    longer.size += 1;
    EXPECT_EQ(tryMember(buildZip({longer}).bytes).first, -4136);

    Member shorter = deflatedMember("a.txt", text_);
    shorter.size -= 1;
    EXPECT_EQ(tryMember(buildZip({shorter}).bytes).first, -4136);

    Member bomb = deflatedMember("a.txt", text_);
    bomb.size = 0x7ff00000u;
    EXPECT_EQ(tryMember(buildZip({bomb}).bytes).first, -4136);

    Member truncated = deflatedMember("a.txt", text_);
    truncated.stored.resize(truncated.stored.size() / 2);
    EXPECT_EQ(tryMember(buildZip({truncated}).bytes).first, -4136);

    Member mismatch = storedMember("a.txt", text_);
    mismatch.size = 5;
    EXPECT_EQ(tryMember(buildZip({mismatch}).bytes).first, -4136);
}

}  // namespace
