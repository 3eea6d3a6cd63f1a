// End-to-end harness. Every case is a row of a table: bash command lines run in a fresh sandbox
// that holds a copy of the demo distribution, then the output and the files left behind are
// checked. The shell functions that the command lines use (tree, tard, inst, ...) are in
// tests/lib.sh, which is sourced before each of them.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

struct Case {
    std::string name;
    std::string setup;    // prepares the sandbox and must succeed
    std::string command;  // the run under test, with `input` on its standard input
    std::string input;
    int status;  // expected exit status of the command (128 + n: killed by signal n)
    // Expected output: standard output, then "[stderr]\n" and standard error when there is any.
    // Fragments match in this order; "!x": x does not come behind the previous match; "^x",
    // "$x", "=x": the output begins with, ends with, or is x.
    std::vector<std::string> out = {};
    std::vector<std::string> checks = {};  // bash conditions that hold afterwards ($O: the output)
    std::vector<std::pair<std::string, std::string>> files = {};  // written behind the setup
    int statfsErrno = 0;  // statfs fails with this error in every process of the run
};
// In every text of a case "$S" stands for the sandbox and "$D" for the distribution in it. A
// setup or command that prints "skip: <reason>" and exits 77 skips the case.

class E2E : public ::testing::TestWithParam<Case> {};

#define E2E_CASES(suite, ...)                                                                 \
    INSTANTIATE_TEST_SUITE_P(suite, E2E, ::testing::ValuesIn(std::vector<Case>{__VA_ARGS__}), \
                             [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; })

using Str = const std::string&;
using Lines = std::vector<std::string>;
inline const std::string kPause = "<ENTER> to continue...";
inline const std::string kAgree = "Do you agree to the above license terms? [yes or no]\n";
inline const std::string kDirQ = "Install directory [";
inline const std::string kCreate = "does not exist. Create [Y]? ";
inline const std::string kDone = "INSTALLATION SUCCESSFULLY COMPLETED";
inline const std::string kStars(61, '*');
inline const std::string kOpen = "\nyes\n";  // Enter at the pause, "yes" to the agreement
// Input of a whole interactive run into dir, created on the question.
inline std::string answers(const std::string& dir) {
    return kOpen + dir + "\ny\n";
}
inline std::string msg(const std::string& text) {
    return "Corvane Install: " + text + "\n";
}
inline std::string noAccess(const std::string& dir) {
    return msg("Insufficient access to " + dir + ". Read/Write access is required.");
}
// A case whose run is given the pause and the agreement (kOpen) and nothing more.
inline Case opened(Str name, Str setup, Str command, int status, const Lines& out, const Lines& checks = {}) {
    return {name, setup, command, kOpen, status, out, checks};
}
// The text as one single-quoted shell word.
std::string shq(const std::string& text);
// A file of the demo payload.
std::string demoFile(const std::string& name);
inline void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}
