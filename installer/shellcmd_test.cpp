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
        {512, "cat \"%s\"", "it's $x", "cat 'it'\\''s $x'"},
        // A command one character longer than the buffer does not fit; the quoting counts.
        {16, "more %s", "/a/very/long/path/name", ""},
        {5, "cat %s", "x", ""},
        {8, "cat %s", "a b", ""},
        {9, "cat \"%s\"", "$ab", ""},
    };
    for (const auto& row : rows) {
        char out[512] = "old";
        EXPECT_EQ(formatShellCommand(out, row.size, row.format, row.arg), *row.expected ? 0 : 1)
            << row.expected;
        EXPECT_STREQ(out, row.expected);
    }
}
