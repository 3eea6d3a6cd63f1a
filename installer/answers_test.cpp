// The answers file read directly: the keys a run does not act on, and entries that do not fit.
#include "installer/answers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

int32_t readText(const std::string& bytes, InstallAnswers* answers) {
    char name[] = "/tmp/cvinst-answers-XXXXXX";
    FILE* f = fdopen(mkstemp(name), "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    int32_t result = readAnswersFile(name, answers);
    remove(name);
    return result;
}

TEST(AnswersFile, EveryKeyReachesItsFieldAndWhatDoesNotFitIsDropped) {
    InstallAnswers a;
    memset(&a, 0x5a, sizeof(a));  // rubbish, so that the reset shows
    ASSERT_EQ(readText("[Unattended]\nbackupdir=/b/\nEclipseDir=/e\nAddProgramIcon=yes\nAddVSEToPath=no\n"
                       "AssociateWithTornado=on\nInstallCygwin=off\nInstallJDK=1\nCheckForRunningVSE=0\nUnknownKey=yes\n",
                       &a), 0);
    EXPECT_TRUE(!strcmp(a.backupDir, "/b/") && !strcmp(a.eclipseDir, "/e") && !strcmp(a.destinationDir, ""));
    EXPECT_TRUE(a.addProgramIcon == 1 && a.addToPath == 0 && a.associateWithTornado == 1 && a.installCygwin == 0);
    EXPECT_TRUE(a.installJdk == 1 && a.checkForRunningEditor == 0 && a.postInstall == -1 && a.acceptEula == -1);
    // A key or value that does not fit goes with the rest of its line, never read as another entry.
    ASSERT_EQ(readText("[unattended]\r" + std::string(1023, 'k') + "EclipseDir=/x\rBackupDir=/b\r", &a), 0);
    EXPECT_TRUE(!strcmp(a.eclipseDir, "") && !strcmp(a.backupDir, "/b"));
    std::string cutValue = "/" + std::string(kPathSize - 2, 'd');
    ASSERT_EQ(readText("[unattended]\nEclipseDir=" + cutValue + "InstallJDK=on\nAddVSEToPath=on\n", &a), 0);
    EXPECT_TRUE(a.eclipseDir == cutValue && a.installJdk == -1 && a.addToPath == 1);
}

}  // namespace
