// The installation record and its start values.
#include "installer/state.h"

#include <cstring>

#include "runtime/path.h"

InstallState gState;
char gDistribDir[kDistribDirSize];
char distribName[kPathSize];

// The last character decides: '1' honours an agreement accepted in advance, anything else
// ignores it. Kept in writable data so that a built program can be switched by patching it.
char gEulaBypassMarker[] = "EnableBypasEula#0";

int32_t eulaBypassEnabled() {
    const volatile char* marker = gEulaBypassMarker;
    size_t n = 0;
    while (marker[n] != '\0') n++;
    return n > 0 && marker[n - 1] == '1' ? 1 : 0;
}

void resetInstallAnswers(InstallAnswers* answers) {
    memset(answers, 0, sizeof(*answers));
    answers->acceptEula = -1;
    answers->addProgramIcon = -1;
    answers->addToPath = -1;
    answers->associateWithTornado = -1;
    answers->installCygwin = -1;
    answers->installJdk = -1;
    answers->checkForRunningEditor = -1;
    answers->postInstall = -1;
}

void resetInstallState() {
    memset(&gState, 0, sizeof(gState));
    resetInstallAnswers(&gState.answers);
    strCopyBounded(gState.productVersion, "10.0", sizeof(gState.productVersion));
    strCopyBounded(gState.installDir, "/opt/corvane/", kPathSize);
    strCopyBounded(gState.binDir, "/opt/corvane/bin/", kPathSize);
    strCopyBounded(gState.macrosDir, "/opt/corvane/macros/", kPathSize);
    strCopyBounded(gState.bitmapsDir, "/opt/corvane/bitmaps/", kPathSize);
    strCopyBounded(gState.answersFileName, "setup.ini", kPathSize);
    gDistribDir[0] = '\0';
    distribName[0] = '\0';
}
