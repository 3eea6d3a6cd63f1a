// End-to-end: the opening screens of an interactive run, the licence agreement, the end of
// input at every question, and hostile input at the prompts.
#include "tests/harness.h"

namespace {

const std::string kStars = "*************************************************************";
const std::string kAgreeQuestion = "Do you agree to the above license terms? [yes or no]\n";
const std::string kPause = "<ENTER> to continue...";

std::string expectedBanner(const std::string& title) {
    return "\n\n" + kStars + "\n" + kStars + "\n" + title + "\n" +
           "*                       Version 10.0                    \n" + kStars + "\n" + kStars +
           "\n\nEstimated disk space needed:  167 MB (including 25 MB for tag files)\n\n";
}

class ConsoleTest : public InstallerTest {
protected:
    // Skips the disk check and the X check, so that only the questions under test are asked.
    RunResult runWith(const std::string& input) {
        RunOptions options;
        options.args = {"-d", "-post-install"};
        options.input = input;
        return run(options);
    }
    std::string licenseText() { return readFile(demoPayload() + "/license.txt"); }
};

TEST_F(ConsoleTest, BannerIsTheFirstOutputByteForByte) {
    RunResult r = runWith("");
    const std::string expected =
        expectedBanner("*           Corvane INSTALLATION PROGRAM            ") + kPause;
    EXPECT_EQ(r.out.substr(0, expected.size()), expected);
    EXPECT_EQ(countOf(r.out, "INSTALLATION PROGRAM"), 1);
}

TEST_F(ConsoleTest, PluginPackageShowsThePluginTitle) {
    DistOptions options;
    options.package = "cvpackep";
    std::string pluginDist = makeDistribution(options, "plugin");
    RunOptions runOptions;
    runOptions.argv0 = pluginDist + "/cvinst";
    runOptions.cwd = pluginDist;
    RunResult r = run(runOptions);
    const std::string expected =
        expectedBanner("*       Corvane PLUG-IN INSTALLATION PROGRAM        ") + kPause;
    EXPECT_EQ(r.out.substr(0, expected.size()), expected);
}

TEST_F(ConsoleTest, EndOfInputAtThePauseFails) {
    RunResult r = runWith("");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find(kPause), std::string::npos);
    EXPECT_EQ(r.out.find(kAgreeQuestion), std::string::npos);
}

TEST_F(ConsoleTest, AgreementIsShownThenAskedAndYesGoesOn) {
    RunResult r = runWith(interactiveAnswers(path("inst")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    std::string license = licenseText();
    ASSERT_FALSE(license.empty());
    EXPECT_TRUE(appearsInOrder(r.out, {kPause, license, kAgreeQuestion, "Install directory ["}))
        << r.out;
    EXPECT_EQ(countOf(r.out, kAgreeQuestion), 1);
}

TEST_F(ConsoleTest, AgreementDemandsTheWholeWord) {
    RunResult r = runWith("\ny\nn\nYe\n\nyes please\nyes\n" + path("inst") + "\ny\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    // Five answers that are neither "yes" nor "no", each answered by the question again.
    EXPECT_EQ(countOf(r.out, kAgreeQuestion), 6);
    EXPECT_EQ(countOf(r.out, "Install directory ["), 1);
}

TEST_F(ConsoleTest, AgreementAnswerIgnoresCase) {
    RunResult r = runWith("\nYES\n" + path("inst") + "\ny\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(countOf(r.out, kAgreeQuestion), 1);
}

TEST_F(ConsoleTest, AgreementRefusedEndsTheRun) {
    for (const char* refusal : {"no\n", "No\n"}) {
        RunResult r = runWith(std::string("\n") + refusal + path("inst") + "\ny\n");
        EXPECT_EQ(r.exitStatus, 1) << refusal;
        EXPECT_EQ(countOf(r.out, kAgreeQuestion), 1);
        EXPECT_EQ(r.out.find("Install directory ["), std::string::npos) << r.out;
        EXPECT_FALSE(exists("inst"));
    }
}

TEST_F(ConsoleTest, WithoutLicenseTextNothingIsAsked) {
    DistOptions options;
    options.withLicense = false;
    std::string plain = makeDistribution(options, "nolicense");
    RunOptions runOptions;
    runOptions.argv0 = plain + "/cvinst";
    runOptions.cwd = plain;
    runOptions.args = {"-d", "-post-install"};
    runOptions.input = "\n" + path("inst") + "\ny\n";
    RunResult r = run(runOptions);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.out.find("license terms"), std::string::npos);
    EXPECT_NE(r.out.find("Install directory ["), std::string::npos);
}

TEST_F(ConsoleTest, EndOfInputAtTheAgreementFails) {
    RunResult r = runWith("\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_EQ(countOf(r.out, kAgreeQuestion), 1);
    EXPECT_EQ(r.out.find("Install directory ["), std::string::npos);
}

TEST_F(ConsoleTest, EndOfInputAtTheInstallDirectoryQuestionFails) {
    RunResult r = runWith("\nyes\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("Install directory [/opt/corvane/]: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Corvane Install: Cannot query install directory.\n"), std::string::npos);
}

TEST_F(ConsoleTest, EndOfInputAtTheCreationQuestionFails) {
    RunResult r = runWith("\nyes\n" + path("inst") + "\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("does not exist. Create [Y]? "), std::string::npos) << r.out;
    EXPECT_FALSE(exists("inst"));
}

TEST_F(ConsoleTest, OpenInputDoesNotSatisfyAQuestion) {
    // The installer waits at the pause as long as the input stays open; the harness ends it.
    RunOptions options;
    options.args = {"-d", "-post-install"};
    options.closeInput = false;
    options.timeoutSeconds = 2;
    RunResult r = run(options);
    EXPECT_TRUE(r.timedOut);
    EXPECT_NE(r.out.find(kPause), std::string::npos);
    EXPECT_EQ(r.out.find(kAgreeQuestion), std::string::npos);
}

TEST_F(ConsoleTest, AgreementIsShownFromADirectoryWithShellCharactersInItsName) {
    const std::string name = "dist 'q' \"dq\" $HOME; touch pwned1; `touch pwned2` $(touch pwned3)";
    std::string odd = makeDistribution(DistOptions(), name);
    ASSERT_TRUE(isRegularFile(odd + "/cvinst"));
    RunOptions options;
    options.argv0 = odd + "/cvinst";
    options.cwd = odd;
    options.args = {"-d", "-post-install"};
    options.input = interactiveAnswers(path("inst"));
    RunResult r = run(options);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_TRUE(appearsInOrder(r.out, {licenseText(), kAgreeQuestion})) << r.out;
    for (const char* marker : {"pwned1", "pwned2", "pwned3"}) {
        EXPECT_FALSE(exists(marker)) << marker;
        EXPECT_FALSE(exists(odd + "/" + marker)) << marker;
        EXPECT_FALSE(exists(dist + "/" + marker)) << marker;
    }
}

TEST_F(ConsoleTest, VeryLongLinesAtEveryPromptDoNotCrash) {
    const std::string longLine(100000, 'x');
    const std::string inputs[] = {
        // at the pause, then a normal run
        longLine + "\n" + interactiveAnswers(path("inst")),
        // at the agreement, which asks again for every piece of the line
        "\n" + longLine + "\nyes\n" + path("inst2") + "\ny\n",
        // at the install directory question: far too long for a path
        "\nyes\n" + path(longLine) + "\ny\n" + path("inst3") + "\ny\n",
        // at the creation question
        "\nyes\n" + path("inst4") + "\n" + longLine + "\ny\n",
    };
    for (const std::string& input : inputs) {
        RunResult r = runWith(input);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.signal, 0) << r.err;
        EXPECT_TRUE(r.exitStatus == 0 || r.exitStatus == 1) << r.exitStatus;
    }
}

TEST_F(ConsoleTest, BinaryInputAtThePromptsDoesNotCrash) {
    std::string noise;
    unsigned seed = 12345;
    for (int i = 0; i < 200000; i++) {
        seed = seed * 1103515245u + 12345u;
        char c = (char)(seed >> 16);
        // No "/": an answer taken as install directory stays relative, inside the sandbox.
        noise += c == '/' ? '\n' : c;
    }
    RunResult r = runWith(noise);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.signal, 0) << r.err;
    EXPECT_TRUE(r.exitStatus == 0 || r.exitStatus == 1) << r.exitStatus;
}

}  // namespace
