// Shell commands: ordinary paths come out as plain text, and any other path still reaches the
// program as the one argument it is, checked by running the commands through /bin/sh.
#include "installer/shellcmd.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string format1(const char* format, const char* arg) {
    char out[4096];
    EXPECT_EQ(formatShellCommand(out, sizeof(out), format, arg), 0);
    return out;
}

// Runs a command and returns everything it wrote to standard output.
std::string outputOf(const std::string& command) {
    FILE* pipe = openShellPipe(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    if (pipe == nullptr) return "";
    std::string out;
    char block[1024];
    size_t count;
    while ((count = fread(block, 1, sizeof(block), pipe)) > 0) out.append(block, count);
    closeShellPipe(pipe);
    return out;
}

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
    chmod(path.c_str(), mode);
}

// Names that mean something to the shell, one kind of trouble each.
const std::vector<std::string>& awkwardNames() {
    static const std::vector<std::string> names = {
        "with blank",   "double\"quote", "single'quote", "dollar$HOME", "back`id`tick",
        "back\\slash",  "semi;colon",    "new\nline",    "$(touch PWNED)", "star*",
        "-leading dash", "amp&and|pipe", "tab\there",    "it's \"all\" $x `y` \\z;",
    };
    return names;
}

class ShellCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/shellcmd_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override {
        char command[1024];
        if (formatShellCommand(command, sizeof(command), "rm -rf %s", dir.c_str()) == 0) runShell(command);
    }
    std::string dir;
};

}  // namespace

TEST(ShellCommandFormat, OrdinaryPathsGoInAsTheyStand) {
    EXPECT_EQ(format1("more %s", "/tmp/dist/license.txt"), "more /tmp/dist/license.txt");
    EXPECT_EQ(format1("tar xf - -C %s", "/opt/corvane-10.0/a_b+c,d:e=f@g%h"),
              "tar xf - -C /opt/corvane-10.0/a_b+c,d:e=f@g%h");
    EXPECT_EQ(format1("echo 100%% %s", "done"), "echo 100% done");
    EXPECT_EQ(format1("ls %s -l", ""), "ls  -l");
}

TEST(ShellCommandFormat, DoubleQuotedSpansStayAsWritten) {
    char out[512];
    ASSERT_EQ(formatShellCommand(out, sizeof(out), "\"%scvtw\" \"%s%s\" >/dev/null", "/opt/corvane/bin/",
                                 "/opt/corvane/macros/", "vi.e"),
              0);
    EXPECT_STREQ(out, "\"/opt/corvane/bin/cvtw\" \"/opt/corvane/macros/vi.e\" >/dev/null");
    // Blanks and single quotes mean nothing inside double quotes.
    EXPECT_EQ(format1("touch \"%s\"", "/opt/my dir/it's"), "touch \"/opt/my dir/it's\"");
}

TEST(ShellCommandFormat, OtherArgumentsAreSingleQuoted) {
    EXPECT_EQ(format1("cat %s", "/a b"), "cat '/a b'");
    EXPECT_EQ(format1("cat %s", "it's"), "cat 'it'\\''s'");
    EXPECT_EQ(format1("cat \"%s\"", "/x/$HOME"), "cat '/x/$HOME'");
    EXPECT_EQ(format1("cat \"%s\"", "it's $x"), "cat 'it'\\''s $x'");
}

TEST(ShellCommandFormat, TooLongEmptiesTheOutput) {
    char out[16];
    strcpy(out, "old");
    EXPECT_EQ(formatShellCommand(out, sizeof(out), "more %s", "/a/very/long/path/name"), 1);
    EXPECT_STREQ(out, "");
    // Exactly filling the buffer still fits; one more character does not.
    EXPECT_EQ(formatShellCommand(out, 8, "cat %s", "x"), 0);
    EXPECT_STREQ(out, "cat x");
    EXPECT_EQ(formatShellCommand(out, 6, "cat %s", "x"), 0);
    EXPECT_EQ(formatShellCommand(out, 5, "cat %s", "x"), 1);
    EXPECT_STREQ(out, "");
    // The quoting counts too.
    EXPECT_EQ(formatShellCommand(out, 8, "cat %s", "a b"), 1);
    EXPECT_EQ(formatShellCommand(out, 9, "cat \"%s\"", "$ab"), 1);
    EXPECT_EQ(formatShellCommand(out, 10, "cat \"%s\"", "$ab"), 0);
    EXPECT_STREQ(out, "cat '$ab'");
}

TEST_F(ShellCommandTest, CatReadsFilesWithAwkwardNames) {
    for (const std::string& name : awkwardNames()) {
        std::string path = dir + "/" + name;
        writeFile(path, "content of " + name);
        std::string command = format1("cat %s", path.c_str());
        EXPECT_EQ(outputOf(command), "content of " + name) << command;
        // Inside a double-quoted span of the format as well.
        command = format1("cat \"%s\"", path.c_str());
        EXPECT_EQ(outputOf(command), "content of " + name) << command;
    }
    EXPECT_FALSE(exists(dir + "/PWNED"));
    EXPECT_FALSE(exists("PWNED"));
}

TEST_F(ShellCommandTest, PrintfGetsExactlyTheText) {
    std::vector<std::string> texts = awkwardNames();
    texts.push_back("  leading and trailing  ");
    texts.push_back("%d %s %%");
    texts.push_back("");
    for (const std::string& text : texts) {
        char command[1024];
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "printf '[%%s]' %s", text.c_str()), 0);
        // An empty text adds no word at all; printf then fills "%s" with nothing.
        EXPECT_EQ(outputOf(command), "[" + text + "]") << command;
        // A single-quoted span of the format keeps the text whole too.
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "printf '%%s' '<%s>'", text.c_str()), 0);
        EXPECT_EQ(outputOf(command), "<" + text + ">") << command;
    }
}

TEST_F(ShellCommandTest, ASemicolonInANameRunsNothingElse) {
    std::string victim = dir + "/PWNED";
    std::string name = dir + "/x;touch " + victim;
    std::string command = format1("cat %s 2>/dev/null", name.c_str());
    EXPECT_NE(runShell(command.c_str()), 0);   // cat finds no such file
    EXPECT_FALSE(exists(victim)) << command;

    command = format1("cat \"%s\" 2>/dev/null", (dir + "/$(touch " + victim + ")").c_str());
    runShell(command.c_str());
    command = format1("cat \"%s\" 2>/dev/null", (dir + "/`touch " + victim + "`").c_str());
    runShell(command.c_str());
    EXPECT_FALSE(exists(victim));
}

TEST_F(ShellCommandTest, QuotedProgramAndArgumentWithAwkwardDirectories) {
    // A stand-in translator that records the argument it was given.
    std::string record = dir + "/record";
    setenv("CVTW_RECORD", record.c_str(), 1);
    const std::vector<std::pair<std::string, std::string>> layouts = {
        {"plain/bin/", "plain/macros/"},
        {"b $x `id`/bin/", "m \"q\" 'r'\\/macros/"},
        {"semi;colon $(touch PWNED)/bin/", "new\nline/macros/"},
    };
    for (const auto& layout : layouts) {
        std::string binDir = dir + "/" + layout.first;
        std::string macrosDir = dir + "/" + layout.second;
        char mkdirs[2048];
        ASSERT_EQ(formatShellCommand(mkdirs, sizeof(mkdirs), "mkdir -p %s %s", binDir.c_str(), macrosDir.c_str()), 0);
        ASSERT_EQ(runShell(mkdirs), 0) << mkdirs;
        writeFile(binDir + "cvtw", "#!/bin/sh\nprintf '%s' \"$1\" > \"$CVTW_RECORD\"\necho noise\n", 0755);
        unlink(record.c_str());

        char command[2048];
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "\"%scvtw\" \"%s%s\" >/dev/null", binDir.c_str(),
                                     macrosDir.c_str(), "it's.e"),
                  0);
        EXPECT_EQ(runShell(command), 0) << command;
        FILE* f = fopen(record.c_str(), "rb");
        ASSERT_NE(f, nullptr) << command;
        char got[1024] = "";
        size_t count = fread(got, 1, sizeof(got) - 1, f);
        got[count] = '\0';
        fclose(f);
        EXPECT_EQ(std::string(got), macrosDir + "it's.e") << command;
    }
    unsetenv("CVTW_RECORD");
    EXPECT_FALSE(exists(dir + "/PWNED"));
    EXPECT_FALSE(exists("PWNED"));
}

TEST_F(ShellCommandTest, RunShellReturnsTheStatus) {
    EXPECT_EQ(runShell("exit 0"), 0);
    int status = runShell("exit 3");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}
