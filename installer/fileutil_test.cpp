// File copy and directory utilities. Access failures are provoked as uid/gid 65534 in a
// child process, since root passes every access() check.
#include "installer/fileutil.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "installer/console.h"
#include "installer/shellcmd.h"
#include "installer/state.h"

namespace {

struct ChildResult {
    int result = -1;   // the operation's result, or -1 when the child did not end normally
    std::string out;   // what the operation printed
};

// Runs op as user and group 65534 in a child process; its standard output comes back
// through a pipe and its result as the exit code.
ChildResult runAsNobody(const std::function<int32_t()>& op) {
    ChildResult child;
    int fds[2];
    if (pipe(fds) != 0) return child;
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(99);
        int32_t result = op();
        fflush(stdout);
        _exit(result & 0x7f);
    }
    close(fds[1]);
    char block[1024];
    ssize_t count;
    while ((count = read(fds[0], block, sizeof(block))) > 0) child.out.append(block, static_cast<size_t>(count));
    close(fds[0]);
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) child.result = WEXITSTATUS(status);
    return child;
}

class FileUtilTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        char pattern[] = "/tmp/fileutil_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        chmod(dir.c_str(), 0755);   // searchable by the unprivileged child
    }
    void TearDown() override {
        gConsoleIn = nullptr;
        if (input_ != nullptr) fclose(input_);
        char command[1024];
        if (formatShellCommand(command, sizeof(command), "rm -rf %s", dir.c_str()) == 0) runShell(command);
    }

    std::string at(const std::string& name) const { return dir + "/" + name; }

    void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
        FILE* f = fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr) << path;
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
    std::string readFile(const std::string& path) {
        std::string content;
        FILE* f = fopen(path.c_str(), "rb");
        if (f == nullptr) return "<missing>";
        char block[4096];
        size_t count;
        while ((count = fread(block, 1, sizeof(block), f)) > 0) content.append(block, count);
        fclose(f);
        return content;
    }
    void makeDir(const std::string& path, mode_t mode) {
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
    static bool isDir(const std::string& path) {
        struct stat info;
        return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    }
    static mode_t modeOf(const std::string& path) {
        struct stat info;
        return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
    }
    void feed(const std::string& text) {
        input_ = tmpfile();
        ASSERT_NE(input_, nullptr);
        fwrite(text.data(), 1, text.size(), input_);
        rewind(input_);
        gConsoleIn = input_;
    }

    std::string dir;
    FILE* input_ = nullptr;
};

std::string message(const std::string& text) {
    return "Corvane Install: " + text + "\n";
}

}  // namespace

// --- path texts ----------------------------------------------------------------------------

TEST(PathText, AppendSlash) {
    char path[kPathSize] = "";
    appendSlash(path);
    EXPECT_STREQ(path, "/");
    appendSlash(path);
    EXPECT_STREQ(path, "/");
    strcpy(path, "/opt/x");
    appendSlash(path);
    EXPECT_STREQ(path, "/opt/x/");
    std::string full(511, 'p');
    strcpy(path, full.c_str());
    appendSlash(path);
    EXPECT_EQ(std::string(path), full);
}

TEST(PathText, StripTrailingSlash) {
    char path[kPathSize] = "/a/b/";
    stripTrailingSlash(path);
    EXPECT_STREQ(path, "/a/b");
    stripTrailingSlash(path);
    EXPECT_STREQ(path, "/a/b");
    strcpy(path, "/a//");
    stripTrailingSlash(path);
    EXPECT_STREQ(path, "/a/");
    strcpy(path, "/");
    stripTrailingSlash(path);
    EXPECT_STREQ(path, "/");
    path[0] = '\0';
    stripTrailingSlash(path);
    EXPECT_STREQ(path, "");
}

TEST(PathText, CutToParentDir) {
    const char* unchanged[] = {"relative/path", "/", "/a/b/", "", "name"};
    for (const char* text : unchanged) {
        char path[kPathSize];
        strcpy(path, text);
        cutToParentDir(path);
        EXPECT_STREQ(path, text);
    }
    char path[kPathSize] = "/a/b/c";
    cutToParentDir(path);
    EXPECT_STREQ(path, "/a/b/");
    strcpy(path, "/a");
    cutToParentDir(path);
    EXPECT_STREQ(path, "/");
}

// --- probes --------------------------------------------------------------------------------

TEST_F(FileUtilTest, ExistenceModeAndReadability) {
    writeFile(at("f"), "x", 0640);
    EXPECT_EQ(pathExists(at("f").c_str()), 1);
    EXPECT_EQ(pathExists(dir.c_str()), 1);
    EXPECT_EQ(pathExists(at("missing").c_str()), 0);

    uint32_t mode = 0;
    ASSERT_EQ(getFileMode(at("f").c_str(), &mode), 0);
    EXPECT_TRUE(S_ISREG(mode));
    EXPECT_EQ(mode & 07777, 0640u);
    mode = 12345;
    EXPECT_EQ(getFileMode(at("missing").c_str(), &mode), 1);
    EXPECT_EQ(mode, 12345u);

    EXPECT_EQ(isReadableFile(at("f").c_str()), 1);
    EXPECT_EQ(isReadableFile(at("missing").c_str()), 0);
    std::string path = at("f");
    EXPECT_EQ(runAsNobody([&] { return isReadableFile(path.c_str()); }).result, 0);
}

TEST_F(FileUtilTest, CanWritePathLooksAtTheParentOfAMissingPath) {
    writeFile(at("f"), "x");
    EXPECT_EQ(canWritePath(dir.c_str()), 1);
    EXPECT_EQ(canWritePath(at("f").c_str()), 1);
    EXPECT_EQ(canWritePath(at("new").c_str()), 1);
    EXPECT_EQ(canWritePath(at("new/").c_str()), 1);
    EXPECT_EQ(canWritePath(at("nodir/new").c_str()), 0);
    // stat fails for another reason than a missing entry
    EXPECT_EQ(canWritePath(at("f/new").c_str()), 0);
}

TEST_F(FileUtilTest, CanWritePathAsAnUnprivilegedUser) {
    makeDir(at("open"), 0777);
    makeDir(at("closed"), 0755);
    writeFile(at("closed/f"), "x", 0644);
    writeFile(at("open/f"), "x", 0666);
    std::string open = at("open"), closed = at("closed");
    EXPECT_EQ(runAsNobody([&] { return canWritePath(open.c_str()); }).result, 1);
    EXPECT_EQ(runAsNobody([&] { return canWritePath((open + "/new").c_str()); }).result, 1);
    EXPECT_EQ(runAsNobody([&] { return canWritePath((open + "/f").c_str()); }).result, 1);
    EXPECT_EQ(runAsNobody([&] { return canWritePath(closed.c_str()); }).result, 0);
    EXPECT_EQ(runAsNobody([&] { return canWritePath((closed + "/new").c_str()); }).result, 0);
    EXPECT_EQ(runAsNobody([&] { return canWritePath((closed + "/f").c_str()); }).result, 0);
}

// --- copying -------------------------------------------------------------------------------

TEST_F(FileUtilTest, CopyKeepsContentAndPermissionBits) {
    std::string content;
    for (int i = 0; i < 25000; i++) content += static_cast<char>((i * 7 + i / 251) & 0xff);
    writeFile(at("src"), content, 0751);
    writeFile(at("dst"), std::string(40000, 'o'), 0600);   // an older, longer file is replaced

    gState.verbose = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(copyFile(at("src").c_str(), at("dst").c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ">>> Copying " + at("src") + " to " + at("dst") + "\n");
    EXPECT_EQ(readFile(at("dst")), content);
    EXPECT_EQ(modeOf(at("dst")), 0751u);

    // A new file in a writable directory; an empty source gives an empty copy.
    writeFile(at("empty"), "", 0604);
    testing::internal::CaptureStdout();
    EXPECT_EQ(copyFile(at("empty").c_str(), at("fresh").c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ">>> Copying " + at("empty") + " to " + at("fresh") + "\n");
    EXPECT_EQ(readFile(at("fresh")), "");
    EXPECT_EQ(modeOf(at("fresh")), 0604u);
}

TEST_F(FileUtilTest, CopiedExecutableStaysExecutable) {
    writeFile(at("tool"), "#!/bin/sh\necho it runs\n", 0755);
    testing::internal::CaptureStdout();
    ASSERT_EQ(copyFile(at("tool").c_str(), at("tool2").c_str()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(modeOf(at("tool2")), 0755u);
    char command[1024];
    ASSERT_EQ(formatShellCommand(command, sizeof(command), "%s >%s", at("tool2").c_str(), at("out").c_str()), 0);
    EXPECT_EQ(runShell(command), 0);
    EXPECT_EQ(readFile(at("out")), "it runs\n");
}

TEST_F(FileUtilTest, CopyOfAMissingSourceFails) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(copyFile(at("missing").c_str(), at("dst").c_str()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message("Insufficient read access to " + at("missing") + "."));
    EXPECT_FALSE(pathExists(at("dst").c_str()));
}

TEST_F(FileUtilTest, CopyOfAnUnreadableSourceFailsBeforeTheDestinationExists) {
    writeFile(at("secret"), "hidden", 0600);
    makeDir(at("open"), 0777);
    std::string source = at("secret"), destination = at("open/copy");
    ChildResult child = runAsNobody([&] { return copyFile(source.c_str(), destination.c_str()); });
    EXPECT_EQ(child.result, 1);
    EXPECT_EQ(child.out, message("Insufficient read access to " + source + "."));
    EXPECT_FALSE(pathExists(destination.c_str()));
}

TEST_F(FileUtilTest, CopyIntoAnUnwritableDirectoryFails) {
    writeFile(at("src"), "data", 0644);
    makeDir(at("closed"), 0755);
    std::string source = at("src"), destination = at("closed/copy");
    ChildResult child = runAsNobody([&] { return copyFile(source.c_str(), destination.c_str()); });
    EXPECT_EQ(child.result, 1);
    EXPECT_EQ(child.out, message("Insufficient write access to " + destination + "."));
    EXPECT_FALSE(pathExists(destination.c_str()));

    // The same copy is fine into a directory the user may write.
    makeDir(at("open"), 0777);
    destination = at("open/copy");
    child = runAsNobody([&] { return copyFile(source.c_str(), destination.c_str()); });
    EXPECT_EQ(child.result, 0);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(readFile(destination), "data");
}

TEST_F(FileUtilTest, CopyOntoSomeoneElsesFileOnlyWarnsAboutPermissions) {
    writeFile(at("src"), "new content", 0644);
    makeDir(at("open"), 0777);
    writeFile(at("open/theirs"), "old", 0666);   // writable, but the mode belongs to root
    std::string source = at("src"), destination = at("open/theirs");
    ChildResult child = runAsNobody([&] { return copyFile(source.c_str(), destination.c_str()); });
    EXPECT_EQ(child.result, 0);
    EXPECT_EQ(child.out, message("Warning: Cannot set permission bits for " + destination + "."));
    EXPECT_EQ(readFile(destination), "new content");
    EXPECT_EQ(modeOf(destination), 0666u);
}

TEST_F(FileUtilTest, CopyOntoADirectoryCannotOpenTheDestination) {
    writeFile(at("src"), "data");
    makeDir(at("sub"), 0755);
    testing::internal::CaptureStdout();
    EXPECT_EQ(copyFile(at("src").c_str(), at("sub").c_str()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message("Cannot open copy destination file " + at("sub") + "."));
}

TEST_F(FileUtilTest, ShortWriteReportsDiskSpace) {
    // /dev/full takes the open but refuses every byte. The source's mode equals the device's,
    // should the copy ever get as far as the permission bits.
    writeFile(at("big"), std::string(30000, 'b'), 0666);
    testing::internal::CaptureStdout();
    EXPECT_EQ(copyFile(at("big").c_str(), "/dev/full"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              message("Cannot write to /dev/full from " + at("big") + ". Please check disk space."));
}

// --- directories ---------------------------------------------------------------------------

TEST_F(FileUtilTest, MakeDirectoryReportsFailure) {
    mode_t old = umask(022);
    testing::internal::CaptureStdout();
    EXPECT_EQ(makeDirectory(at("d").c_str(), 0750), 0);
    EXPECT_EQ(makeDirectory(at("d").c_str(), 0750), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message("Cannot create directory " + at("d") + "."));
    umask(old);
    EXPECT_EQ(modeOf(at("d")), 0750u);
}

TEST_F(FileUtilTest, MakeDirectoryTreeCreatesTheMissingParents) {
    makeDir(at("a"), 0755);
    mode_t old = umask(022);
    testing::internal::CaptureStdout();
    EXPECT_EQ(makeDirectoryTree(at("a/b/c").c_str()), 0);
    EXPECT_EQ(makeDirectoryTree(at("x/y/").c_str()), 0);
    EXPECT_EQ(makeDirectoryTree(""), 0);
    EXPECT_EQ(makeDirectoryTree("/"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    umask(old);
    EXPECT_TRUE(isDir(at("a/b")));
    EXPECT_TRUE(isDir(at("a/b/c")));
    EXPECT_TRUE(isDir(at("x/y")));
    EXPECT_EQ(modeOf(at("a/b")), 0755u);
    EXPECT_EQ(modeOf(at("a/b/c")), 0755u);
}

TEST_F(FileUtilTest, MakeDirectoryTreeStopsAtTheFirstFailure) {
    writeFile(at("file"), "x");
    testing::internal::CaptureStdout();
    EXPECT_EQ(makeDirectoryTree(at("file/sub/deeper").c_str()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message("Cannot create directory " + at("file/sub") + "."));
}

TEST_F(FileUtilTest, EnsureDirectoryOfAnExistingDirectoryDoesNotAsk) {
    makeDir(at("here"), 0755);
    feed("n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(ensureDirectory(at("here").c_str(), 1), 0);
    EXPECT_EQ(ensureDirectory(at("here/").c_str(), 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(FileUtilTest, EnsureDirectoryAsksBeforeCreating) {
    std::string wanted = at("new/tree/");
    const std::string question = "Directory " + wanted + " does not exist. Create [Y]? ";
    feed("no\n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(ensureDirectory(wanted.c_str(), 1), 1);
    EXPECT_FALSE(pathExists(at("new").c_str()));
    EXPECT_EQ(ensureDirectory(wanted.c_str(), 1), 0);   // empty answer: the default Y
    EXPECT_EQ(testing::internal::GetCapturedStdout(), question + question);
    EXPECT_TRUE(isDir(at("new/tree")));
}

TEST_F(FileUtilTest, EnsureDirectoryAtEndOfInputCreatesNothing) {
    feed("");
    testing::internal::CaptureStdout();
    EXPECT_EQ(ensureDirectory(at("never").c_str(), 1), 1);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(pathExists(at("never").c_str()));
}

TEST_F(FileUtilTest, EnsureDirectoryWithoutAskingAndItsFailure) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(ensureDirectory(at("quiet/one/").c_str(), 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(isDir(at("quiet/one")));

    // A directory that cannot be made is reported, but the result is still 0.
    writeFile(at("plain"), "x");
    testing::internal::CaptureStdout();
    EXPECT_EQ(ensureDirectory(at("plain/sub/").c_str(), 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message("Cannot create directory " + at("plain/sub") + "."));
}
