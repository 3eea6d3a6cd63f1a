#include "installer/cmdline.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "installer/state.h"

namespace {

class CommandLineTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        markerEnd = gEulaBypassMarker + strlen(gEulaBypassMarker) - 1;
        savedMarker = *markerEnd;
    }
    void TearDown() override { *markerEnd = savedMarker; }

    void setEulaBypass(bool on) { *markerEnd = on ? '1' : '0'; }

    // Runs the parser on the given vector (first element is the program name).
    static uint32_t parse(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        return parseCommandLine(static_cast<int>(args.size()), argv.data());
    }

    char* markerEnd = nullptr;
    char savedMarker = '0';
};

TEST_F(CommandLineTest, ExactSwitchesSetTheirFlags) {
    EXPECT_EQ(0u, parse({"cvinst", "-s", "-d", "-v", "-cleanup"}));
    EXPECT_EQ(1, gState.skipVerification);
    EXPECT_EQ(1, gState.skipDiskSpaceCheck);
    EXPECT_EQ(1, gState.verbose);
    EXPECT_EQ(1, gState.cleanupAfterInstall);
}

TEST_F(CommandLineTest, SwitchesStartAfreshButPresetsStay) {
    gState.skipVerification = 1;
    gState.verbose = 1;
    gState.cleanupAfterInstall = 1;
    strcpy(gState.osTypeOverride, "aix-4-3");
    gState.skipDiskSpaceCheck = 1;
    strcpy(gState.answers.destinationDir, "/from/answers/");
    gState.answers.postInstall = 0;

    parse({"cvinst"});
    EXPECT_EQ(0, gState.skipVerification);
    EXPECT_EQ(0, gState.verbose);
    EXPECT_EQ(0, gState.cleanupAfterInstall);
    EXPECT_STREQ("", gState.osTypeOverride);
    // the disk-space switch is not among the ones cleared
    EXPECT_EQ(1, gState.skipDiskSpaceCheck);
    EXPECT_STREQ("/from/answers/", gState.answers.destinationDir);
    EXPECT_EQ(0, gState.answers.postInstall);
}

TEST_F(CommandLineTest, ExactSwitchesAreCaseSensitiveAndWhole) {
    parse({"cvinst", "-S", "-D", "-V", "-CLEANUP", "--v", "-s ", "s", "-cleanup2"});
    EXPECT_EQ(0, gState.skipVerification);
    EXPECT_EQ(0, gState.skipDiskSpaceCheck);
    EXPECT_EQ(0, gState.verbose);
    EXPECT_EQ(0, gState.cleanupAfterInstall);
}

TEST_F(CommandLineTest, TheProgramNameIsExaminedLikeAnyArgument) {
    parse({"-v"});
    EXPECT_EQ(1, gState.verbose);
}

TEST_F(CommandLineTest, OsTypeTakesTheNextArgumentWhateverItIs) {
    parse({"cvinst", "-o", "irix-6-5"});
    EXPECT_STREQ("irix-6-5", gState.osTypeOverride);

    parse({"cvinst", "-o", "-v"});
    EXPECT_STREQ("-v", gState.osTypeOverride);
    EXPECT_EQ(0, gState.verbose);

    parse({"cvinst", "-s", "-o"});
    EXPECT_STREQ("", gState.osTypeOverride);
    EXPECT_EQ(1, gState.skipVerification);
}

TEST_F(CommandLineTest, LongOptionsIgnoreTheirFirstCharacterAndCase) {
    parse({"cvinst", "-destination-dir", "/a/"});
    EXPECT_STREQ("/a/", gState.answers.destinationDir);
    parse({"cvinst", "+DESTINATION-DIR", "/b/"});
    EXPECT_STREQ("/b/", gState.answers.destinationDir);
    parse({"cvinst", "xDestination-Dir", "/c/"});
    EXPECT_STREQ("/c/", gState.answers.destinationDir);

    parse({"cvinst", "--destination-dir", "/d/"});
    EXPECT_STREQ("/c/", gState.answers.destinationDir);
    parse({"cvinst", "destination-dir", "/e/"});
    EXPECT_STREQ("/c/", gState.answers.destinationDir);
}

TEST_F(CommandLineTest, EveryPathOptionFillsItsOwnField) {
    parse({"cvinst", "-backup-dir", "/save/", "-eclipse-dir", "/opt/eclipse", "-destination-dir",
           "/opt/x"});
    EXPECT_STREQ("/save/", gState.answers.backupDir);
    EXPECT_STREQ("/opt/eclipse", gState.answers.eclipseDir);
    EXPECT_STREQ("/opt/x", gState.answers.destinationDir);
}

TEST_F(CommandLineTest, PathOptionWithoutValueChangesNothing) {
    strcpy(gState.answers.destinationDir, "/preset/");
    parse({"cvinst", "-destination-dir"});
    EXPECT_STREQ("/preset/", gState.answers.destinationDir);
}

TEST_F(CommandLineTest, PathOptionLeavesAnOptionLikeArgumentToBeExamined) {
    strcpy(gState.answers.destinationDir, "/preset/");
    parse({"cvinst", "-destination-dir", "-v"});
    EXPECT_STREQ("/preset/", gState.answers.destinationDir);
    EXPECT_EQ(1, gState.verbose);

    parse({"cvinst", "-backup-dir", "+post-install", "/not/taken/"});
    EXPECT_STREQ("", gState.answers.backupDir);
    EXPECT_EQ(1, gState.answers.postInstall);
}

TEST_F(CommandLineTest, PathValueIsCutToTheBuffer) {
    std::string longPath = "/" + std::string(700, 'p');
    parse({"cvinst", "-destination-dir", longPath});
    EXPECT_EQ(std::string(longPath, 0, kPathSize - 1), gState.answers.destinationDir);
}

TEST_F(CommandLineTest, PostInstallTakesItsValueFromTheFirstCharacter) {
    parse({"cvinst", "+post-install"});
    EXPECT_EQ(1, gState.answers.postInstall);
    parse({"cvinst", "-Post-Install"});
    EXPECT_EQ(0, gState.answers.postInstall);
    parse({"cvinst", "+POST-INSTALL"});
    EXPECT_EQ(1, gState.answers.postInstall);
    parse({"cvinst", "*post-install"});
    EXPECT_EQ(0, gState.answers.postInstall);
}

TEST_F(CommandLineTest, LaterOccurrenceWins) {
    parse({"cvinst", "+post-install", "-post-install", "-o", "a-1-1", "-o", "b-2-2",
           "-destination-dir", "/first/", "-destination-dir", "/second/"});
    EXPECT_EQ(0, gState.answers.postInstall);
    EXPECT_STREQ("b-2-2", gState.osTypeOverride);
    EXPECT_STREQ("/second/", gState.answers.destinationDir);
}

TEST_F(CommandLineTest, AcceptEulaIsIgnoredWhileBypassIsOff) {
    setEulaBypass(false);
    parse({"cvinst", "+accept-eula"});
    EXPECT_EQ(-1, gState.answers.acceptEula);
    gState.answers.acceptEula = 1;
    parse({"cvinst", "-accept-eula"});
    EXPECT_EQ(1, gState.answers.acceptEula);
}

TEST_F(CommandLineTest, AcceptEulaCountsWhileBypassIsOn) {
    setEulaBypass(true);
    parse({"cvinst", "+Accept-EULA"});
    EXPECT_EQ(1, gState.answers.acceptEula);
    parse({"cvinst", "-accept-eula"});
    EXPECT_EQ(0, gState.answers.acceptEula);
}

TEST_F(CommandLineTest, OddArgumentsAreSkipped) {
    parse({"cvinst", "", "+", "-", "-x", "-verbose", "/some/path", "-s"});
    EXPECT_EQ(1, gState.skipVerification);
    EXPECT_EQ(0, gState.verbose);
}

TEST_F(CommandLineTest, UsageTextIsExact) {
    const char* expected =
        "\n"
        "cvinst Version 10.0\n"
        "USAGE: cvinst [-h][-s][-o ostype-version-release]\n"
        "\n"
        "       -o  -- specify OS type and version information\n"
        "              Examples: irix-6-5 for Irix 6.5\n"
        "                        aix-4-3 for AIX 4.3\n"
        "       -s  -- skip size and checksum verification\n"
        "       -d  -- skip disk space check\n"
        "       -h  -- this help information\n"
        "       -v  -- verbose\n"
        "       -destination-dir -- installation dir\n"
        "       -backup-dir -- Where should files be backed up?\n"
        "       +/-accept-eula -- Accept EULA/Don't accept EULA\n"
        "       +/-post-install -- Perform/Dont perform post-install tasks immediately after "
        "installation\n"
        "\n";
    ::testing::internal::CaptureStdout();
    printUsage();
    EXPECT_EQ(expected, ::testing::internal::GetCapturedStdout());
}

using CommandLineDeathTest = CommandLineTest;

TEST_F(CommandLineDeathTest, HelpEndsTheProcessWithStatusZero) {
    EXPECT_EXIT(parse({"cvinst", "-h"}), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(parse({"cvinst", "-s", "-?", "-v"}), ::testing::ExitedWithCode(0), "");
}

TEST_F(CommandLineTest, UpperCaseHelpIsNotHelp) {
    EXPECT_EQ(0u, parse({"cvinst", "-H", "+h", "-help"}));
}

}  // namespace
