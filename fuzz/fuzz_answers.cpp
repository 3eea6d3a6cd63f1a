// The answers-file reader on arbitrary bytes as "setup.ini".
#include <cstring>

#include "fuzz/scratch.h"
#include "installer/answers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Half the inputs run with an agreement accepted in advance honoured, as a build for that would.
    gEulaBypassMarker[strlen(gEulaBypassMarker) - 1] = size % 2 ? '1' : '0';
    InstallAnswers answers;
    memset(&answers, 0x5a, sizeof answers);
    int32_t rc = readAnswersFile(writeScratch("setup.ini", data, size).c_str(), &answers);
    if (rc != 0 && rc != -1) abort();
    for (const char* preset : {answers.destinationDir, answers.backupDir, answers.eclipseDir})
        if (memchr(preset, '\0', kPathSize) == nullptr) abort();
    for (int32_t triState :
         {answers.acceptEula, answers.addProgramIcon, answers.addToPath, answers.associateWithTornado,
          answers.installCygwin, answers.installJdk, answers.checkForRunningEditor, answers.postInstall})
        if (triState < -1 || triState > 1) abort();
    if (!(size % 2) && answers.acceptEula != -1) abort();  // not honoured without the build switch
    return 0;
}
