// File copy and directory utilities: the failures a run does not provoke. Access failures are
// provoked as uid/gid 65534 in a child process, since root passes every access() check.
#include "installer/fileutil.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "installer/console.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

// Runs op in a child process, as user and group 65534 when asked to: "<result>:<its output>".
std::string runOp(const std::function<int32_t()>& op, bool asNobody = false) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        if (asNobody && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) _exit(99);
        int32_t result = op();
        fflush(stdout);
        _exit(result & 0x7f);
    }
    close(fds[1]);
    std::string out;
    char block[1024];
    for (ssize_t n; (n = read(fds[0], block, sizeof(block))) > 0;) out.append(block, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + ":" + out;
}

class FileUtilTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        char pattern[] = "/tmp/fileutil_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        chmod(dir.c_str(), 0755);  // searchable by the unprivileged child
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0); }
    std::string at(const std::string& name) const { return dir + "/" + name; }
    void put(const std::string& name, const std::string& content, mode_t mode = 0644) {
        ASSERT_TRUE(std::ofstream(at(name), std::ios::binary) << content);
        ASSERT_EQ(chmod(at(name).c_str(), mode), 0);
    }
    void makeDir(const std::string& name, mode_t mode = 0755) {
        ASSERT_TRUE(mkdir(at(name).c_str(), 0700) == 0 && chmod(at(name).c_str(), mode) == 0) << name;
    }
    std::string content(const std::string& name) {
        std::ifstream in(at(name), std::ios::binary);
        return in ? std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()) : "<missing>";
    }
    mode_t modeOf(const std::string& name) {
        struct stat info;
        return stat(at(name).c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
    }
    std::string dir;
};

std::string message(const std::string& text) { return "Corvane Install: " + text + "\n"; }

TEST_F(FileUtilTest, CopyKeepsContentAndModeOrReportsWhatFailed) {
    std::string data;
    for (int i = 0; i < 25000; i++) data += static_cast<char>((i * 7 + i / 251) & 0xff);
    put("src", data, 0754);
    put("dst", std::string(40000, 'o'), 0600);  // an older, longer file is replaced
    put("empty", "", 0604);
    put("secret", "hidden", 0600);
    makeDir("open", 0777);
    makeDir("closed");
    put("open/theirs", "old", 0666);  // writable, but its mode belongs to root
    const struct { std::string from, to; bool asNobody; std::string out; } rows[] = {
        {"src", "dst", false, "0:"}, {"empty", "fresh", false, "0:"},
        {"missing", "x", false, "1:" + message("Insufficient read access to " + at("missing") + ".")},
        {"secret", "open/copy", true, "1:" + message("Insufficient read access to " + at("secret") + ".")},
        {"src", "closed/copy", true, "1:" + message("Insufficient write access to " + at("closed/copy") + ".")},
        {"src", "open", false, "1:" + message("Cannot open copy destination file " + at("open") + ".")},
        {"src", "/dev/full", false, "1:" + message("Cannot write to /dev/full from " + at("src") + ". Please check disk space.")},
        {"src", "open/theirs", true, "0:" + message("Warning: Cannot set permission bits for " + at("open/theirs") + ".")},
        {"src", "open/mine", true, "0:"},
    };
    for (const auto& row : rows) {
        std::string from = at(row.from), to = row.to[0] == '/' ? row.to : at(row.to);
        EXPECT_EQ(runOp([&] { return copyFile(from.c_str(), to.c_str()); }, row.asNobody), row.out) << row.to;
    }
    EXPECT_TRUE(content("dst") == data && modeOf("dst") == 0754 && content("fresh").empty() && modeOf("fresh") == 0604);
    EXPECT_EQ(content("x") + content("open/copy") + content("closed/copy"), "<missing><missing><missing>");
    EXPECT_TRUE(content("open/theirs") == data && modeOf("open/theirs") == 0666 && content("open/mine") == data);
}

TEST_F(FileUtilTest, DirectoryTreesAndTheQuestionBeforeCreating) {
    const std::pair<const char*, const char*> parents[] = {
        {"/a/b/c", "/a/b/"}, {"/a", "/"}, {"relative/path", "relative/path"}, {"/", "/"}, {"/a/b/", "/a/b/"}, {"", ""}};
    for (const auto& row : parents) {
        char path[kPathSize];
        strCopyBounded(path, row.first, kPathSize);
        cutToParentDir(path);
        EXPECT_STREQ(path, row.second) << row.first;
    }
    makeDir("a");
    put("file", "x");
    mode_t old = umask(022);
    std::string abc = at("a/b/c"), xy = at("x/y/"), blocked = at("file/sub/deeper");
    EXPECT_EQ(runOp([&] { return makeDirectoryTree(abc.c_str()) + makeDirectoryTree(xy.c_str()) +
                                 makeDirectoryTree("") + makeDirectoryTree("/"); }), "0:");
    umask(old);
    EXPECT_TRUE(modeOf("a/b") == 0755 && modeOf("a/b/c") == 0755 && modeOf("x/y") == 0755);
    // It stops at the first directory that cannot be made.
    EXPECT_EQ(runOp([&] { return makeDirectoryTree(blocked.c_str()); }),
              "1:" + message("Cannot create directory " + at("file/sub") + "."));

    // An existing one is not asked for; "no", then the default Y, then end of input.
    std::string here = at("a/"), wanted = at("new/tree/"), never = at("never"), bad = at("file/sub/");
    FILE* input = tmpfile();
    fputs("no\n\n", input);
    rewind(input);
    gConsoleIn = input;
    const std::string question = "Directory " + wanted + " does not exist. Create [Y]? ";
    EXPECT_EQ(runOp([&] {
                  return ensureDirectory(here.c_str(), 1) * 1 + ensureDirectory(wanted.c_str(), 1) * 2 +
                         ensureDirectory(wanted.c_str(), 1) * 4 + ensureDirectory(never.c_str(), 1) * 8;
              }),
              "10:" + question + question + "Directory " + never + " does not exist. Create [Y]? ");
    gConsoleIn = nullptr;
    fclose(input);
    EXPECT_TRUE(modeOf("new/tree") != 0 && modeOf("never") == 0);
    // Without asking; a directory that cannot be made is reported but not a failure.
    std::string quiet = at("quiet/one/");
    EXPECT_EQ(runOp([&] { return ensureDirectory(quiet.c_str(), 0) + ensureDirectory(bad.c_str(), 0); }),
              "0:" + message("Cannot create directory " + at("file/sub") + "."));
    EXPECT_NE(modeOf("quiet/one"), 0u);
}

}  // namespace
