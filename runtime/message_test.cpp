// Tests of the message file service: lookup, argument markers, the override, reloading, the
// service's own error texts, damaged files, and the program directory.
#include "runtime/message.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

// 32-bit little-endian words followed by raw bytes.
Bytes words(const std::vector<int64_t>& values, const std::string& tail = "") {
    Bytes b;
    for (int64_t v : values)
        for (int i = 0; i < 4; i++) b.push_back(static_cast<unsigned char>(uint32_t(v) >> (8 * i)));
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
}

// A well-formed message file: entries in the given order, texts laid out behind the table.
Bytes messageFile(const std::vector<std::pair<int32_t, std::string>>& entries) {
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
    void TearDown() override { unlink(path().c_str()); rmdir(dir.c_str()); }
    void write(const Bytes& b) {
        std::ofstream out(path(), std::ios::binary);
        EXPECT_TRUE(out.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size())));
    }
    void load(const Bytes& b) { write(b); reloadMessageFile(); }
    std::string path() const { return dir + "test.cvb"; }
    std::string error(const char* what) const { return "Message file '" + path() + "' " + what; }

    std::string dir;
};

TEST_F(MessageTest, LooksUpCodesAndFallsBackToTheGenericText) {
    load(messageFile({{-5, "Access denied"}, {0, "Error"}, {-1, "one"}, {-2, "first"}, {-2, "File not found"},
                      {-2000000000, "huge"}, {INT32_MIN, "min"}, {-100001, "too low"}, {-100000, "lowest"},
                      {7, "seven"}}));
    const std::pair<int32_t, const char*> rows[] = {
        {-2, "File not found"},  // the later of two entries wins
        {-5, "Access denied"}, {0, "Error"},         {-3, "Error"},  // a gap
        {5, "Error"},          {INT32_MIN, "Error"}, {-100001, "Error"},  // positive, beyond the table
        {-2000000000, "Error"}, {-100000, "lowest"}, {7, "Error"},   {-7, "Error"},
    };
    for (const auto& r : rows) EXPECT_STREQ(getMessage(r.first), r.second) << r.first;
}

TEST_F(MessageTest, SubstitutesMarkersWithArguments) {
    load(messageFile({{0, "Error"}, {-1, "[%s1]"}, {-2, "a%sxb"}, {-3, "100%%"}, {-4, "%d stays"},
                      {-5, "%s0 and %s9"}, {-6, "ends in %s"}, {-7, "ends in %"}, {-8, "%%s1 %x"}}));
    const int kKeep = -1;  // slot value: leave the arguments as they are
    const struct { int slot; const char* arg; int32_t code; const char* text; } rows[] = {
        {kKeep, "", -1, "[]"},  // never set
        {1, nullptr, -1, "[(null)]"},
        {1, "file.txt", -1, "[file.txt]"},
        {kKeep, "", -1, "[file.txt]"},  // slots keep their value
        {kKeep, "", -2, "a%s<index> index too largeb"},
        {kKeep, "", -3, "100%"},
        {kKeep, "", -4, "%d stays"},
        {0, "zero", -5, "zero and "},
        {9, "nine", -5, "zero and nine"},
        {10, "ignored", -5, "zero and nine"},
        {kKeep, "", -6, "ends in %s<index> index too large"},
        {kKeep, "", -7, "ends in %"},
        {kKeep, "", -8, "%s1 %x"},
    };
    for (const auto& r : rows) {
        if (r.slot != kKeep) setMessageArg(uint32_t(r.slot), r.arg);
        EXPECT_STREQ(getMessage(r.code), r.text) << r.code;
    }
    setMessageArg(1, std::string(700, 'q').c_str());
    EXPECT_EQ(getMessage(-1), "[" + std::string(511, 'q') + "]");
}

TEST_F(MessageTest, OverrideAppliesToNegativeCodesOnly) {
    load(messageFile({{0, "Error"}, {-2, "File not found"}}));
    setMessageOverride(1, "one");  // the initial code: nothing is overridden
    EXPECT_STREQ(getMessage(1), "Error");
    setMessageOverride(5, "five");
    EXPECT_STREQ(getMessage(5), "Error");
    setMessageOverride(-2, "busy %s1 100%%");
    setMessageArg(1, "x");
    EXPECT_STREQ(getMessage(-2), "busy %s1 100%%");  // verbatim
    EXPECT_STREQ(getMessage(-3), "Error");
}

TEST_F(MessageTest, ReloadReadsTheFileAgain) {
    load(messageFile({{0, "Error"}, {-2, "old"}}));
    EXPECT_STREQ(getMessage(-2), "old");
    write(messageFile({{0, "Error"}, {-2, "new"}}));
    EXPECT_STREQ(getMessage(-2), "old");  // kept in memory
    reloadMessageFile();
    EXPECT_STREQ(getMessage(-2), "new");
    // A shorter table after a longer one: old slots do not survive.
    load(messageFile({{0, "Error"}, {-9, "nine"}}));
    EXPECT_STREQ(getMessage(-9), "nine");
    load(messageFile({{0, "Error"}}));
    EXPECT_STREQ(getMessage(-9), "Error");
}

TEST_F(MessageTest, ErrorTextsOfTheServiceItself) {
    // A missing file is retried on every call.
    std::string cannotOpen = "Unable to open message file '" + path() + "' not found";
    EXPECT_EQ(getMessage(-2), cannotOpen);
    EXPECT_EQ(getMessage(-2), cannotOpen);
    write(messageFile({{0, "Error"}, {-2, "File not found"}}));
    EXPECT_STREQ(getMessage(-2), "File not found");
    // A wrong first word is reported once; then the file counts as empty until a reload.
    Bytes bad = messageFile({{0, "Error"}});
    bad[0] = 0x21;
    load(bad);
    EXPECT_EQ(getMessage(-2), error("not valid"));
    EXPECT_EQ(getMessage(-2), error("empty"));
    write(messageFile({{0, "Error"}}));
    EXPECT_EQ(getMessage(0), error("empty"));
    reloadMessageFile();
    EXPECT_STREQ(getMessage(0), "Error");
    // Without a text for code 0 the codes without one of their own answer empty.
    load(messageFile({{-2, "File not found"}}));
    EXPECT_STREQ(getMessage(-2), "File not found");
    EXPECT_EQ(getMessage(-3), error("empty"));
    EXPECT_EQ(getMessage(3), error("empty"));
    // The text is cut to fit its 100-byte buffer.
    setMessageFile((dir + std::string(300, 'd') + "/").c_str(), "test.cvb");
    reloadMessageFile();
    std::string text = getMessage(-2);
    EXPECT_EQ(text.size(), 99u);
    EXPECT_EQ(text.rfind("Unable to open message file '" + dir + "ddd", 0), 0u);
}

TEST_F(MessageTest, DamagedFilesAreReadWithinTheirBounds) {
    const Bytes good = messageFile({{0, "Error"}, {-2, "File not found"}});
    auto withoutLastNul = [](Bytes b) { b.pop_back(); return b; };
    auto withTextBase = [&](uint32_t base) {
        Bytes b = good;
        for (int i = 0; i < 4; i++) b[4 + i] = static_cast<unsigned char>(base >> (8 * i));
        return b;
    };
    // Text offsets past the end, one of them far beyond.
    const Bytes outside = words({4386, 40, 0, 0, -2, 1000, -3, 0x7FFFFFF0, 0, -1}, std::string("Error\0", 6));
    // No terminator, the file ends inside the third entry; texts are read from the table area.
    const Bytes unterminated = words({4386, 8, 0, 16, -2, 16}, "abc");
    const struct { const char* what; Bytes bytes; int32_t code; std::string text; } rows[] = {
        {"two bytes", Bytes{0x22, 0x11}, -2, error("not valid")},
        {"no text base", Bytes{0x22, 0x11, 0, 0, 8}, -2, error("empty")},
        {"empty file", Bytes{}, -2, error("not valid")},
        {"text past the end", outside, -2, "Error"},
        {"text far beyond the end", outside, -3, "Error"},
        {"text inside", outside, 0, "Error"},
        {"text base past the end", withTextBase(0x7FFFFFF0), -2, error("empty")},
        {"negative text base", withTextBase(0x80000000u), -2, error("empty")},
        {"no terminator", unterminated, 0, "abc"},
        {"no terminator, second entry", unterminated, -2, "abc"},
        {"last text without NUL", withoutLastNul(good), -2, "File not found"},
        {"lone % at the end", withoutLastNul(messageFile({{0, "Error"}, {-2, "50%"}})), -2, "50%"},
        {"%s at the end", withoutLastNul(messageFile({{0, "Error"}, {-2, "50%s"}})), -2,
         "50%s<index> index too large"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        load(r.bytes);
        EXPECT_EQ(getMessage(r.code), r.text);
    }
}

TEST(ProgramDirectory, FollowsLinksAndSearchesPath) {
    char tmpl[] = "/tmp/progdirXXXXXX";
    char real[PATH_MAX];
    ASSERT_TRUE(mkdtemp(tmpl) && realpath(tmpl, real));
    std::string root = tmpl, realRoot = real;
    ASSERT_EQ(mkdir((root + "/real").c_str(), 0777), 0);
    ASSERT_EQ(mkdir((root + "/links").c_str(), 0777), 0);
    ASSERT_EQ(close(creat((root + "/real/prog").c_str(), 0700)), 0);
    ASSERT_EQ(symlink((root + "/real/prog").c_str(), (root + "/links/prog").c_str()), 0);

    char out[512];
    EXPECT_EQ(getProgramDirectory(out, (root + "/links/prog").c_str()), int32_t(realRoot.size() + 6));
    EXPECT_EQ(std::string(out), realRoot + "/real/");
    // A bare name is searched along PATH.
    const char* old = getenv("PATH");
    std::string saved = old ? old : "";
    setenv("PATH", ("/nonexistent:" + root + "/links").c_str(), 1);
    out[0] = 0;
    getProgramDirectory(out, "prog");
    if (old) setenv("PATH", saved.c_str(), 1);
    else unsetenv("PATH");
    EXPECT_EQ(std::string(out), realRoot + "/real/");
    for (const char* p : {"/links/prog", "/real/prog", "/links", "/real", ""}) remove((root + p).c_str());
}

}  // namespace
