#include "tools/msgfile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "runtime/message.h"

namespace {

typedef std::vector<unsigned char> Bytes;

std::vector<std::string> parseErrors(const std::string& source) {
    std::vector<MsgEntry> entries;
    std::vector<std::string> errors;
    EXPECT_FALSE(parseMessageSource(source, entries, errors));
    return errors;
}

TEST(MessageSource, ReadsEntriesCommentsAndEscapes) {
    std::vector<MsgEntry> entries;
    std::vector<std::string> errors;
    ASSERT_TRUE(parseMessageSource("# heading\n"
                                   "\n"
                                   "0\tGeneric\n"
                                   "-2\tFile '%s1' not found.\\nSecond line\r\n"
                                   "-7\t\\\\x\\t\\x41\\r \n"
                                   "-3\t\n"
                                   "-100000\tlast",
                                   entries, errors))
        << errors[0];
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].code, 0);
    EXPECT_EQ(entries[0].text, "Generic");
    EXPECT_EQ(entries[0].line, 3);
    EXPECT_EQ(entries[1].code, -2);
    EXPECT_EQ(entries[1].text, "File '%s1' not found.\nSecond line");
    EXPECT_EQ(entries[2].text, "\\x\tA\r ");
    EXPECT_EQ(entries[3].code, -3);
    EXPECT_EQ(entries[3].text, "");
    EXPECT_EQ(entries[4].code, -100000);
    EXPECT_EQ(entries[4].text, "last");
}

TEST(MessageSource, ReportsBadLinesWithTheirNumbers) {
    std::vector<std::string> errors = parseErrors(
        "0\tGeneric\n"
        "abc\tnot a code\n"
        "-2 no tab\n"
        "5\tpositive\n"
        "-2\tfirst\n"
        "# comment\n"
        "-2\tagain\n"
        "-9\tbad \\q escape\n"
        "-10\ttrailing \\\n"
        "-11\t\\x4\n"
        "-12\t\\x00\n"
        "-100001\ttoo low\n"
        "99999999999\toverflow\n");
    ASSERT_EQ(errors.size(), 10u);
    EXPECT_EQ(errors[0], "line 2: code 'abc' is not a number");
    EXPECT_EQ(errors[1], "line 3: code '-2 no tab' is not a number");
    EXPECT_EQ(errors[2], "line 4: code 5 is positive; codes are 0 or negative");
    EXPECT_EQ(errors[3], "line 7: code -2 already given on line 5");
    EXPECT_EQ(errors[4], "line 8: unknown escape \\q");
    EXPECT_EQ(errors[5].rfind("line 9: backslash at the end", 0), 0u);
    EXPECT_EQ(errors[6], "line 10: \\x needs two hex digits");
    EXPECT_EQ(errors[7], "line 11: a text cannot hold a NUL byte");
    EXPECT_EQ(errors[8], "line 12: code -100001 is below -100000");
    EXPECT_EQ(errors[9].rfind("line 13: code 99999999999 is positive", 0), 0u);
    std::vector<std::string> tab = parseErrors("0\tok\n-3\n");
    ASSERT_EQ(tab.size(), 1u);
    EXPECT_EQ(tab[0], "line 2: a TAB must separate the code from its text");
}

TEST(MessageSource, RequiresTheGenericText) {
    std::vector<std::string> errors = parseErrors("-2\tFile not found.\n");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("code 0"), std::string::npos);
}

TEST(MessageSource, FormatReadsBackUnchanged) {
    std::vector<MsgEntry> in = {{0, "Generic", 0},
                                {-2, "back\\slash\nnew\tline\r\x01\x1f\x7f end ", 0},
                                {-3, "", 0},
                                {-4, "# not a comment", 0},
                                {-5, "caf\xc3\xa9 100%% %s1", 0}};
    std::string text = formatMessageSource(in);
    EXPECT_EQ(text.substr(0, 10), "0\tGeneric\n");
    EXPECT_NE(text.find("-2\tback\\\\slash\\nnew\\tline\\r\\x01\\x1F\\x7F end \n"),
              std::string::npos);
    std::vector<MsgEntry> out;
    std::vector<std::string> errors;
    ASSERT_TRUE(parseMessageSource(text, out, errors));
    ASSERT_EQ(out.size(), in.size());
    for (size_t i = 0; i < in.size(); i++) {
        EXPECT_EQ(out[i].code, in[i].code);
        EXPECT_EQ(out[i].text, in[i].text);
    }
}

TEST(MessageBinary, LayoutIsLittleEndianWithTextsAfterTheTable) {
    Bytes b = buildMessageFile({{0, "E", 0}, {-2, "Nf", 0}});
    Bytes expected = {0x22, 0x11, 0, 0,  32, 0, 0, 0,             // magic, textBase
                      0, 0, 0, 0,        0, 0, 0, 0,              // code 0 at 0
                      0xFE, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0,         // code -2 at 2
                      0, 0, 0, 0,        0xFF, 0xFF, 0xFF, 0xFF,  // terminator
                      'E', 0, 'N', 'f', 0};
    EXPECT_EQ(b, expected);
}

TEST(MessageBinary, ReadsBackWhatWasBuilt) {
    std::vector<MsgEntry> in = {{-5, "five", 0}, {0, "zero", 0}, {-3, "", 0}};
    std::vector<MsgEntry> out;
    std::string error;
    ASSERT_TRUE(readMessageFile(buildMessageFile(in), out, error)) << error;
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].code, -5);
    EXPECT_EQ(out[0].text, "five");
    EXPECT_EQ(out[1].code, 0);
    EXPECT_EQ(out[2].text, "");
}

TEST(MessageBinary, RejectsDamagedFiles) {
    Bytes good = buildMessageFile({{0, "E", 0}, {-2, "Nf", 0}});
    std::vector<MsgEntry> out;
    std::string error;

    Bytes magic = good;
    magic[0] = 0x23;
    EXPECT_FALSE(readMessageFile(magic, out, error));
    EXPECT_NE(error.find("magic"), std::string::npos);

    Bytes truncated(good.begin(), good.begin() + 28);  // ends inside the terminator
    truncated[4] = 8;                                  // texts read from the table itself
    EXPECT_FALSE(readMessageFile(truncated, out, error));
    EXPECT_EQ(error, "entry table has no terminator");

    Bytes outside = good;
    outside[20] = 50;  // text offset of -2 beyond the end
    EXPECT_FALSE(readMessageFile(outside, out, error));
    EXPECT_EQ(error, "text of code -2 lies outside the file");

    Bytes unterminated = good;
    unterminated.pop_back();
    EXPECT_FALSE(readMessageFile(unterminated, out, error));
    EXPECT_EQ(error, "text of code -2 is not terminated");

    Bytes base = good;
    base[4] = 200;
    EXPECT_FALSE(readMessageFile(base, out, error));
    EXPECT_EQ(error, "text area starts outside the file");
}

// ---- the cvbc tool and the shipped message file ----

class ToolTest : public ::testing::Test {
protected:
    std::string dir;

    void SetUp() override {
        char tmpl[] = "/tmp/cvbctestXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = std::string(tmpl) + "/";
    }
    void TearDown() override {
        for (const char* name : {"in.msg", "out.cvb", "again.cvb", "dump.msg", "err.txt"})
            unlink((dir + name).c_str());
        rmdir(dir.c_str());
    }

    static int run(const std::string& command) {
        int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    static Bytes slurp(const std::string& path) {
        Bytes b;
        FILE* f = std::fopen(path.c_str(), "rb");
        if (!f) return b;
        int c;
        while ((c = std::fgetc(f)) != EOF) b.push_back(static_cast<unsigned char>(c));
        std::fclose(f);
        return b;
    }
    void put(const std::string& name, const std::string& text) {
        FILE* f = std::fopen((dir + name).c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fputs(text.c_str(), f);
        std::fclose(f);
    }
};

TEST_F(ToolTest, CompileOfDumpGivesTheSameFile) {
    std::string tool = CVINST_CVBC;
    ASSERT_EQ(run(tool + " dump " + CVINST_BUILT_MESSAGES + " > " + dir + "dump.msg"), 0);
    ASSERT_EQ(run(tool + " compile " + dir + "dump.msg " + dir + "again.cvb"), 0);
    Bytes original = slurp(CVINST_BUILT_MESSAGES);
    ASSERT_FALSE(original.empty());
    EXPECT_EQ(slurp(dir + "again.cvb"), original);
}

TEST_F(ToolTest, BadSourceFailsWithLineNumbers) {
    std::string tool = CVINST_CVBC;
    put("in.msg", "0\tok\n-2\tone\nx\tbad\n-2\ttwo\n");
    EXPECT_EQ(run(tool + " compile " + dir + "in.msg " + dir + "out.cvb 2> " + dir + "err.txt"),
              1);
    Bytes err = slurp(dir + "err.txt");
    std::string text(err.begin(), err.end());
    EXPECT_NE(text.find("in.msg: line 3: code 'x' is not a number"), std::string::npos) << text;
    EXPECT_NE(text.find("in.msg: line 4: code -2 already given on line 2"), std::string::npos)
        << text;
    EXPECT_TRUE(slurp(dir + "out.cvb").empty());  // nothing written
    EXPECT_EQ(run(tool + " dump " + dir + "in.msg 2> /dev/null"), 1);  // not a message file
    EXPECT_EQ(run(tool + " 2> /dev/null"), 2);
}

TEST(ShippedMessages, CarriesEveryReportedCode) {
    std::string built = CVINST_BUILT_MESSAGES;
    std::string directory = built.substr(0, built.rfind('/') + 1);
    setMessageFile(directory.c_str(), built.substr(directory.size()).c_str());
    reloadMessageFile();
    setMessageArg(1, "/opt/eclipse/eclipse/.eclipseproduct");
    std::string generic = getMessage(0);
    EXPECT_EQ(generic, "Unexpected error.");
    const int32_t codes[] = {-2,  -3,   -4,   -5,   -8,   -23,  -32,   -33,   -34,
                             -35, -36,  -52,  -54,  -300, -302, -305,  -306,  -405,
                             -414, -416, -3073, -2113, -4134, -4136, -4137};
    for (int32_t code : codes) {
        std::string text = getMessage(code);
        EXPECT_NE(text, generic) << code;
        EXPECT_EQ(text.find("Message file"), std::string::npos) << code << ": " << text;
        EXPECT_EQ(text.find('%'), std::string::npos) << code << ": " << text;
    }
    EXPECT_STREQ(getMessage(-3073), "Invalid pointer passed to the pool allocator.");
    std::string invalid = getMessage(-405);
    EXPECT_NE(invalid.find("/opt/eclipse/eclipse/.eclipseproduct"), std::string::npos);
    EXPECT_NE(invalid.find("not valid"), std::string::npos);
    EXPECT_EQ(getMessage(1), generic);
}

}  // namespace
