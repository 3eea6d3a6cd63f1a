// Output primitives and questions: exact texts, wrapping, and answers fed from a stream.
#include "installer/console.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "installer/state.h"

namespace {

// Feeds the questions from a temporary stream instead of the terminal.
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

std::string boxed(const std::string& text) {
    return "\n***\n" + text + "\n***\n";
}

std::string wrapped(const std::string& text) {
    testing::internal::CaptureStdout();
    int32_t count = printWrapped(text.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count, static_cast<int32_t>(out.size()));
    return out;
}

int countOf(const std::string& haystack, const std::string& needle) {
    int count = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + needle.size())) {
        count++;
    }
    return count;
}

}  // namespace

// --- plain output -------------------------------------------------------------------------

TEST_F(ConsoleTest, VerboseIsSilentUnlessSwitchedOn) {
    testing::internal::CaptureStdout();
    printVerbose("trace %d\n", 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    gState.verbose = 1;
    testing::internal::CaptureStdout();
    printVerbose("trace %d\n", 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ">>> trace 2\n");
}

TEST_F(ConsoleTest, MessageAndBoxCarryTheirFrames) {
    testing::internal::CaptureStdout();
    int32_t count = printMessage("Cannot create directory %s.", "/x");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Corvane Install: Cannot create directory /x.\n");
    EXPECT_EQ(count, static_cast<int32_t>(out.size()));

    testing::internal::CaptureStdout();
    count = printBoxed("note %s", "here");
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "\n***\nnote here\n***\n");
    EXPECT_EQ(count, static_cast<int32_t>(out.size()));
}

TEST_F(ConsoleTest, OneOutputCanFeedAnotherPrimitive) {
    gState.verbose = 1;
    testing::internal::CaptureStdout();
    printBoxed("%s", fieldOf("left|right", 2, '|'));
    printVerbose("%s\n", fieldOf("one two", 1, ' '));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n***\nright\n***\n>>> one\n");
}

TEST_F(ConsoleTest, OverlongMessageIsCutToItsBuffer) {
    std::string huge(20000, 'm');
    testing::internal::CaptureStdout();
    printMessage("%s", huge.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Corvane Install: " + std::string(10239, 'm') + "\n");
}

TEST_F(ConsoleTest, ProgressLineIsExactlySeventyTwoWide) {
    std::string hundred(100, 'p');
    testing::internal::CaptureStdout();
    printProgress("%s", hundred.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(72, 'p') + "\r");

    testing::internal::CaptureStdout();
    printProgress("%d%% done", 50);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "50% done" + std::string(64, ' ') + "\r");

    testing::internal::CaptureStdout();
    printProgress("0123456789");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "0123456789" + std::string(62, ' ') + "\r");
}

// --- word wrapping ------------------------------------------------------------------------

TEST_F(ConsoleTest, WrapBreaksAtTheLastBlankThatFits) {
    std::string a(50, 'a'), b(20, 'b');
    EXPECT_EQ(wrapped(a + " " + b + " end"), boxed(a + "\n" + b + " end"));
}

TEST_F(ConsoleTest, WrapLeavesShortTextAlone) {
    EXPECT_EQ(wrapped("Short text, nothing to do."), boxed("Short text, nothing to do."));
    EXPECT_EQ(wrapped(""), boxed(""));
}

TEST_F(ConsoleTest, WrapKeepsPunctuationAtTheLineEnd) {
    std::string a(55, 'a'), b(20, 'b');
    EXPECT_EQ(wrapped(a + "," + b + " c"), boxed(a + ",\n" + b + " c"));
    // A line of 60 characters and its full stop; the blanks behind it go.
    std::string sixty(60, 'a');
    EXPECT_EQ(wrapped(sixty + ".   next"), boxed(sixty + ".\nnext"));
}

TEST_F(ConsoleTest, WrapDropsBlanksBehindTheBreak) {
    std::string a(65, 'a');
    EXPECT_EQ(wrapped(a + "    b"), boxed(a + "\nb"));
}

TEST_F(ConsoleTest, WrapStartsANewLineAtALineFeed) {
    // Measured from the start of the text the blank would lie beyond column 60; measured
    // from the line feed it fits.
    std::string a(55, 'a');
    EXPECT_EQ(wrapped("hello world\n" + a + " bb"), boxed("hello world\n" + a + " bb"));
    // A line feed beyond the limit still gets the line broken at the blank before it.
    std::string a50(50, 'a'), b(20, 'b');
    EXPECT_EQ(wrapped(a50 + " " + b + "\nccc"), boxed(a50 + "\n" + b + "\nccc"));
}

TEST_F(ConsoleTest, WrapNeverSplitsALongWord) {
    std::string word(200, 'w');
    EXPECT_EQ(wrapped(word), boxed(word));
    EXPECT_EQ(wrapped("go " + word + " end"), boxed("go\n" + word + "\nend"));
}

TEST_F(ConsoleTest, WrapDoesNotBreakBehindTheLastCharacter) {
    std::string a70(70, 'a');
    EXPECT_EQ(wrapped(a70 + "."), boxed(a70 + "."));
    std::string a50(50, 'a'), b(15, 'b');
    EXPECT_EQ(wrapped(a50 + " " + b + "."), boxed(a50 + "\n" + b + "."));
}

TEST_F(ConsoleTest, WrappedLinesStayWithinSixtyOneCharacters) {
    std::string text;
    for (int i = 0; i < 60; i++) {
        text += "Installing the files, please wait; it may take a while! Ready? ";
    }
    std::string out = wrapped(text);
    ASSERT_EQ(out.compare(0, 5, "\n***\n"), 0);
    std::string body = out.substr(5, out.size() - 10);
    size_t start = 0;
    int lines = 0;
    while (start < body.size()) {
        size_t end = body.find('\n', start);
        if (end == std::string::npos) end = body.size();
        EXPECT_LE(end - start, 61u) << body.substr(start, end - start);
        EXPECT_NE(body[start], ' ');
        start = end + 1;
        lines++;
    }
    EXPECT_GT(lines, 60);
    // Only line breaks were changed: no word got lost.
    std::string squeezed, original;
    for (char c : body) if (c != ' ' && c != '\n') squeezed += c;
    for (char c : text) if (c != ' ' && c != '\n') original += c;
    EXPECT_EQ(squeezed, original);
}

TEST_F(ConsoleTest, WrapStopsInsertingWhenTheBufferIsFull) {
    // 144 chunks of 71 characters fill 10224 of the 10239 places: 15 line feeds still fit
    // behind the commas, the rest of the text is printed as it stands.
    std::string chunk = std::string(70, 'x') + ",";
    std::string text, expected;
    for (int i = 0; i < 144; i++) {
        text += chunk;
        expected += i < 15 ? chunk + "\n" : chunk;
    }
    ASSERT_EQ(expected.size(), 10239u);
    EXPECT_EQ(wrapped(text), boxed(expected));
}

TEST_F(ConsoleTest, WrapCutsAnOverlongTextToItsBuffer) {
    std::string text(12000, 'y');
    EXPECT_EQ(wrapped(text), boxed(std::string(10239, 'y')));
}

// --- small text helpers ---------------------------------------------------------------------

TEST_F(ConsoleTest, FieldOfSplitsAtTheSeparator) {
    EXPECT_STREQ(fieldOf("a:b:c", 1, ':'), "a");
    EXPECT_STREQ(fieldOf("a:b:c", 2, ':'), "b");
    EXPECT_STREQ(fieldOf("a:b:c", 3, ':'), "c");
    EXPECT_EQ(fieldOf("a:b:c", 4, ':'), nullptr);
    EXPECT_EQ(fieldOf("a:b:c", 0, ':'), nullptr);
    EXPECT_STREQ(fieldOf("a::c", 2, ':'), "");
    EXPECT_STREQ(fieldOf("Linux 2.4.20-8", 2, ' '), "2.4.20-8");
    std::string longField(800, 'f');
    EXPECT_EQ(strlen(fieldOf(longField.c_str(), 1, ':')), 511u);
}

TEST_F(ConsoleTest, TrimLineRemovesOnlyTheTrailingLineEnds) {
    char text[32] = "abc\r\n\n";
    trimLine(text);
    EXPECT_STREQ(text, "abc");
    char inner[32] = "a\nb ";
    trimLine(inner);
    EXPECT_STREQ(inner, "a\nb ");
    char only[32] = "\n";
    trimLine(only);
    EXPECT_STREQ(only, "");
}

TEST_F(ConsoleTest, ToLowerInPlace) {
    char text[32] = "YeS No 1/A";
    toLowerInPlace(text);
    EXPECT_STREQ(text, "yes no 1/a");
}

TEST_F(ConsoleTest, RunCommandCaptureReadsTheOutput) {
    char buffer[513];
    ASSERT_EQ(runCommandCapture("printf 'Linux\\n\\n'", buffer, 512), 0);
    EXPECT_STREQ(buffer, "Linux");
    char small[4];
    ASSERT_EQ(runCommandCapture("printf abcdef", small, 3), 0);
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(runCommandCapture("true", buffer, 512), 1);
}

// --- questions -----------------------------------------------------------------------------

TEST_F(ConsoleTest, AskYesNoTakesTheDefaultOnAnEmptyAnswer) {
    int32_t answer = 7;
    feed("\n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(askYesNo("Try again [Y]? ", &answer, 1), 0);
    EXPECT_EQ(answer, 1);
    EXPECT_EQ(askYesNo("Overwrite [N]? ", &answer, 0), 0);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Try again [Y]? Overwrite [N]? ");
}

TEST_F(ConsoleTest, AskYesNoCountsTheFirstLetter) {
    int32_t answer = -1;
    feed("yes\nYo\nnonsense\nNO\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(askYesNo("Q? ", &answer, 0), 0);
    EXPECT_EQ(answer, 1);
    answer = -1;
    EXPECT_EQ(askYesNo("Q? ", &answer, 0), 0);
    EXPECT_EQ(answer, 1);
    EXPECT_EQ(askYesNo("Q? ", &answer, 1), 0);
    EXPECT_EQ(answer, 0);
    answer = -1;
    EXPECT_EQ(askYesNo("Q? ", &answer, 1), 0);
    EXPECT_EQ(answer, 0);
    testing::internal::GetCapturedStdout();
}

TEST_F(ConsoleTest, AskYesNoRepeatsOnAnInvalidAnswer) {
    int32_t answer = -1;
    feed("maybe\n \ny\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(askYesNo("Continue [Y]? ", &answer, 0), 0);
    EXPECT_EQ(answer, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Continue [Y]? Please enter 'Y' or 'N'.\n"
              "Continue [Y]? Please enter 'Y' or 'N'.\n"
              "Continue [Y]? ");
}

TEST_F(ConsoleTest, AskYesNoAtEndOfInputLeavesTheAnswer) {
    int32_t answer = 42;
    feed("");
    testing::internal::CaptureStdout();
    EXPECT_EQ(askYesNo("Continue [Y]? ", &answer, 1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Continue [Y]? ");
    EXPECT_EQ(answer, 42);

    feed("what\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(askYesNo("Q? ", &answer, 1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Q? Please enter 'Y' or 'N'.\nQ? ");
    EXPECT_EQ(answer, 42);
}

TEST_F(ConsoleTest, AskYesNoSplitsAnOverlongLine) {
    // 2000 characters arrive as reads of 510, 510, 510 and 470 plus the line end.
    int32_t answer = 3;
    feed(std::string(2000, 'x') + "\n");
    testing::internal::CaptureStdout();
    int32_t result = askYesNo("Q? ", &answer, 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(countOf(out, "Q? "), 5);
    EXPECT_EQ(countOf(out, "Please enter 'Y' or 'N'.\n"), 4);
    EXPECT_EQ(answer, 3);

    // The rest of a long "y..." line is what the next question reads.
    feed("y" + std::string(509, 'x') + "n\n");
    testing::internal::CaptureStdout();
    int32_t first = askYesNo("Q? ", &answer, 0);
    int32_t firstAnswer = answer;
    int32_t second = askYesNo("Q? ", &answer, 1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(first, 0);
    EXPECT_EQ(firstAnswer, 1);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(out, "Q? Q? ");
}

TEST_F(ConsoleTest, PromptDirectoryAddsTheSlash) {
    char directory[kPathSize] = "/opt/corvane/";
    feed("/opt/x\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptDirectory("Install directory [%s]:", directory), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Install directory [/opt/corvane/]:");
    EXPECT_STREQ(directory, "/opt/x/");
}

TEST_F(ConsoleTest, PromptDirectoryKeepsTheValueOnAnEmptyAnswer) {
    char directory[kPathSize] = "/opt/y";
    feed("\n\n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptDirectory("[%s]", directory), 0);
    EXPECT_STREQ(directory, "/opt/y/");
    EXPECT_EQ(promptDirectory("[%s]", directory), 0);
    EXPECT_STREQ(directory, "/opt/y/");
    directory[0] = '\0';
    EXPECT_EQ(promptDirectory("[%s]", directory), 0);
    EXPECT_STREQ(directory, "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[/opt/y][/opt/y/][]");
}

TEST_F(ConsoleTest, PromptDirectoryAtEndOfInput) {
    char directory[kPathSize] = "/opt/keep";
    feed("");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptDirectory("[%s]", directory), 1);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(directory, "/opt/keep");
}

TEST_F(ConsoleTest, PromptDirectoryDropsTheLastCharacterEvenWithoutLineEnd) {
    char directory[kPathSize] = "";
    feed("/opt/zz");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptDirectory("[%s]", directory), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(directory, "/opt/z/");
}

TEST_F(ConsoleTest, PromptDirectoryWithAnOverlongAnswerStaysInItsBuffer) {
    char directory[kPathSize] = "/old/";
    feed(std::string(1500, 'd') + "\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptDirectory("[%s]", directory), 0);
    testing::internal::GetCapturedStdout();
    // 511 characters were read; the last one counts as the line end, the "/" fills the buffer.
    EXPECT_EQ(std::string(directory), std::string(510, 'd') + "/");
}

TEST_F(ConsoleTest, PromptLineCopiesTheAnswer) {
    char answer[kPathSize] = "previous";
    feed("hello there\r\n\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptLine("Name [%s]: ", answer), 0);
    EXPECT_STREQ(answer, "hello there");
    EXPECT_EQ(promptLine("Name [%s]: ", answer), 0);
    EXPECT_STREQ(answer, "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Name [previous]: Name [hello there]: ");
}

TEST_F(ConsoleTest, PromptLineAtEndOfInputAndWithAnOverlongLine) {
    char answer[kPathSize] = "kept";
    feed("");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptLine("<ENTER> to continue...", answer), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "<ENTER> to continue...");
    EXPECT_STREQ(answer, "kept");

    feed(std::string(600, 'L') + "\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(promptLine("%s", answer), 0);
    EXPECT_EQ(std::string(answer), std::string(511, 'L'));
    EXPECT_EQ(promptLine("", answer), 0);
    EXPECT_EQ(std::string(answer), std::string(89, 'L'));
    testing::internal::GetCapturedStdout();
}
