// The message file service: lookup, argument markers and the override. Damaged files are the
// message fuzzer's, and missing ones the end-to-end tests'.
#include "runtime/message.h"
#include "tests/scratchdir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// 32-bit little-endian words followed by raw bytes.
std::string words(const std::vector<int64_t>& values, const std::string& tail = "") {
    std::string b;
    for (int64_t v : values)
        for (int i = 0; i < 4; i++) b += char(uint32_t(v) >> (8 * i));
    return b + tail;
}

// A well-formed message file: entries in the given order, texts laid out behind the table.
std::string messageFile(const std::vector<std::pair<int32_t, std::string>>& entries) {
    std::vector<int64_t> table = {4386, 8 + 8 * int64_t(entries.size()) + 8};
    std::string texts;
    for (const auto& e : entries) {
        table.insert(table.end(), {e.first, int64_t(texts.size())});
        texts += e.second + '\0';
    }
    table.insert(table.end(), {0, -1});
    return words(table, texts);
}

TEST(MessageTest, LookupMarkersAndOverride) {
    ScratchDir dir("msgtest");
    const std::string path = dir.at("test.cvb");
    std::ofstream(path, std::ios::binary) << messageFile({
        {0, "Error"},
        {-12, "a%sxb"},
        {-13, "100%%"},
        {-15, "%s0 and %s9"},
        {-16, "ends in %s"},
        {-17, "%d %s1"},
    });
    setMessageFile((dir.path() + "/").c_str(), "test.cvb");
    reloadMessageFile();
    const int kKeep = -1;  // slot value: leave the arguments as they are
    const struct {
        int slot;
        int32_t code;
        const char *arg, *text;
    } rows[] = {
        // A positive code gives code 0's text; markers without a valid index say so; slots 0 and 9 are
        // the first and last, 10 is ignored.
        {kKeep, 1, "", "Error"},
        {kKeep, -12, "", "a%s<index> index too largeb"},
        {kKeep, -13, "", "100%"},
        {0, -15, "zero", "zero and "},
        {9, -15, "nine", "zero and nine"},
        {10, -15, "ignored", "zero and nine"},
        {kKeep, -16, "", "ends in %s<index> index too large"},
        {1, -17, nullptr, "%d (null)"},  // a lone "%" stays; a null argument is said so
        {kKeep, -14, "", "Error"},       // a gap in the table
        {kKeep, -99, "", "Error"},       // beyond the table
    };
    for (const auto& r : rows) {
        if (r.slot != kKeep) setMessageArg(uint32_t(r.slot), r.arg);
        EXPECT_STREQ(getMessage(r.code), r.text) << r.code;
    }
    setMessageOverride(-2, "busy %s1 100%%");  // given verbatim
    EXPECT_STREQ(getMessage(-2), "busy %s1 100%%");
    setMessageOverride(1, "");
    char program[512];
    EXPECT_EQ(getProgramDirectory(program, path.c_str()), int32_t(dir.path().size()) + 1);
    EXPECT_EQ(std::string(program), dir.path() + "/");
}

}  // namespace
