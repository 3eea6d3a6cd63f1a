// The start banner and the licence agreement question.
#include "installer/screens.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "installer/console.h"
#include "installer/shellcmd.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

const char kQuestion[] = "Do you agree to the above license terms? [yes or no]\n";

class ScreensTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        char pattern[] = "/tmp/screens_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override {
        gConsoleIn = nullptr;
        if (input_ != nullptr) fclose(input_);
        char command[1024];
        if (formatShellCommand(command, sizeof(command), "rm -rf %s", dir.c_str()) == 0) runShell(command);
    }
    void feed(const std::string& text) {
        input_ = tmpfile();
        ASSERT_NE(input_, nullptr);
        fwrite(text.data(), 1, text.size(), input_);
        rewind(input_);
        gConsoleIn = input_;
    }
    // A distribution directory holding a licence text; gDistribDir points at it.
    void makeDistribution(const std::string& sub, bool withSlash) {
        std::string path = dir + "/" + sub;
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        FILE* f = fopen((path + "/license.txt").c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs("LICENSE TERMS\nline two\n", f);
        fclose(f);
        strCopyBounded(gDistribDir, (withSlash ? path + "/" : path).c_str(), kDistribDirSize);
    }
    int32_t agreement(const std::string& answers, std::string* out) {
        feed(answers);
        testing::internal::CaptureStdout();
        int32_t result = showEula();
        *out = testing::internal::GetCapturedStdout();
        return result;
    }

    std::string dir;
    FILE* input_ = nullptr;
};

// The pager's output (when it does not write to a terminal it may put a header above the
// text), followed by the given number of questions.
::testing::AssertionResult shownThenAsked(const std::string& out, const std::string& text, int questions) {
    std::string asked;
    for (int i = 0; i < questions; i++) asked += kQuestion;
    if (out.size() < asked.size() || out.compare(out.size() - asked.size(), asked.size(), asked) != 0) {
        return ::testing::AssertionFailure() << "does not end in " << questions << " questions: " << out;
    }
    std::string shown = out.substr(0, out.size() - asked.size());
    if (shown.size() < text.size() || shown.compare(shown.size() - text.size(), text.size(), text) != 0) {
        return ::testing::AssertionFailure() << "the agreement text is not shown: " << shown;
    }
    if (shown.find(kQuestion) != std::string::npos) return ::testing::AssertionFailure() << "asked too often";
    return ::testing::AssertionSuccess();
}

std::string banner(const std::string& title) {
    const std::string stars = "*************************************************************\n";
    return "\n\n" + stars + stars + title + "\n" +
           "*                       Version 10.0                    \n" + stars + stars + "\n" +
           "Estimated disk space needed:  167 MB (including 25 MB for tag files)\n\n";
}

}  // namespace

TEST_F(ScreensTest, BannerOfTheEditor) {
    testing::internal::CaptureStdout();
    int32_t count = showBanner();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, banner("*           Corvane INSTALLATION PROGRAM            "));
    EXPECT_EQ(count, static_cast<int32_t>(out.size()));
}

TEST_F(ScreensTest, BannerOfThePlugIn) {
    gState.pluginMode = 1;
    testing::internal::CaptureStdout();
    showBanner();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), banner("*       Corvane PLUG-IN INSTALLATION PROGRAM        "));
}

TEST_F(ScreensTest, AgreementShowsTheTextAndTakesYes) {
    makeDistribution("dist", true);
    std::string out;
    EXPECT_EQ(agreement("yes\n", &out), 0);
    EXPECT_TRUE(shownThenAsked(out, "LICENSE TERMS\nline two\n", 1));
}

TEST_F(ScreensTest, AgreementWantsTheWholeWord) {
    makeDistribution("dist", false);
    std::string out;
    EXPECT_EQ(agreement("y\n\nyess\nYES\n", &out), 0);
    EXPECT_TRUE(shownThenAsked(out, "LICENSE TERMS\nline two\n", 4));
    EXPECT_EQ(agreement("n\nNo\r\n", &out), 1);
    EXPECT_TRUE(shownThenAsked(out, "LICENSE TERMS\nline two\n", 2));
}

TEST_F(ScreensTest, AgreementAtEndOfInputIsARefusal) {
    makeDistribution("dist", true);
    std::string out;
    EXPECT_EQ(agreement("maybe\n", &out), 1);
    EXPECT_TRUE(shownThenAsked(out, "LICENSE TERMS\nline two\n", 2));
}

TEST_F(ScreensTest, NoAgreementTextMeansNoQuestion) {
    strCopyBounded(gDistribDir, (dir + "/").c_str(), kDistribDirSize);
    std::string out;
    EXPECT_EQ(agreement("no\n", &out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(ScreensTest, AgreementInADirectoryWithShellCharacters) {
    makeDistribution("cd $(touch PWNED) it's `x`; \"q\"", true);
    std::string out;
    EXPECT_EQ(agreement("yes\n", &out), 0);
    EXPECT_TRUE(shownThenAsked(out, "LICENSE TERMS\nline two\n", 1));
    struct stat info;
    EXPECT_NE(stat((dir + "/PWNED").c_str(), &info), 0);
    EXPECT_NE(stat("PWNED", &info), 0);
}

TEST_F(ScreensTest, OverlongDistributionDirectoryIsCut) {
    // Only the first 512 characters of the directory are used: with a directory of 700
    // characters the agreement is looked for at <first 512>/license.txt.
    std::string cut = dir;
    while (cut.size() < 512) {
        size_t room = 512 - cut.size() - 1;
        cut += "/" + std::string(room < 200 ? room : 200, 'c');
    }
    ASSERT_EQ(cut.size(), 512u);
    char command[1024];
    ASSERT_EQ(formatShellCommand(command, sizeof(command), "mkdir -p %s", cut.c_str()), 0);
    ASSERT_EQ(runShell(command), 0);
    FILE* f = fopen((cut + "/license.txt").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("cut terms\n", f);
    fclose(f);
    strCopyBounded(gDistribDir, (cut + std::string(188, 'z') + "/").c_str(), kDistribDirSize);
    std::string out;
    EXPECT_EQ(agreement("no\n", &out), 1);
    EXPECT_TRUE(shownThenAsked(out, "cut terms\n", 1));
}
