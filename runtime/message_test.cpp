#include "runtime/message.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

void putWord(Bytes& b, int64_t v) {
    uint32_t u = uint32_t(v);
    for (int i = 0; i < 4; i++) b.push_back(static_cast<unsigned char>(u >> (8 * i)));
}

// A well-formed message file: entries in the given order, texts laid out behind the table.
Bytes messageFile(const std::vector<std::pair<int32_t, std::string>>& entries) {
    Bytes b;
    putWord(b, 4386);
    putWord(b, 8 + 8 * int64_t(entries.size()) + 8);
    std::string texts;
    for (const auto& e : entries) {
        putWord(b, e.first);
        putWord(b, int64_t(texts.size()));
        texts += e.second;
        texts += '\0';
    }
    putWord(b, 0);
    putWord(b, -1);
    b.insert(b.end(), texts.begin(), texts.end());
    return b;
}

class MessageTest : public ::testing::Test {
protected:
    std::string dir;

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
        unlink((dir + "test.cvb").c_str());
        rmdir(dir.c_str());
    }

    void write(const Bytes& b) {
        FILE* f = std::fopen((dir + "test.cvb").c_str(), "wb");
        ASSERT_NE(f, nullptr);
        size_t written = b.empty() ? 0 : std::fwrite(b.data(), 1, b.size(), f);
        EXPECT_EQ(written, b.size());
        std::fclose(f);
    }

    void load(const std::vector<std::pair<int32_t, std::string>>& entries) {
        write(messageFile(entries));
        reloadMessageFile();
    }

    std::string path() const { return dir + "test.cvb"; }
};

TEST_F(MessageTest, LooksUpCodesGapsAndPositiveCodes) {
    load({{-5, "Access denied"}, {0, "Error"}, {-2, "File not found"}});
    EXPECT_STREQ(getMessage(-2), "File not found");
    EXPECT_STREQ(getMessage(-5), "Access denied");
    EXPECT_STREQ(getMessage(0), "Error");
    EXPECT_STREQ(getMessage(-3), "Error");       // gap
    EXPECT_STREQ(getMessage(-6), "Error");       // beyond the table
    EXPECT_STREQ(getMessage(-99999), "Error");   // far beyond
    EXPECT_STREQ(getMessage(5), "Error");        // positive
    EXPECT_STREQ(getMessage(INT32_MIN), "Error");
}

TEST_F(MessageTest, LaterDuplicateWins) {
    load({{0, "Error"}, {-2, "first"}, {-2, "second"}});
    EXPECT_STREQ(getMessage(-2), "second");
}

TEST_F(MessageTest, SubstitutesMarkers) {
    load({{0, "Error"},
          {-1, "[%s1]"},
          {-2, "a%sxb"},
          {-3, "100%%"},
          {-4, "%d stays"},
          {-5, "%s0 and %s9"},
          {-6, "ends in %s"},
          {-7, "ends in %"},
          {-8, "%%s1 %x"}});
    EXPECT_STREQ(getMessage(-1), "[]");
    setMessageArg(1, nullptr);
    EXPECT_STREQ(getMessage(-1), "[(null)]");
    setMessageArg(1, "file.txt");
    EXPECT_STREQ(getMessage(-1), "[file.txt]");
    EXPECT_STREQ(getMessage(-1), "[file.txt]");  // slots keep their value
    EXPECT_STREQ(getMessage(-2), "a%s<index> index too largeb");
    EXPECT_STREQ(getMessage(-3), "100%");
    EXPECT_STREQ(getMessage(-4), "%d stays");
    setMessageArg(0, "zero");
    setMessageArg(9, "nine");
    setMessageArg(10, "ignored");
    EXPECT_STREQ(getMessage(-5), "zero and nine");
    EXPECT_STREQ(getMessage(-6), "ends in %s<index> index too large");
    EXPECT_STREQ(getMessage(-7), "ends in %");
    EXPECT_STREQ(getMessage(-8), "%s1 %x");
}

TEST_F(MessageTest, ArgumentsAreCutAt511Bytes) {
    load({{0, "Error"}, {-1, "%s1"}});
    std::string longArg(700, 'q');
    setMessageArg(1, longArg.c_str());
    EXPECT_EQ(std::string(getMessage(-1)), std::string(511, 'q'));
}

TEST_F(MessageTest, OverrideAppliesToNegativeCodesOnly) {
    load({{0, "Error"}, {-2, "File not found"}});
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
    load({{0, "Error"}, {-2, "old"}});
    EXPECT_STREQ(getMessage(-2), "old");
    write(messageFile({{0, "Error"}, {-2, "new"}}));
    EXPECT_STREQ(getMessage(-2), "old");  // kept in memory
    reloadMessageFile();
    EXPECT_STREQ(getMessage(-2), "new");
    // A shorter table after a longer one: old slots do not survive.
    load({{0, "Error"}, {-9, "nine"}});
    EXPECT_STREQ(getMessage(-9), "nine");
    load({{0, "Error"}});
    EXPECT_STREQ(getMessage(-9), "Error");
}

TEST_F(MessageTest, MissingFileIsRetriedOnEveryCall) {
    std::string expected = "Unable to open message file '" + path() + "' not found";
    EXPECT_EQ(std::string(getMessage(-2)), expected);
    EXPECT_EQ(std::string(getMessage(-2)), expected);
    write(messageFile({{0, "Error"}, {-2, "File not found"}}));
    EXPECT_STREQ(getMessage(-2), "File not found");
}

TEST_F(MessageTest, BadMagicIsReportedOnceThenEmpty) {
    Bytes b = messageFile({{0, "Error"}});
    b[0] = 0x21;
    write(b);
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' not valid");
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' empty");
    write(messageFile({{0, "Error"}}));  // not reread without a reload
    EXPECT_EQ(std::string(getMessage(0)), "Message file '" + path() + "' empty");
    reloadMessageFile();
    EXPECT_STREQ(getMessage(0), "Error");
}

TEST_F(MessageTest, TinyFilesDoNotReadPastTheirEnd) {
    write(Bytes{0x22, 0x11});
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' not valid");
    reloadMessageFile();
    write(Bytes{0x22, 0x11, 0, 0, 8});
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' empty");
    reloadMessageFile();
    write(Bytes{});
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' not valid");
}

TEST_F(MessageTest, ErrorTextIsBoundedForLongPaths) {
    std::string longDir = dir + std::string(300, 'd') + "/";
    setMessageFile(longDir.c_str(), "test.cvb");
    reloadMessageFile();
    std::string text = getMessage(-2);
    EXPECT_EQ(text.size(), 99u);
    EXPECT_EQ(text.rfind("Unable to open message file '" + dir + "ddd", 0), 0u);
}

TEST_F(MessageTest, MissingCodeZeroAnswersEmpty) {
    load({{-2, "File not found"}});
    EXPECT_STREQ(getMessage(-2), "File not found");
    EXPECT_EQ(std::string(getMessage(-3)), "Message file '" + path() + "' empty");
    EXPECT_EQ(std::string(getMessage(3)), "Message file '" + path() + "' empty");
}

TEST_F(MessageTest, EntriesPointingOutsideTheFileAreDropped) {
    // Text offsets past the end, and one far beyond via a large offset.
    Bytes b;
    putWord(b, 4386);
    putWord(b, 40);
    putWord(b, 0);
    putWord(b, 0);
    putWord(b, -2);
    putWord(b, 1000);
    putWord(b, -3);
    putWord(b, 0x7FFFFFF0);
    putWord(b, 0);
    putWord(b, -1);
    for (char c : std::string("Error")) b.push_back(static_cast<unsigned char>(c));
    b.push_back(0);
    write(b);
    EXPECT_STREQ(getMessage(-2), "Error");
    EXPECT_STREQ(getMessage(-3), "Error");
    EXPECT_STREQ(getMessage(0), "Error");
}

TEST_F(MessageTest, TextBaseOutsideTheFileDropsEverything) {
    Bytes b = messageFile({{0, "Error"}, {-2, "File not found"}});
    b[4] = 0xF0;
    b[5] = 0xFF;
    b[6] = 0xFF;
    b[7] = 0x7F;
    write(b);
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' empty");
    reloadMessageFile();
    b[4] = 0x00;
    b[5] = 0x00;
    b[6] = 0x00;
    b[7] = 0x80;  // negative base
    write(b);
    EXPECT_EQ(std::string(getMessage(-2)), "Message file '" + path() + "' empty");
}

TEST_F(MessageTest, TruncatedTableKeepsWholeEntries) {
    // No terminator: the file ends in the middle of the third entry.
    Bytes b;
    putWord(b, 4386);
    putWord(b, 8);  // texts are read from the table area itself
    putWord(b, 0);
    putWord(b, 16);  // text at 8 + 16 = 24: the third entry's bytes
    putWord(b, -2);
    putWord(b, 16);
    b.push_back('a');
    b.push_back('b');
    b.push_back('c');
    write(b);
    EXPECT_STREQ(getMessage(0), "abc");
    EXPECT_STREQ(getMessage(-2), "abc");
}

TEST_F(MessageTest, LastTextWithoutNulIsCutAtTheFileEnd) {
    Bytes b = messageFile({{0, "Error"}, {-2, "File not found"}});
    b.pop_back();  // drop the final NUL
    write(b);
    EXPECT_STREQ(getMessage(-2), "File not found");
    // A text whose marker stands right at the end of the file does not run on either.
    b = messageFile({{0, "Error"}, {-2, "50%"}});
    b.pop_back();
    write(b);
    reloadMessageFile();
    EXPECT_STREQ(getMessage(-2), "50%");
    b = messageFile({{0, "Error"}, {-2, "50%s"}});
    b.pop_back();
    write(b);
    reloadMessageFile();
    EXPECT_STREQ(getMessage(-2), "50%s<index> index too large");
}

TEST_F(MessageTest, HugeNegativeAndPositiveCodesAreDropped) {
    load({{0, "Error"},
          {-2, "File not found"},
          {-2000000000, "huge"},
          {INT32_MIN, "min"},
          {-100001, "too low"},
          {-100000, "lowest"},
          {7, "seven"}});
    EXPECT_STREQ(getMessage(-2000000000), "Error");
    EXPECT_STREQ(getMessage(INT32_MIN), "Error");
    EXPECT_STREQ(getMessage(-100001), "Error");
    EXPECT_STREQ(getMessage(-100000), "lowest");
    EXPECT_STREQ(getMessage(7), "Error");
    EXPECT_STREQ(getMessage(-7), "Error");
    EXPECT_STREQ(getMessage(-2), "File not found");
}

// ---- program directory ----

class ProgramDirectoryTest : public ::testing::Test {
protected:
    std::string root;
    std::string realRoot;

    void SetUp() override {
        char tmpl[] = "/tmp/progdirXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        char resolved[PATH_MAX];
        ASSERT_NE(realpath(tmpl, resolved), nullptr);
        realRoot = resolved;
        ASSERT_EQ(mkdir((root + "/real").c_str(), 0777), 0);
        ASSERT_EQ(mkdir((root + "/links").c_str(), 0777), 0);
        FILE* f = std::fopen((root + "/real/prog").c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs("#!/bin/sh\n", f);
        std::fclose(f);
        ASSERT_EQ(chmod((root + "/real/prog").c_str(), 0755), 0);
        ASSERT_EQ(symlink((root + "/real/prog").c_str(), (root + "/links/prog").c_str()), 0);
    }

    void TearDown() override {
        unlink((root + "/links/prog").c_str());
        unlink((root + "/real/prog").c_str());
        rmdir((root + "/links").c_str());
        rmdir((root + "/real").c_str());
        rmdir(root.c_str());
    }
};

TEST_F(ProgramDirectoryTest, FollowsLinksAndKeepsTheSlash) {
    char out[512];
    std::string argv0 = root + "/links/prog";
    int32_t n = getProgramDirectory(out, argv0.c_str());
    EXPECT_EQ(std::string(out), realRoot + "/real/");
    EXPECT_EQ(n, int32_t(realRoot.size() + 6));
}

TEST_F(ProgramDirectoryTest, BareNameIsSearchedOnPath) {
    const char* old = getenv("PATH");
    std::string saved = old ? old : "";
    setenv("PATH", ("/nonexistent:" + root + "/links").c_str(), 1);
    char out[512];
    getProgramDirectory(out, "prog");
    if (old) setenv("PATH", saved.c_str(), 1);
    else unsetenv("PATH");
    EXPECT_EQ(std::string(out), realRoot + "/real/");
}

}  // namespace
