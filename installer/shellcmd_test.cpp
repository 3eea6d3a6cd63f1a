// Shell commands: ordinary paths come out as plain text, any other text is quoted so that it
// stays the one argument it is, and a command that does not fit is refused. That such names
// reach the programs whole, and run nothing, the installations into odd directories show.
#include "installer/shellcmd.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

TEST(ShellCommand, QuotingLimitsAndStatus) {
    const struct {
        int32_t size;
        const char *format, *arg, *expected;
    } rows[] = {
        {512, "tar xf - -C %s", "/opt/cv-10.0/a_b+c,d:e=f@g%h", "tar xf - -C /opt/cv-10.0/a_b+c,d:e=f@g%h"},
        {512, "echo 100%% %s", "done", "echo 100% done"},
        {512, "ls %s -l", "", "ls  -l"},
        // Nothing is special inside "...".
        {512, "touch \"%s\"", "/opt/my dir/it's", "touch \"/opt/my dir/it's\""},
        {512, "cat %s", "/a b", "cat '/a b'"},
        {512, "cat %s", "it's", "cat 'it'\\''s'"},
        {512, "cat \"%s\"", "/x/$HOME", "cat '/x/$HOME'"},
        {512, "cat \"%s\"", "it's $x", "cat 'it'\\''s $x'"},
        {512, "cat %s", "a\\b\nc`d`;e*", "cat 'a\\b\nc`d`;e*'"},
        {512, "cat %s%%s", "-x", "cat -x%s"},
        // Exactly filling the buffer still fits; one more character does not. The quoting counts.
        {16, "more %s", "/a/very/long/path/name", ""},
        {6, "cat %s", "x", "cat x"},
        {5, "cat %s", "x", ""},
        {8, "cat %s", "a b", ""},
        {9, "cat \"%s\"", "$ab", ""},
        {10, "cat \"%s\"", "$ab", "cat '$ab'"},
    };
    for (const auto& row : rows) {
        char out[512] = "old";
        EXPECT_EQ(formatShellCommand(out, row.size, row.format, row.arg), *row.expected ? 0 : 1)
            << row.expected;
        EXPECT_STREQ(out, row.expected);
    }
}
