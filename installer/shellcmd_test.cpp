// Shell commands: ordinary paths come out as plain text, any other text still reaches the
// program as the one argument it is (checked through /bin/sh), and a command that does not fit
// is refused.
#include "installer/shellcmd.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

TEST(ShellCommand, QuotingLimitsAndStatus) {
    const struct { int32_t size; const char *format, *arg, *expected; } rows[] = {
        {512, "tar xf - -C %s", "/opt/corvane-10.0/a_b+c,d:e=f@g%h", "tar xf - -C /opt/corvane-10.0/a_b+c,d:e=f@g%h"},
        {512, "echo 100%% %s", "done", "echo 100% done"}, {512, "ls %s -l", "", "ls  -l"},
        {512, "touch \"%s\"", "/opt/my dir/it's", "touch \"/opt/my dir/it's\""},  // nothing special inside "..."
        {512, "cat %s", "/a b", "cat '/a b'"}, {512, "cat %s", "it's", "cat 'it'\\''s'"},
        {512, "cat \"%s\"", "/x/$HOME", "cat '/x/$HOME'"}, {512, "cat \"%s\"", "it's $x", "cat 'it'\\''s $x'"},
        // Exactly filling the buffer still fits; one more character does not. The quoting counts.
        {16, "more %s", "/a/very/long/path/name", ""}, {6, "cat %s", "x", "cat x"}, {5, "cat %s", "x", ""},
        {8, "cat %s", "a b", ""}, {9, "cat \"%s\"", "$ab", ""}, {10, "cat \"%s\"", "$ab", "cat '$ab'"},
    };
    for (const auto& row : rows) {
        char out[512] = "old";
        EXPECT_EQ(formatShellCommand(out, row.size, row.format, row.arg), *row.expected ? 0 : 1) << row.expected;
        EXPECT_STREQ(out, row.expected);
    }
    // The commands run in a directory of their own, where a "touch PWNED" that got through lands.
    char here[4096], tmpl[] = "/tmp/cvinst-shell.XXXXXX";
    ASSERT_TRUE(getcwd(here, sizeof here) && mkdtemp(tmpl) && chdir(tmpl) == 0);
    for (const std::string text : {"double\"quote", "single'quote", "back`touch PWNED`tick", "back\\slash",
                                   "semi;touch PWNED", "new\nline", "$(touch PWNED)", "star*", "-leading dash",
                                   "amp&and|pipe", "it's \"all\" $x `y` \\z;", "  trailing  ", "%d %s %%", ""}) {
        // Bare, within a quoted span of the format, and composed with another text in one span.
        char command[1024];
        ASSERT_EQ(formatShellCommand(command, sizeof(command), "printf '[%%s]' %s; printf '%%s' '<%s>' \"%s/%s\"",
                                     text.c_str(), text.c_str(), text.c_str(), "it's"), 0);
        FILE* pipe = openShellPipe(command, "r");
        std::string out;
        char block[1024];
        for (size_t count; (count = fread(block, 1, sizeof(block), pipe)) > 0;) out.append(block, count);
        closeShellPipe(pipe);
        EXPECT_EQ(out, "[" + text + "]<" + text + ">" + text + "/it's") << command;
    }
    struct stat info;
    EXPECT_NE(stat("PWNED", &info), 0);
    EXPECT_EQ(chdir(here) + system(("rm -rf " + std::string(tmpl)).c_str()), 0);
    int status = runShell("exit 3");
    EXPECT_TRUE(runShell("exit 0") == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 3);
}

}  // namespace
