// The answers file read directly: the keys a run does not act on yet, and the reader's bounds
// (which only a sanitizer build can watch).
#include "installer/answers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

namespace {

int32_t readText(const std::string& bytes, InstallAnswers* answers) {
    char name[] = "/tmp/cvinst-answers-XXXXXX";
    int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    FILE* f = fdopen(fd, "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    int32_t result = readAnswersFile(name, answers);
    remove(name);
    return result;
}

TEST(AnswersFileTest, EveryKeyReachesItsField) {
    InstallAnswers a;
    memset(&a, 0x5a, sizeof(a));   // rubbish, so that the reset shows
    ASSERT_EQ(readText("[Unattended]\nbackupdir=/b/\nEclipseDir=/e\nAddProgramIcon=yes\nAddVSEToPath=no\n"
                       "AssociateWithTornado=on\nInstallCygwin=off\nInstallJDK=1\nCheckForRunningVSE=0\n"
                       "UnknownKey=yes\n",
                       &a),
              0);
    EXPECT_STREQ("/b/", a.backupDir);
    EXPECT_STREQ("/e", a.eclipseDir);
    EXPECT_STREQ("", a.destinationDir);
    const int32_t got[] = {a.addProgramIcon, a.addToPath, a.associateWithTornado, a.installCygwin,
                           a.installJdk, a.checkForRunningEditor, a.postInstall, a.acceptEula};
    const int32_t expected[] = {1, 0, 1, 0, 1, 0, -1, -1};
    for (int i = 0; i < 8; i++) EXPECT_EQ(expected[i], got[i]) << "field " << i;
}

TEST(AnswersFileTest, OverlongKeysValuesAndGarbageStayInBounds) {
    InstallAnswers a;
    // What does not fit is dropped with the rest of its line, never read as another entry.
    std::string cutKey = std::string(1023, 'k') + "EclipseDir=/x\rBackupDir=/b\r";
    ASSERT_EQ(readText("[unattended]\r" + cutKey, &a), 0);
    EXPECT_STREQ("", a.eclipseDir);
    EXPECT_STREQ("/b", a.backupDir);
    std::string cutValue = "/" + std::string(kPathSize - 2, 'd');
    ASSERT_EQ(readText("[unattended]\nEclipseDir=" + cutValue + "InstallJDK=on\nAddVSEToPath=on\n", &a), 0);
    EXPECT_EQ(cutValue, a.eclipseDir);
    EXPECT_EQ(-1, a.installJdk);
    EXPECT_EQ(1, a.addToPath);

    std::mt19937 gen(2024);
    for (int round = 0; round < 4; ++round) {
        std::string bytes(1 << 20, '\0');
        for (char& c : bytes) c = static_cast<char>(gen() & 0xff);
        if (round % 2 == 1) bytes = "[unattended]\n" + bytes;
        int32_t result = readText(bytes, &a);
        EXPECT_TRUE(result == 0 || result == -1);
        EXPECT_LT(strlen(a.backupDir), static_cast<size_t>(kPathSize));
        EXPECT_LT(strlen(a.eclipseDir), static_cast<size_t>(kPathSize));
    }
}

}  // namespace
