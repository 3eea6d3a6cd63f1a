// End-to-end: the opening screens of an interactive run, the licence agreement, and hostile
// input at the prompts.
#include "tests/harness.h"

namespace {

class ConsoleTest : public InstallerTest {
protected:
    std::string licenseText() { return readFile(demoPayload() + "/license.txt"); }
};

TEST_F(ConsoleTest, BannerIsTheFirstOutputByteForByte) {
    const std::string stars = "*************************************************************\n";
    for (const auto& row : {std::make_pair("cvpack", "*           Corvane INSTALLATION PROGRAM            "),
                            std::make_pair("cvpackep", "*       Corvane PLUG-IN INSTALLATION PROGRAM        ")}) {
        SCOPED_TRACE(row.first);
        RunResult r = runQuick("", {}, distributionWith(row.first, std::string("d-") + row.first));
        const std::string expected = "\n\n" + stars + stars + row.second + "\n" +
                                     "*                       Version 10.0                    \n" + stars + stars +
                                     "\nEstimated disk space needed:  167 MB (including 25 MB for tag files)\n\n" +
                                     kPause;
        EXPECT_EQ(r.out.substr(0, expected.size()), expected);
        EXPECT_EQ(countOf(r.out, "INSTALLATION PROGRAM"), 1);
    }
}

TEST_F(ConsoleTest, AgreementIsShownAskedAndAnswered) {
    const std::string license = licenseText();
    ASSERT_FALSE(license.empty());
    const struct {
        std::string answers;   // up to the install directory
        int exitStatus;
        int questions;
    } rows[] = {
        {"\nyes\n", 0, 1},
        {"\nYES\n", 0, 1},
        {"\r\nyes\r\n", 0, 1},
        {"\ny\nn\nYe\n\nyes please\nyes\n", 0, 6},   // anything but the whole word asks again
        {"\nno\n", 1, 1},
        {"\nNo\n", 1, 1},
        {"\n", 1, 1},                                // end of input at the agreement
        {"", 1, 0},                                  // end of input at the pause
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(n));
        std::string inst = path("inst" + std::to_string(n++));
        RunResult r = runQuick(row.answers + (row.exitStatus == 0 ? inst + "\ny\n" : ""));
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, row.exitStatus) << r.out;
        EXPECT_EQ(countOf(r.out, kAgreeQuestion), row.questions) << r.out;
        EXPECT_EQ(appearsInOrder(r.out, {kPause, license, kAgreeQuestion}), row.questions > 0) << r.out;
        EXPECT_EQ(countOf(r.out, kDirQuestion), row.exitStatus == 0 ? 1 : 0);
        EXPECT_EQ(isDirectory(inst), row.exitStatus == 0);
    }
}

TEST_F(ConsoleTest, WithoutLicenseTextNothingIsAsked) {
    DistOptions options;
    options.withLicense = false;
    RunResult r = runQuick("\n" + path("inst") + "\ny\n", {}, makeDistribution(options, "nolicense"));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.out.find("license terms"), std::string::npos);
    EXPECT_NE(r.out.find(kDirQuestion), std::string::npos);
}

TEST_F(ConsoleTest, AgreementIsShownFromADirectoryWithShellCharactersInItsName) {
    const std::string name = "dist 'q' \"dq\" $HOME; touch pwned1; `touch pwned2` $(touch pwned3)";
    std::string odd = makeDistribution(DistOptions(), name);
    ASSERT_TRUE(isRegularFile(odd + "/cvinst"));
    RunResult r = runQuick(interactiveAnswers(path("inst")), {}, odd);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_TRUE(appearsInOrder(r.out, {licenseText(), kAgreeQuestion})) << r.out;
    for (const std::string& dir : {sandbox, odd, dist}) {
        for (const char* marker : {"/pwned1", "/pwned2", "/pwned3"}) EXPECT_FALSE(exists(dir + marker)) << marker;
    }
}

TEST_F(ConsoleTest, HostileInputAtThePromptsDoesNotCrash) {
    const std::string longLine(100000, 'x');
    std::string noise;
    unsigned seed = 12345;
    for (int i = 0; i < 200000; i++) {
        seed = seed * 1103515245u + 12345u;
        char c = (char)(seed >> 16);
        // No "/": an answer taken as install directory stays relative, inside the distribution.
        noise += c == '/' ? '\n' : c;
    }
    const std::string inputs[] = {
        longLine + "\n" + interactiveAnswers(path("inst")),               // at the pause
        "\n" + longLine + "\nyes\n" + path("inst2") + "\ny\n",            // at the agreement
        "\nyes\n" + path(longLine) + "\ny\n" + path("inst3") + "\ny\n",   // far too long for a path
        "\nyes\n" + path("inst4") + "\n" + longLine + "\ny\n",            // at the creation question
        noise,
    };
    for (const std::string& input : inputs) {
        RunResult r = runQuick(input);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.signal, 0) << r.err;
        EXPECT_TRUE(r.exitStatus == 0 || r.exitStatus == 1) << r.exitStatus;
    }
}

}  // namespace
