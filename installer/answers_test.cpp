#include "installer/answers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class AnswersFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/cvinst-answers-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir = pattern;
        file = dir + "/setup.ini";
        markerEnd = gEulaBypassMarker + strlen(gEulaBypassMarker) - 1;
        savedMarker = *markerEnd;
        // start from rubbish so that the reset is visible
        memset(&answers, 0x5a, sizeof(answers));
    }
    void TearDown() override {
        *markerEnd = savedMarker;
        std::string cmd = "rm -rf '" + dir + "'";
        ASSERT_EQ(0, system(cmd.c_str()));
    }

    void setEulaBypass(bool on) { *markerEnd = on ? '1' : '0'; }

    int32_t readText(const std::string& bytes) {
        FILE* f = fopen(file.c_str(), "wb");
        EXPECT_NE(nullptr, f);
        if (f) {
            fwrite(bytes.data(), 1, bytes.size(), f);
            fclose(f);
        }
        return readAnswersFile(file.c_str(), &answers);
    }

    void expectAllUnset() {
        EXPECT_EQ(-1, answers.acceptEula);
        EXPECT_STREQ("", answers.destinationDir);
        EXPECT_STREQ("", answers.backupDir);
        EXPECT_STREQ("", answers.eclipseDir);
        EXPECT_EQ(-1, answers.addProgramIcon);
        EXPECT_EQ(-1, answers.addToPath);
        EXPECT_EQ(-1, answers.associateWithTornado);
        EXPECT_EQ(-1, answers.installCygwin);
        EXPECT_EQ(-1, answers.installJdk);
        EXPECT_EQ(-1, answers.checkForRunningEditor);
        EXPECT_EQ(-1, answers.postInstall);
    }

    std::string dir, file;
    InstallAnswers answers;
    char* markerEnd = nullptr;
    char savedMarker = '0';
};

TEST(YesNoTest, WordsInAnyCase) {
    for (const char* yes : {"yes", "YES", "On", "enabled", "ENABLED", "1"}) EXPECT_EQ(1, parseYesNo(yes)) << yes;
    for (const char* no : {"no", "No", "OFF", "disabled", "Disabled", "0"}) EXPECT_EQ(0, parseYesNo(no)) << no;
    for (const char* other : {"", "y", "n", "maybe", "yes ", " no", "true", "01", "enable"})
        EXPECT_EQ(-1, parseYesNo(other)) << other;
}

TEST_F(AnswersFileTest, TypicalFileWithBypassOff) {
    setEulaBypass(false);
    ASSERT_EQ(0, readText("[unattended]\n; answers for the console installer\nAcceptEula=yes\n"
                          "DestinationDir=/opt/corvane/\nPostInstall=disabled\n"));
    EXPECT_EQ(-1, answers.acceptEula);
    EXPECT_STREQ("/opt/corvane/", answers.destinationDir);
    EXPECT_EQ(0, answers.postInstall);
}

TEST_F(AnswersFileTest, AcceptEulaCountsOnlyWithBypassOn) {
    setEulaBypass(true);
    ASSERT_EQ(0, readText("[unattended]\nacceptEULA=ENABLED\n"));
    EXPECT_EQ(1, answers.acceptEula);
    setEulaBypass(false);
    ASSERT_EQ(0, readText("[unattended]\nacceptEULA=ENABLED\n"));
    EXPECT_EQ(-1, answers.acceptEula);
}

TEST_F(AnswersFileTest, EveryKeyReachesItsField) {
    ASSERT_EQ(0, readText("[Unattended]\nDESTINATIONDIR=/d\nbackupdir=/b/\nEclipseDir=/e\n"
                          "AddProgramIcon=yes\nAddVSEToPath=no\nAssociateWithTornado=on\n"
                          "InstallCygwin=off\nInstallJDK=1\nCheckForRunningVSE=0\n"
                          "PostInstall=enabled\nUnknownKey=yes\n"));
    EXPECT_STREQ("/d", answers.destinationDir);
    EXPECT_STREQ("/b/", answers.backupDir);
    EXPECT_STREQ("/e", answers.eclipseDir);
    EXPECT_EQ(1, answers.addProgramIcon);
    EXPECT_EQ(0, answers.addToPath);
    EXPECT_EQ(1, answers.associateWithTornado);
    EXPECT_EQ(0, answers.installCygwin);
    EXPECT_EQ(1, answers.installJdk);
    EXPECT_EQ(0, answers.checkForRunningEditor);
    EXPECT_EQ(1, answers.postInstall);
    EXPECT_EQ(-1, answers.acceptEula);
}

TEST_F(AnswersFileTest, MissingFileOrSectionResetsEverything) {
    EXPECT_EQ(-1, readAnswersFile((dir + "/absent.ini").c_str(), &answers));
    expectAllUnset();
    memset(&answers, 0x5a, sizeof(answers));
    EXPECT_EQ(-1, readText("[attended]\nPostInstall=yes\n"));
    expectAllUnset();
    memset(&answers, 0x5a, sizeof(answers));
    EXPECT_EQ(-1, readText(""));
    expectAllUnset();
}

TEST_F(AnswersFileTest, DirectoryInsteadOfFileIsNoAnswers) {
    ASSERT_EQ(0, mkdir(file.c_str(), 0755));
    EXPECT_EQ(-1, readAnswersFile(file.c_str(), &answers));
    expectAllUnset();
}

TEST_F(AnswersFileTest, CarriageReturnLineEnds) {
    ASSERT_EQ(0, readText("[unattended]\rPostInstall=yes\rBackupDir=/b\r"));
    EXPECT_EQ(1, answers.postInstall);
    EXPECT_STREQ("/b", answers.backupDir);
    ASSERT_EQ(0, readText("[unattended]\r\nPostInstall=no\r\nBackupDir=/c\r\n"));
    EXPECT_EQ(0, answers.postInstall);
    EXPECT_STREQ("/c", answers.backupDir);
}

TEST_F(AnswersFileTest, BlanksAreNotTrimmed) {
    setEulaBypass(true);
    ASSERT_EQ(0, readText("[unattended]\nAcceptEula = yes\nPostInstall= yes\n"
                          "  DestinationDir=/opt/x \n"));
    EXPECT_EQ(-1, answers.acceptEula);
    EXPECT_EQ(-1, answers.postInstall);
    EXPECT_STREQ("/opt/x ", answers.destinationDir);
}

TEST_F(AnswersFileTest, LastOfTwoValuesWins) {
    ASSERT_EQ(0, readText("[unattended]\nPostInstall=yes\nDestinationDir=/one\npostinstall=maybe\n"
                          "DestinationDir=/two\n"));
    EXPECT_EQ(-1, answers.postInstall);
    EXPECT_STREQ("/two", answers.destinationDir);
}

TEST_F(AnswersFileTest, OnlyTheFirstUnattendedSectionCounts) {
    ASSERT_EQ(0, readText("PostInstall=yes\n[other]\nBackupDir=/other\n[unattended]\n"
                          "DestinationDir=/first\n[more]\nInstallJDK=yes\n"
                          "[unattended]\nPostInstall=no\nDestinationDir=/second\n"));
    EXPECT_EQ(-1, answers.postInstall);
    EXPECT_STREQ("", answers.backupDir);
    EXPECT_EQ(-1, answers.installJdk);
    EXPECT_STREQ("/first", answers.destinationDir);
}

TEST_F(AnswersFileTest, CommentsAreSkipped) {
    ASSERT_EQ(0, readText("[unattended]\n;PostInstall=yes\n   ; DestinationDir=/x\nInstallJDK=no\n"));
    EXPECT_EQ(-1, answers.postInstall);
    EXPECT_STREQ("", answers.destinationDir);
    EXPECT_EQ(0, answers.installJdk);
}

TEST_F(AnswersFileTest, FinalCtrlZIsNotPartOfTheLastValue) {
    ASSERT_EQ(0, readText("[unattended]\nPostInstall=yes\x1a"));
    EXPECT_EQ(1, answers.postInstall);
}

TEST_F(AnswersFileTest, LongPathIsCut) {
    std::string longPath = "/" + std::string(2000, 'd');
    ASSERT_EQ(0, readText("[unattended]\nDestinationDir=" + longPath + "\nPostInstall=on\n"));
    EXPECT_EQ(longPath.substr(0, kPathSize - 1), answers.destinationDir);
    EXPECT_EQ(1, answers.postInstall);
}

TEST_F(AnswersFileTest, NulByteEndsTheText) {
    static const char kText[] = "[unattended]\nInstallJDK=yes\n\0PostInstall=yes\n";
    ASSERT_EQ(0, readText(std::string(kText, sizeof(kText) - 1)));
    EXPECT_EQ(1, answers.installJdk);
    EXPECT_EQ(-1, answers.postInstall);
}

TEST_F(AnswersFileTest, ArbitraryBytesAreHarmless) {
    std::mt19937 gen(2024);
    for (int round = 0; round < 4; ++round) {
        std::string bytes(2 << 20, '\0');
        for (char& c : bytes) c = static_cast<char>(gen() & 0xff);
        if (round % 2 == 1) bytes = "[unattended]\n" + bytes;
        int32_t result = readText(bytes);
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_LT(strlen(answers.destinationDir), static_cast<size_t>(kPathSize));
        EXPECT_LT(strlen(answers.backupDir), static_cast<size_t>(kPathSize));
        EXPECT_LT(strlen(answers.eclipseDir), static_cast<size_t>(kPathSize));
    }
}

}  // namespace
