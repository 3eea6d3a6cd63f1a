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

struct Outcome {
    int result = -1;   // the operation's result, or -1 when the child did not end normally
    std::string out;   // what the operation printed
};

// Runs op in a child process, as user and group 65534 when asked to; its standard output
// comes back through a pipe and its result as the exit code.
Outcome runOp(const std::function<int32_t()>& op, bool asNobody = false) {
    Outcome child;
    int fds[2];
    if (pipe(fds) != 0) return child;
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
        if (asNobody && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) _exit(99);
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

std::string message(const std::string& text) { return "Corvane Install: " + text + "\n"; }

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
        char command[1024];
        if (formatShellCommand(command, sizeof(command), "rm -rf %s", dir.c_str()) == 0) runShell(command);
    }

    std::string at(const std::string& name) const { return dir + "/" + name; }
    void writeFile(const std::string& name, const std::string& content, mode_t mode = 0644) {
        FILE* f = fopen(at(name).c_str(), "wb");
        ASSERT_NE(f, nullptr) << name;
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
        ASSERT_EQ(chmod(at(name).c_str(), mode), 0);
    }
    std::string readFile(const std::string& name) {
        std::string content;
        FILE* f = fopen(at(name).c_str(), "rb");
        if (f == nullptr) return "<missing>";
        char block[4096];
        for (size_t count; (count = fread(block, 1, sizeof(block), f)) > 0;) content.append(block, count);
        fclose(f);
        return content;
    }
    void makeDir(const std::string& name, mode_t mode) {
        ASSERT_EQ(mkdir(at(name).c_str(), 0700), 0) << name;
        ASSERT_EQ(chmod(at(name).c_str(), mode), 0);
    }
    mode_t modeOf(const std::string& name) {
        struct stat info;
        return stat(at(name).c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
    }
    Outcome copy(const std::string& from, const std::string& to, bool asNobody = false) {
        std::string source = from[0] == '/' ? from : at(from), target = to[0] == '/' ? to : at(to);
        return runOp([&] { return copyFile(source.c_str(), target.c_str()); }, asNobody);
    }

    std::string dir;
};

}  // namespace

TEST(PathText, CutToParentDir) {
    const std::pair<const char*, const char*> rows[] = {
        {"/a/b/c", "/a/b/"}, {"/a", "/"}, {"relative/path", "relative/path"}, {"/", "/"},
        {"/a/b/", "/a/b/"}, {"", ""}, {"name", "name"}};
    for (const auto& row : rows) {
        char path[kPathSize];
        strcpy(path, row.first);
        cutToParentDir(path);
        EXPECT_STREQ(path, row.second) << row.first;
    }
}

TEST_F(FileUtilTest, CopyKeepsContentAndPermissionBits) {
    std::string content;
    for (int i = 0; i < 25000; i++) content += static_cast<char>((i * 7 + i / 251) & 0xff);
    writeFile("src", content, 0751);
    writeFile("dst", std::string(40000, 'o'), 0600);   // an older, longer file is replaced
    gState.verbose = 1;
    EXPECT_EQ(copy("src", "dst").out, ">>> Copying " + at("src") + " to " + at("dst") + "\n");
    gState.verbose = 0;
    EXPECT_EQ(readFile("dst"), content);
    EXPECT_EQ(modeOf("dst"), 0751u);

    writeFile("empty", "", 0604);
    EXPECT_EQ(copy("empty", "fresh").result, 0);
    EXPECT_EQ(readFile("fresh"), "");
    EXPECT_EQ(modeOf("fresh"), 0604u);

    // A copied script still runs.
    writeFile("tool", "#!/bin/sh\necho it runs\n", 0755);
    EXPECT_EQ(copy("tool", "tool2").result, 0);
    char command[1024];
    ASSERT_EQ(formatShellCommand(command, sizeof(command), "%s >%s", at("tool2").c_str(), at("out").c_str()), 0);
    EXPECT_EQ(runShell(command), 0);
    EXPECT_EQ(readFile("out"), "it runs\n");
}

TEST_F(FileUtilTest, CopyFailuresAreReportedWithTheirPath) {
    writeFile("src", "data", 0644);
    writeFile("secret", "hidden", 0600);
    makeDir("open", 0777);
    makeDir("closed", 0755);
    makeDir("sub", 0755);
    writeFile("open/theirs", "old", 0666);   // writable, but its mode belongs to root
    writeFile("big", std::string(30000, 'b'), 0666);
    const struct {
        std::string from, to;
        bool asNobody;
        int result;
        std::string out;
    } rows[] = {
        {"missing", "dst", false, 1, message("Insufficient read access to " + at("missing") + ".")},
        {"secret", "open/copy", true, 1, message("Insufficient read access to " + at("secret") + ".")},
        {"src", "closed/copy", true, 1, message("Insufficient write access to " + at("closed/copy") + ".")},
        {"src", "sub", false, 1, message("Cannot open copy destination file " + at("sub") + ".")},
        {"big", "/dev/full", false, 1, message("Cannot write to /dev/full from " + at("big") + ". Please check disk space.")},
        {"src", "open/theirs", true, 0, message("Warning: Cannot set permission bits for " + at("open/theirs") + ".")},
        {"src", "open/mine", true, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.from + " -> " + row.to);
        Outcome outcome = copy(row.from, row.to, row.asNobody);
        EXPECT_EQ(outcome.result, row.result);
        EXPECT_EQ(outcome.out, row.out);
    }
    EXPECT_EQ(readFile("dst") + readFile("open/copy") + readFile("closed/copy"), "<missing><missing><missing>");
    EXPECT_EQ(readFile("open/theirs"), "data");
    EXPECT_EQ(modeOf("open/theirs"), 0666u);
    EXPECT_EQ(readFile("open/mine"), "data");
}

TEST_F(FileUtilTest, MakeDirectoryTreeCreatesTheMissingParents) {
    makeDir("a", 0755);
    writeFile("file", "x");
    mode_t old = umask(022);
    std::string ab = at("a/b/c"), xy = at("x/y/"), blocked = at("file/sub/deeper");
    EXPECT_EQ(runOp([&] { return makeDirectoryTree(ab.c_str()) + makeDirectoryTree(xy.c_str()) +
                                 makeDirectoryTree("") + makeDirectoryTree("/"); }).out, "");
    umask(old);
    EXPECT_EQ(modeOf("a/b"), 0755u);
    EXPECT_EQ(modeOf("a/b/c"), 0755u);
    EXPECT_EQ(modeOf("x/y"), 0755u);
    // It stops at the first directory that cannot be made.
    Outcome failed = runOp([&] { return makeDirectoryTree(blocked.c_str()); });
    EXPECT_EQ(failed.result, 1);
    EXPECT_EQ(failed.out, message("Cannot create directory " + at("file/sub") + "."));
}

TEST_F(FileUtilTest, EnsureDirectoryAsksBeforeCreating) {
    makeDir("here", 0755);
    writeFile("plain", "x");
    std::string here = at("here/"), wanted = at("new/tree/"), quiet = at("quiet/one/"), bad = at("plain/sub/");
    const std::string question = "Directory " + wanted + " does not exist. Create [Y]? ";
    FILE* input = tmpfile();
    fputs("no\n\n", input);
    rewind(input);
    gConsoleIn = input;
    Outcome asked = runOp([&] {
        // an existing one is not asked for; "no", then the default Y, then end of input
        return ensureDirectory(here.c_str(), 1) * 1 + ensureDirectory(wanted.c_str(), 1) * 2 +
               ensureDirectory(wanted.c_str(), 1) * 4 + ensureDirectory(at("never").c_str(), 1) * 8;
    });
    gConsoleIn = nullptr;
    fclose(input);
    EXPECT_EQ(asked.result, 2 + 8);
    EXPECT_EQ(asked.out, question + question + "Directory " + at("never") + " does not exist. Create [Y]? ");
    EXPECT_NE(modeOf("new/tree"), 0u);
    EXPECT_EQ(modeOf("never"), 0u);

    // Without asking; a directory that cannot be made is reported but not a failure.
    Outcome quietly = runOp([&] { return ensureDirectory(quiet.c_str(), 0) + ensureDirectory(bad.c_str(), 0); });
    EXPECT_EQ(quietly.result, 0);
    EXPECT_EQ(quietly.out, message("Cannot create directory " + at("plain/sub") + "."));
    EXPECT_NE(modeOf("quiet/one"), 0u);
}
