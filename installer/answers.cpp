// The answers file: presets for an unattended run, read from its section "unattended".
#include "installer/answers.h"

#include <strings.h>

#include "installer/inireader.h"
#include "runtime/path.h"
#include "runtime/pool.h"

int32_t parseYesNo(const char* text) {
    static const char* const kYes[] = {"yes", "on", "enabled", "1"};
    static const char* const kNo[] = {"no", "off", "disabled", "0"};
    for (const char* word : kYes)
        if (strcasecmp(text, word) == 0) return 1;
    for (const char* word : kNo)
        if (strcasecmp(text, word) == 0) return 0;
    return -1;
}

// Keys that take a yes/no value, with the field each one fills.
struct YesNoKey {
    const char* key;
    int32_t InstallAnswers::*field;
};

static const YesNoKey kYesNoKeys[] = {
    {"AddProgramIcon", &InstallAnswers::addProgramIcon},
    {"AddVSEToPath", &InstallAnswers::addToPath},
    {"AssociateWithTornado", &InstallAnswers::associateWithTornado},
    {"InstallCygwin", &InstallAnswers::installCygwin},
    {"InstallJDK", &InstallAnswers::installJdk},
    {"CheckForRunningVSE", &InstallAnswers::checkForRunningEditor},
    {"PostInstall", &InstallAnswers::postInstall},
};

static void storeAnswer(InstallAnswers* answers, const char* key, const char* value) {
    if (strcasecmp(key, "AcceptEula") == 0) {
        // An agreement accepted in advance counts only in builds that allow it.
        if (eulaBypassEnabled()) answers->acceptEula = parseYesNo(value);
        return;
    }
    if (strcasecmp(key, "DestinationDir") == 0) {
        strCopyBounded(answers->destinationDir, value, kPathSize);
        return;
    }
    if (strcasecmp(key, "BackupDir") == 0) {
        strCopyBounded(answers->backupDir, value, kPathSize);
        return;
    }
    if (strcasecmp(key, "EclipseDir") == 0) {
        strCopyBounded(answers->eclipseDir, value, kPathSize);
        return;
    }
    for (const YesNoKey& entry : kYesNoKeys) {
        if (strcasecmp(key, entry.key) == 0) {
            answers->*entry.field = parseYesNo(value);
            return;
        }
    }
}

int32_t readAnswersFile(const char* fileName, InstallAnswers* answers) {
    resetInstallAnswers(answers);

    char* text = nullptr;
    int32_t length = 0;
    if (readWholeFile(fileName, &text, &length) != 0) return -1;

    int32_t pos = findIniSection(text, "unattended");
    if (pos < 0) {
        libFree(text);
        return -1;
    }
    char key[kIniKeySize];
    char value[kPathSize];
    while (nextIniEntry(text, &pos, key, value, kPathSize, 1) == 0) storeAnswer(answers, key, value);

    libFree(text);
    return 0;
}
