// Output primitives and questions that a run does not reach yet or cannot pin down: wrapping,
// the progress line, field splitting, and the questions fed from a stream.
#include "installer/console.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "installer/state.h"

namespace {

class ConsoleTest : public ::testing::Test {
protected:
    void SetUp() override { resetInstallState(); }
    void TearDown() override {
        gConsoleIn = nullptr;
        if (input_ != nullptr) fclose(input_);
    }
    void feed(const std::string& text) {
        if (input_ != nullptr) fclose(input_);
        input_ = tmpfile();
        ASSERT_NE(input_, nullptr);
        fwrite(text.data(), 1, text.size(), input_);
        rewind(input_);
        gConsoleIn = input_;
    }
    FILE* input_ = nullptr;
};

std::string boxed(const std::string& text) { return "\n***\n" + text + "\n***\n"; }

std::string wrapped(const std::string& text) {
    testing::internal::CaptureStdout();
    int32_t count = printWrapped(text.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count, static_cast<int32_t>(out.size()));
    return out;
}

std::string s(size_t n, char c) { return std::string(n, c); }

TEST_F(ConsoleTest, WrapBreaksAtTheLastBreakCharacterThatFits) {
    // 144 chunks of 71 characters fill 10224 of the 10239 places: 15 line feeds still fit
    // behind the commas, the rest of the text is printed as it stands.
    std::string chunks, full;
    for (int i = 0; i < 144; i++) {
        chunks += s(70, 'x') + ",";
        full += s(70, 'x') + (i < 15 ? ",\n" : ",");
    }
    const struct {
        std::string text, expected;
    } rows[] = {
        {"Short text, nothing to do.", "Short text, nothing to do."},
        {"", ""},
        {s(50, 'a') + " " + s(20, 'b') + " end", s(50, 'a') + "\n" + s(20, 'b') + " end"},
        {s(55, 'a') + "," + s(20, 'b') + " c", s(55, 'a') + ",\n" + s(20, 'b') + " c"},  // mark stays
        {s(60, 'a') + ".   next", s(60, 'a') + ".\nnext"},      // blanks behind the break go
        {s(65, 'a') + "    b", s(65, 'a') + "\nb"},
        {"hello world\n" + s(55, 'a') + " bb", "hello world\n" + s(55, 'a') + " bb"},  // counted from "\n"
        {s(50, 'a') + " " + s(20, 'b') + "\nccc", s(50, 'a') + "\n" + s(20, 'b') + "\nccc"},
        {s(200, 'w'), s(200, 'w')},                             // a word is never split
        {"go " + s(200, 'w') + " end", "go\n" + s(200, 'w') + "\nend"},
        {s(70, 'a') + ".", s(70, 'a') + "."},                   // no break behind the last character
        {s(50, 'a') + " " + s(15, 'b') + ".", s(50, 'a') + "\n" + s(15, 'b') + "."},
        {chunks, full},
        {s(12000, 'y'), s(10239, 'y')},
    };
    for (const auto& row : rows) EXPECT_EQ(wrapped(row.text), boxed(row.expected)) << row.text.substr(0, 80);
}

TEST_F(ConsoleTest, WrappedLinesStayWithinSixtyOneCharacters) {
    std::string text;
    for (int i = 0; i < 60; i++) text += "Installing the files, please wait; it may take a while! Ready? ";
    std::string out = wrapped(text);
    ASSERT_EQ(out.compare(0, 5, "\n***\n"), 0);
    std::string body = out.substr(5, out.size() - 10);
    int lines = 0;
    for (size_t start = 0, end; start < body.size(); start = end + 1, lines++) {
        end = std::min(body.find('\n', start), body.size());
        EXPECT_LE(end - start, 61u) << body.substr(start, end - start);
        EXPECT_NE(body[start], ' ');
    }
    EXPECT_GT(lines, 60);
    // Only line breaks were changed: no word got lost.
    std::string squeezed, original;
    for (char c : body) if (c != ' ' && c != '\n') squeezed += c;
    for (char c : text) if (c != ' ' && c != '\n') original += c;
    EXPECT_EQ(squeezed, original);
}

TEST_F(ConsoleTest, ProgressLineIsExactlySeventyTwoWide) {
    testing::internal::CaptureStdout();
    printProgress("%s", s(100, 'p').c_str());
    printProgress("%d%% done", 50);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), s(72, 'p') + "\r" + "50% done" + s(64, ' ') + "\r");
}

TEST_F(ConsoleTest, FieldOfSplitsAtTheSeparator) {
    EXPECT_STREQ(fieldOf("a:b:c", 1, ':'), "a");
    EXPECT_STREQ(fieldOf("a:b:c", 3, ':'), "c");
    EXPECT_EQ(fieldOf("a:b:c", 4, ':'), nullptr);
    EXPECT_EQ(fieldOf("a:b:c", 0, ':'), nullptr);
    EXPECT_STREQ(fieldOf("a::c", 2, ':'), "");
    EXPECT_STREQ(fieldOf("Linux 2.4.20-8", 2, ' '), "2.4.20-8");
    EXPECT_EQ(strlen(fieldOf(s(800, 'f').c_str(), 1, ':')), 511u);
    // Its text can be handed to another primitive, which has a buffer of its own.
    testing::internal::CaptureStdout();
    printBoxed("%s", fieldOf("left|right", 2, '|'));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), boxed("right"));
}

TEST_F(ConsoleTest, AskYesNo) {
    const std::string again = "Q? Please enter 'Y' or 'N'.\n";
    const struct {
        std::string input;
        int32_t defaultAnswer, result, answer;
        std::string out;
    } rows[] = {
        {"\n", 1, 0, 1, "Q? "},
        {"\n", 0, 0, 0, "Q? "},
        {"yes\n", 0, 0, 1, "Q? "},
        {"Yo\n", 0, 0, 1, "Q? "},
        {"nonsense\n", 1, 0, 0, "Q? "},
        {"NO\n", 1, 0, 0, "Q? "},
        {"maybe\n \ny\n", 0, 0, 1, again + again + "Q? "},
        {"", 1, 1, 42, "Q? "},                    // end of input leaves the answer alone
        {"what\n", 1, 1, 42, again + "Q? "},
        {s(2000, 'x') + "\n", 1, 1, 42, again + again + again + again + "Q? "},   // read in pieces of 510
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.input.substr(0, 20));
        int32_t answer = 42;
        feed(row.input);
        testing::internal::CaptureStdout();
        EXPECT_EQ(askYesNo("Q? ", &answer, row.defaultAnswer), row.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(answer, row.answer);
    }
    // The rest of a long "y..." line is what the next question reads.
    int32_t first = -1, second = -1;
    feed("y" + s(509, 'x') + "n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(askYesNo("Q? ", &first, 0), 0);
    EXPECT_EQ(askYesNo("Q? ", &second, 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Q? Q? ");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
}

TEST_F(ConsoleTest, PromptDirectory) {
    const struct {
        std::string before, input;
        int32_t result;
        std::string after;
    } rows[] = {
        {"/opt/corvane/", "/opt/x\n", 0, "/opt/x/"},
        {"/opt/y", "\n", 0, "/opt/y/"},              // an empty answer keeps the value
        {"", "\n", 0, ""},
        {"/opt/keep", "", 1, "/opt/keep"},           // end of input
        {"", "/opt/zz", 0, "/opt/z/"},               // the last character counts as the line end
        {"/old/", s(1500, 'd') + "\n", 0, s(510, 'd') + "/"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.input.substr(0, 20));
        char directory[kPathSize];
        strcpy(directory, row.before.c_str());
        feed(row.input);
        testing::internal::CaptureStdout();
        EXPECT_EQ(promptDirectory("Install directory [%s]:", directory), row.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Install directory [" + row.before + "]:");
        EXPECT_EQ(std::string(directory), row.after);
    }
}

}  // namespace
