// The message file service: lookup, argument markers, the override, reloading and damaged files.
#include "runtime/message.h"

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

class MessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/msgtestXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = std::string(tmpl) + "/";
        for (uint32_t i = 0; i < 10; i++) setMessageArg(i, "");
        setMessageOverride(1, "");
        setMessageFile(dir.c_str(), "test.cvb");
        reloadMessageFile();
    }
    void TearDown() override {
        unlink(path().c_str());
        rmdir(dir.c_str());
    }
    void write(const std::string& b) const { EXPECT_TRUE(std::ofstream(path(), std::ios::binary) << b); }
    void load(const std::string& b) const {
        write(b);
        reloadMessageFile();
    }
    std::string path() const { return dir + "test.cvb"; }
    std::string error(const char* what) const { return "Message file '" + path() + "' " + what; }
    std::string dir;
};

TEST_F(MessageTest, LookupMarkersOverrideAndReload) {
    load(messageFile({
        {-5, "Access denied"},
        {0, "Error"},
        {-1, "[%s1]"},
        {-2, "first"},
        {-2, "File not found"},
        {INT32_MIN, "min"},
        {-100001, "too low"},
        {-100000, "lowest"},
        {7, "seven"},
        {-12, "a%sxb"},
        {-13, "100%%"},
        {-14, "%d stays"},
        {-15, "%s0 and %s9"},
        {-16, "ends in %s"},
    }));
    const int kKeep = -1;  // slot value: leave the arguments as they are
    const struct {
        int slot;
        int32_t code;
        const char *arg, *text;
    } rows[] = {
        // The later of two entries wins; a gap, positive codes and codes below -100000 give code 0's text;
        // an argument never set is empty.
        {kKeep, -2, "", "File not found"},
        {kKeep, -5, "", "Access denied"},
        {kKeep, -3, "", "Error"},
        {kKeep, 1, "", "Error"},
        {kKeep, 7, "", "Error"},
        {kKeep, INT32_MIN, "", "Error"},
        {kKeep, -100001, "", "Error"},
        {kKeep, -1, "", "[]"},
        {kKeep, -100000, "", "lowest"},
        {1, -1, nullptr, "[(null)]"},
        {1, -1, "file.txt", "[file.txt]"},
        {kKeep, -12, "", "a%s<index> index too largeb"},
        {kKeep, -13, "", "100%"},
        {kKeep, -14, "", "%d stays"},
        {0, -15, "zero", "zero and "},
        {9, -15, "nine", "zero and nine"},
        {10, -15, "ignored", "zero and nine"},
        {kKeep, -16, "", "ends in %s<index> index too large"},
    };
    for (const auto& r : rows) {
        if (r.slot != kKeep) setMessageArg(uint32_t(r.slot), r.arg);
        EXPECT_STREQ(getMessage(r.code), r.text) << r.code;
    }
    setMessageArg(1, std::string(700, 'q').c_str());
    EXPECT_EQ(getMessage(-1), "[" + std::string(511, 'q') + "]");
    setMessageOverride(-2, "busy %s1 100%%");  // given verbatim
    EXPECT_STREQ(getMessage(-2), "busy %s1 100%%");
    EXPECT_STREQ(getMessage(-3), "Error");

    write(messageFile({{0, "Error"}, {-1, "new"}}));
    EXPECT_STREQ(getMessage(-5), "Access denied");  // kept in memory until a reload
    reloadMessageFile();
    setMessageOverride(1, "");
    EXPECT_STREQ(getMessage(-1), "new");
    EXPECT_STREQ(getMessage(-5), "Error");  // no old slot survives
}

TEST_F(MessageTest, ErrorTextsOfTheServiceAndDamagedFiles) {
    const std::string good = messageFile({{0, "Error"}, {-2, "File not found"}});
    EXPECT_EQ(getMessage(-2), "Unable to open message file '" + path() + "' not found");
    write(good);
    EXPECT_STREQ(getMessage(-2), "File not found");  // retried on every call
    // A wrong first word is reported once; then the file counts as empty until a reload.
    load("\x21" + good.substr(1));
    EXPECT_EQ(getMessage(-2), error("not valid"));
    EXPECT_EQ(getMessage(0), error("empty"));
    // Text offsets past the end, one of them far beyond.
    const std::string outside =
        words({4386, 40, 0, 0, -2, 1000, -3, 0x7FFFFFF0, 0, -1}, std::string("Error\0", 6));
    // No terminator, the file ends inside the third entry; texts are read from the table area.
    const std::string unterminated = words({4386, 8, 0, 16, -2, 16}, "abc");
    const std::string farBase = good.substr(0, 4) + words({0x7FFFFFF0}) + good.substr(8);
    const struct {
        const char* what;
        std::string bytes;
        int32_t code;
        std::string text;
    } rows[] = {
        {"no text for 0", messageFile({{-2, "File not found"}}), -3, error("empty")},
        {"text past the end", outside, -2, "Error"},
        {"text far beyond the end", outside, -3, "Error"},
        {"text base past the end", farBase, -2, error("empty")},
        {"no terminator", unterminated, -2, "abc"},
        {"two bytes", "\x22\x11", -2, error("not valid")},
        {"last text without NUL", good.substr(0, good.size() - 1), -2, "File not found"},
    };
    for (const auto& r : rows) {
        load(r.bytes);
        EXPECT_EQ(getMessage(r.code), r.text) << r.what;
    }
}

}  // namespace
