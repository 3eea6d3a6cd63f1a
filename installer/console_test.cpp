// Console primitives a run does not reach or cannot pin down: wrapping and the progress line (the
// questions themselves are asked in every installation).
#include "installer/console.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "runtime/path.h"

namespace {

std::string s(size_t n, char c) {
    return std::string(n, c);
}

// What printWrapped prints for the text, checking the count it answers.
std::string wrapped(const std::string& text) {
    testing::internal::CaptureStdout();
    int32_t count = printWrapped(text.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count, int32_t(out.size())) << text.substr(0, 80);
    return out;
}

TEST(Console, WrapAndProgress) {
    // 144 chunks of 71 characters fill 10224 of the 10239 places: 15 line feeds still fit
    // behind the commas, the rest of the text is printed as it stands.
    std::string chunks, full;
    for (int i = 0; i < 144; i++) {
        chunks += s(70, 'x') + ",";
        full += s(70, 'x') + (i < 15 ? ",\n" : ",");
    }
    const std::pair<std::string, std::string> rows[] = {
        {"Short text, nothing to do.", "Short text, nothing to do."},
        {"", ""},
        {s(50, 'a') + " " + s(20, 'b') + " end", s(50, 'a') + "\n" + s(20, 'b') + " end"},
        {s(55, 'a') + "," + s(20, 'b') + " c", s(55, 'a') + ",\n" + s(20, 'b') + " c"},  // the mark stays
        {s(60, 'a') + ".   next", s(60, 'a') + ".\nnext"},
        {s(65, 'a') + "    b", s(65, 'a') + "\nb"},                                    // blanks go
        {"hello world\n" + s(55, 'a') + " bb", "hello world\n" + s(55, 'a') + " bb"},  // counted from "\n"
        {s(50, 'a') + " " + s(20, 'b') + "\nccc", s(50, 'a') + "\n" + s(20, 'b') + "\nccc"},
        {s(200, 'w'), s(200, 'w')},
        {"go " + s(200, 'w') + " end", "go\n" + s(200, 'w') + "\nend"},  // words stay whole
        {s(70, 'a') + ".", s(70, 'a') + "."},                            // no break behind the last character
        {s(50, 'a') + " " + s(15, 'b') + ".", s(50, 'a') + "\n" + s(15, 'b') + "."},
        {chunks, full},
        {s(12000, 'y'), s(10239, 'y')},
    };
    for (const auto& row : rows) EXPECT_EQ(wrapped(row.first), "\n***\n" + row.second + "\n***\n");
    testing::internal::CaptureStdout();
    printProgress("%s", s(100, 'p').c_str());
    printProgress("%d%% done", 50);
    printBoxed("%s", fieldOf("left|right", 2, '|'));  // the field's text can be handed on
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              s(72, 'p') + "\r50% done" + s(64, ' ') + "\r\n***\nright\n***\n");
}

// An answer loses every line end behind it, a CR LF as well as an LF; nothing else.
TEST(Console, TrimLine) {
    const std::pair<const char*, const char*> rows[] = {
        {"a\r\n", "a"}, {"a\n\n", "a"}, {"a\r", "a"}, {"a \n", "a "}, {"a", "a"}, {"", ""},
    };
    for (const auto& r : rows) {
        char text[16];
        strCopyBounded(text, r.first, sizeof text);
        trimLine(text);
        EXPECT_STREQ(text, r.second) << r.first;
    }
}

}  // namespace
