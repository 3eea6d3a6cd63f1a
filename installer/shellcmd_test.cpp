// Shell commands: ordinary paths come out as plain text, and any other text still reaches the
// program as the one argument it is, checked by running the commands through /bin/sh.
#include "installer/shellcmd.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Runs a command and returns everything it wrote to standard output.
std::string outputOf(const std::string& command) {
    FILE* pipe = openShellPipe(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    if (pipe == nullptr) return "";
    std::string out;
    char block[1024];
    for (size_t count; (count = fread(block, 1, sizeof(block), pipe)) > 0;) out.append(block, count);
    closeShellPipe(pipe);
    return out;
}

TEST(ShellCommandFormat, OnlyWhatNeedsQuotingIsQuoted) {
    const struct {
        const char *format, *arg, *expected;
    } rows[] = {
        {"more %s", "/tmp/dist/license.txt", "more /tmp/dist/license.txt"},
        {"tar xf - -C %s", "/opt/corvane-10.0/a_b+c,d:e=f@g%h", "tar xf - -C /opt/corvane-10.0/a_b+c,d:e=f@g%h"},
        {"echo 100%% %s", "done", "echo 100% done"},
        {"ls %s -l", "", "ls  -l"},
        {"touch \"%s\"", "/opt/my dir/it's", "touch \"/opt/my dir/it's\""},   // nothing special inside "..."
        {"cat %s", "/a b", "cat '/a b'"},
        {"cat %s", "it's", "cat 'it'\\''s'"},
        {"cat \"%s\"", "/x/$HOME", "cat '/x/$HOME'"},
        {"cat \"%s\"", "it's $x", "cat 'it'\\''s $x'"},
    };
    for (const auto& row : rows) {
        char out[512];
        EXPECT_EQ(formatShellCommand(out, sizeof(out), row.format, row.arg), 0);
        EXPECT_STREQ(out, row.expected);
    }
}

TEST(ShellCommandFormat, TooLongEmptiesTheOutput) {
    char out[16] = "old";
    EXPECT_EQ(formatShellCommand(out, sizeof(out), "more %s", "/a/very/long/path/name"), 1);
    EXPECT_STREQ(out, "");
    // Exactly filling the buffer still fits; one more character does not. The quoting counts.
    EXPECT_EQ(formatShellCommand(out, 6, "cat %s", "x"), 0);
    EXPECT_STREQ(out, "cat x");
    EXPECT_EQ(formatShellCommand(out, 5, "cat %s", "x"), 1);
    EXPECT_EQ(formatShellCommand(out, 8, "cat %s", "a b"), 1);
    EXPECT_EQ(formatShellCommand(out, 9, "cat \"%s\"", "$ab"), 1);
    EXPECT_EQ(formatShellCommand(out, 10, "cat \"%s\"", "$ab"), 0);
    EXPECT_STREQ(out, "cat '$ab'");
}

TEST(ShellCommandRun, PrintfGetsExactlyTheText) {
    const std::vector<std::string> texts = {
        "with blank", "double\"quote", "single'quote", "dollar$HOME", "back`touch PWNED`tick",
        "back\\slash", "semi;colon", "semi;touch PWNED", "new\nline", "$(touch PWNED)", "star*", "-leading dash",
        "amp&and|pipe", "tab\there", "it's \"all\" $x `y` \\z;", "  leading and trailing  ", "%d %s %%", ""};
    for (const std::string& text : texts) {
        char command[1024];
        // An empty bare text adds no word at all; printf then fills "%s" with nothing.
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "printf '[%%s]' %s", text.c_str()), 0);
        EXPECT_EQ(outputOf(command), "[" + text + "]") << command;
        // Within quoted spans of the format, alone or composed with another text.
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "printf '%%s' '<%s>'", text.c_str()), 0);
        EXPECT_EQ(outputOf(command), "<" + text + ">") << command;
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "printf '%%s' \"%s/%s\"", text.c_str(), "it's"), 0);
        EXPECT_EQ(outputOf(command), text + "/it's") << command;
    }
    struct stat info;
    EXPECT_NE(stat("PWNED", &info), 0);
}

TEST(ShellCommandRun, RunShellReturnsTheStatus) {
    EXPECT_EQ(runShell("exit 0"), 0);
    int status = runShell("exit 3");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

}  // namespace
