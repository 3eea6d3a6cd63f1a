#include "installer/inireader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "runtime/pool.h"

namespace {

typedef std::vector<std::pair<std::string, std::string>> Entries;

// All entries of the section that starts at pos, read with a value buffer of valueSize.
Entries readSection(const char* text, int32_t pos, int32_t valueSize = 512, int32_t upper = 1) {
    Entries entries;
    std::vector<char> key(kIniKeySize), value(static_cast<size_t>(valueSize));
    while (nextIniEntry(text, &pos, key.data(), value.data(), valueSize, upper) == 0)
        entries.emplace_back(key.data(), value.data());
    return entries;
}

Entries readNamedSection(const char* text, const char* name) {
    int32_t pos = findIniSection(text, name);
    EXPECT_GE(pos, 0) << "section " << name;
    return pos < 0 ? Entries() : readSection(text, pos);
}

TEST(IniSectionTest, NameIsComparedWithoutCase) {
    EXPECT_GE(findIniSection("[UNATTENDED]\nA=1\n", "unattended"), 0);
    EXPECT_GE(findIniSection("[Unattended]\n", "UNATTENDED"), 0);
    EXPECT_EQ(-1, findIniSection("[unattended2]\n[ unattended]\n", "unattended"));
    EXPECT_EQ(-1, findIniSection("unattended\n;[unattended]\nx[unattended]\n", "unattended"));
    EXPECT_EQ(-1, findIniSection("", "unattended"));
}

TEST(IniSectionTest, PositionIsTheLineBehindTheHeader) {
    const char* text = "[other]\nX=1\n  \t[unattended] trailing words\r\nA=1\n";
    int32_t pos = findIniSection(text, "unattended");
    ASSERT_GE(pos, 0);
    EXPECT_STREQ("A=1\n", text + pos);
    // a header on the last line without a line end
    const char* last = "[x]\n[unattended]";
    EXPECT_EQ(static_cast<int32_t>(strlen(last)), findIniSection(last, "unattended"));
}

TEST(IniSectionTest, OverlongSectionNameIsCutAndDoesNotOverflow) {
    std::string longName(3000, 'n');
    std::string text = "[" + longName + "]\n[u]\nK=v\n";
    EXPECT_GE(findIniSection(text.c_str(), longName.substr(0, kIniKeySize - 1).c_str()), 0);
    EXPECT_EQ(-1, findIniSection(text.c_str(), longName.c_str()));
    EXPECT_EQ((Entries{{"K", "v"}}), readNamedSection(text.c_str(), "u"));
}

TEST(IniEntryTest, LineEndsOfEveryKindAndEmptyLines) {
    EXPECT_EQ((Entries{{"A", "1"}, {"B", "2"}, {"C", "3"}}),
              readSection("A=1\r\nB=2\r\n\r\n\r\nC=3\r\n", 0));
    EXPECT_EQ((Entries{{"A", "1"}, {"B", "2"}, {"C", "3"}}), readSection("\rA=1\rB=2\r\r\rC=3", 0));
    EXPECT_EQ((Entries{{"A", "1"}, {"B", "2"}}), readSection("\n\nA=1\n\r\n\rB=2\n", 0));
}

TEST(IniEntryTest, NothingIsTrimmedAroundTheEqualsSign) {
    EXPECT_EQ((Entries{{"KEY ", " value "}, {"DESTINATIONDIR", "/opt/x "}}),
              readSection("  \tKey = value \nDestinationDir=/opt/x \n", 0));
}

TEST(IniEntryTest, KeyEndsAtTheFirstEqualsSign) {
    EXPECT_EQ((Entries{{"A", "b=c"}, {"", "x"}}), readSection("a=b=c\n=x\n", 0));
}

TEST(IniEntryTest, LineWithoutEqualsSignHasAnEmptyValue) {
    EXPECT_EQ((Entries{{"JUSTAKEY", ""}, {"NEXT", "1"}}), readSection("JustAKey\nNext=1\n", 0));
}

TEST(IniEntryTest, UpperCasingOnlyOnRequest) {
    EXPECT_EQ((Entries{{"MixedKey", "MixedValue"}}), readSection("MixedKey=MixedValue\n", 0, 512, 0));
    EXPECT_EQ((Entries{{"MIXEDKEY", "MixedValue"}}), readSection("MixedKey=MixedValue\n", 0, 512, 1));
}

TEST(IniEntryTest, CommentsAndBlankLinesAreSkipped) {
    EXPECT_EQ((Entries{{"A", "1"}, {"B", "2;not a comment"}}),
              readSection("; first\n   ;indented=comment\nA=1\n   \t \nB=2;not a comment\n", 0));
}

TEST(IniEntryTest, SectionEndsAtTheNextHeaderAndStaysThere) {
    const char* text = "A=1\n  [next]\nB=2\n";
    int32_t pos = 0;
    char key[kIniKeySize], value[512];
    ASSERT_EQ(0, nextIniEntry(text, &pos, key, value, 512, 1));
    EXPECT_EQ(-1, nextIniEntry(text, &pos, key, value, 512, 1));
    EXPECT_EQ(-1, nextIniEntry(text, &pos, key, value, 512, 1));
    EXPECT_EQ('[', text[pos + 2]);
}

TEST(IniEntryTest, OverlongKeyIsCutAndItsLineDropped) {
    std::string longKey(1500, 'k');
    std::string text = longKey + "=value\nNext=1\n";
    Entries entries = readSection(text.c_str(), 0, 512, 0);
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(longKey.substr(0, kIniKeySize - 1), entries[0].first);
    EXPECT_EQ("", entries[0].second);
    EXPECT_EQ((std::pair<std::string, std::string>("Next", "1")), entries[1]);

    // exactly at the limit still has its value
    std::string fitting(kIniKeySize - 1, 'f');
    EXPECT_EQ((Entries{{fitting, "v"}}), readSection((fitting + "=v").c_str(), 0, 512, 0));
}

TEST(IniEntryTest, OverlongValueIsCutAndTheRestOfTheLineSkipped) {
    EXPECT_EQ((Entries{{"K", "abc"}, {"N", "x"}}), readSection("K=abcdefgh\nN=x\n", 0, 4));
    std::string longValue(5000, 'v');
    Entries entries = readSection(("K=" + longValue + "\rN=x").c_str(), 0);
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(longValue.substr(0, 511), entries[0].second);
    EXPECT_EQ("N", entries[1].first);
}

// Pseudo-random bytes of every value (NUL included), as a file of garbage would hold them.
std::string randomBytes(size_t n, unsigned seed, bool withNul) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s) {
        c = static_cast<char>(gen() & 0xff);
        if (!withNul && c == '\0') c = 'x';
    }
    return s;
}

TEST(IniEntryTest, ArbitraryBytesAreScannedWithinBounds) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
        std::string text = "[unattended]\n" + randomBytes(1 << 20, seed, seed % 2 == 0);
        int32_t pos = findIniSection(text.c_str(), "unattended");
        ASSERT_EQ(13, pos);
        char key[kIniKeySize], value[64];
        int32_t previous = -1, count = 0;
        while (nextIniEntry(text.c_str(), &pos, key, value, sizeof(value), 1) == 0) {
            ASSERT_GT(pos, previous);  // always moves on
            ASSERT_LE(pos, static_cast<int32_t>(text.size()));
            ASSERT_LT(strlen(key), static_cast<size_t>(kIniKeySize));
            ASSERT_LT(strlen(value), sizeof(value));
            previous = pos;
            ++count;
        }
        EXPECT_GT(count, 0);
        // scanning the whole garbage for another header must terminate too
        findIniSection(text.c_str(), "nothing");
    }
}

TEST(IniEntryTest, OneHugeLineGivesOneCutEntry) {
    std::string line = randomBytes(3 << 20, 7, false);
    for (char& c : line)
        if (c == '\n' || c == '\r' || c == '=' || c == '[' || c == ';') c = 'y';
    line[0] = 'k';
    line[2000] = '=';
    Entries entries = readSection(line.c_str(), 0);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(static_cast<size_t>(kIniKeySize - 1), entries[0].first.size());
    EXPECT_EQ("", entries[0].second);

    line[2000] = 'y';
    line[100] = '=';
    entries = readSection(line.c_str(), 0);
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(100u, entries[0].first.size());
    EXPECT_EQ(line.substr(101, 511), entries[0].second);
}

// Temporary file holding the given bytes.
class WholeFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/cvinst-ini-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir = pattern;
    }
    void TearDown() override {
        if (text != nullptr) libFree(text);
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(0, system(cmd.c_str()));
    }
    std::string write(const std::string& bytes) {
        std::string path = dir + "/file.ini";
        FILE* f = fopen(path.c_str(), "wb");
        EXPECT_NE(nullptr, f);
        if (f) {
            fwrite(bytes.data(), 1, bytes.size(), f);
            fclose(f);
        }
        return path;
    }

    std::string dir;
    char* text = nullptr;
    int32_t length = -1;
};

TEST_F(WholeFileTest, ReadsTheWholeFileTerminated) {
    ASSERT_EQ(0, readWholeFile(write("[a]\nk=v\n").c_str(), &text, &length));
    EXPECT_EQ(8, length);
    EXPECT_STREQ("[a]\nk=v\n", text);
}

TEST_F(WholeFileTest, FinalCtrlZIsDroppedOthersStay) {
    ASSERT_EQ(0, readWholeFile(write("k=v\x1a").c_str(), &text, &length));
    EXPECT_EQ(3, length);
    EXPECT_STREQ("k=v", text);
    libFree(text);
    text = nullptr;
    ASSERT_EQ(0, readWholeFile(write("a\x1a" "b").c_str(), &text, &length));
    EXPECT_EQ(3, length);
    EXPECT_STREQ("a\x1a" "b", text);
}

TEST_F(WholeFileTest, EmptyFileGivesEmptyText) {
    ASSERT_EQ(0, readWholeFile(write("").c_str(), &text, &length));
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(0, length);
    EXPECT_EQ('\0', text[0]);
}

TEST_F(WholeFileTest, MissingFileOrDirectoryFailsWithNothingAllocated) {
    EXPECT_LT(readWholeFile((dir + "/absent.ini").c_str(), &text, &length), 0);
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ(0, length);
    EXPECT_LT(readWholeFile((dir + "/no/such/dir.ini").c_str(), &text, &length), 0);
    EXPECT_EQ(nullptr, text);
    EXPECT_LT(readWholeFile(dir.c_str(), &text, &length), 0);
    EXPECT_EQ(nullptr, text);
}

TEST_F(WholeFileTest, BinaryContentIsReadCompletely) {
    std::string bytes = randomBytes(3 << 20, 11, true);
    bytes[0] = '\0';
    bytes.back() = 'z';
    ASSERT_EQ(0, readWholeFile(write(bytes).c_str(), &text, &length));
    ASSERT_EQ(static_cast<int32_t>(bytes.size()), length);
    EXPECT_EQ(0, memcmp(bytes.data(), text, bytes.size()));
    EXPECT_EQ('\0', text[length]);
    // as a string the text ends at its first NUL
    EXPECT_EQ(-1, findIniSection(text, "unattended"));
}

}  // namespace
