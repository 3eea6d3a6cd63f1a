// The message file source and binary forms that cvbc compiles and dumps.
#include "tools/cvbc/msgfile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

// Code and text of each entry, "code:text", for comparing entry lists in one go.
Strings summary(const std::vector<MsgEntry>& entries) {
    Strings out;
    for (const MsgEntry& e : entries) out.push_back(std::to_string(e.code) + ":" + e.text);
    return out;
}

TEST(MessageSource, ReportsBadLinesAndReadsBack) {
    std::vector<MsgEntry> entries, read;
    Strings errors;
    const std::string bad =
        "0\tGeneric\nabc\tnot a code\n-2 no tab\n1\tpositive\n-2\tfirst\n# comment\n-2\tagain\n"
        "-9\tbad \\q escape\n-10\ttrailing \\\n-11\t\\x4\n-12\t\\x00\n-100001\ttoo low\n"
        "99999999999\tpositive\n99999999999999999999\tx\n-4\tfine\n-3\n";
    EXPECT_FALSE(parseMessageSource(bad, entries, errors));
    const Strings reported = {
        "line 2: code 'abc' is not a number",
        "line 3: code '-2 no tab' is not a number",
        "line 4: code 1 is positive; codes are 0 or negative",
        "line 7: code -2 already given on line 5",
        "line 8: unknown escape \\q",
        "line 9: backslash at the end of the text (write \\\\ for a backslash)",
        "line 10: \\x needs two hex digits",
        "line 11: a text cannot hold a NUL byte",
        "line 12: code -100001 is below -100000",
        "line 13: code 99999999999 is positive; codes are 0 or negative",
        "line 14: code '99999999999999999999' is not a number",
        "line 16: a TAB must separate the code from its text",
    };
    EXPECT_EQ(errors, reported);

    // Source and binary forms read back unchanged; every byte of a code counts.
    const std::vector<MsgEntry> in = {
        {-5, "five", 0},
        {0, "Generic", 0},
        {-3, "", 0},
        {-4, "# not a comment", 0},
        {-2, "back\\slash\nnew\tline\r\x01\x1a\x1f\x7f end ", 0},
        {-6, "caf\xc3\xa9 100%% %s1", 0},
        {-100000, "lowest", 0},
    };
    errors.clear();
    ASSERT_TRUE(parseMessageSource(formatMessageSource(in), entries, errors));
    EXPECT_EQ(summary(entries), summary(in));
    std::string error;
    ASSERT_TRUE(readMessageFile(buildMessageFile(in), read, error));
    EXPECT_EQ(summary(read), summary(in));
    const std::vector<unsigned char> good = buildMessageFile({{0, "E", 0}, {-2, "Nf", 0}});
    // Damaged copies of a file whose texts lie behind the table: code 0 at 0, code -2 at 2.
    const struct {
        size_t at, size;
        unsigned char value;
        const char* error;
    } damages[] = {
        {4, 37, 200, "text area starts outside the file"},
    };
    for (const auto& d : damages) {
        std::vector<unsigned char> bytes(good.data(), good.data() + d.size);
        bytes[d.at] = d.value;
        EXPECT_FALSE(readMessageFile(bytes, read, error)) << d.error;
        EXPECT_EQ(error, d.error);
    }
}

}  // namespace
