// Program entry: the fixed sequence of installation steps.
#include <cstdio>
#include <cstdlib>

#include "installer/answers.h"
#include "installer/backup.h"
#include "installer/checks.h"
#include "installer/cmdline.h"
#include "installer/console.h"
#include "installer/eclipse.h"
#include "installer/installdir.h"
#include "installer/instlock.h"
#include "installer/links.h"
#include "installer/locate.h"
#include "installer/macros.h"
#include "installer/maderecord.h"
#include "installer/miscfiles.h"
#include "installer/platform.h"
#include "installer/postinstall.h"
#include "installer/screens.h"
#include "installer/state.h"
#include "installer/unpack.h"
#include "runtime/message.h"

// Steps 8 to 19: the first failing step ends the chain.
static int32_t runChain() {
    if (checkTools() != 0) return 1;
    if (!gState.pluginMode && checkXServer() != 0) return 1;
    if (gState.answers.acceptEula != 1 && showEula() != 0) return 1;
    if (gState.pluginMode == 1 && queryEclipseLocation() != 0) return 1;
    if (queryInstallDirectory() != 0) return 1;
    // From here on the run writes into the settled directory: a second run into it stops here.
    if (lockInstallDirectory() != 0) return 1;
    markInstallationStart();
    if (checkDiskSpace() != 0) return 1;
    if (gState.pluginMode != 1) backUpOldConfiguration();
    if (unpackDistribution() != 0) return 1;
    if (createLinks() != 0) return 1;
    updateMiscFiles();
    if (compileMacros() != 0) return 1;
    if (gState.answers.postInstall == 1 && runPostInstall() != 0) return 1;
    // What the run made besides the package's files, for cvcheck remove --purge.
    recordMadeFiles();
    return 0;
}

int main(int argc, char** argv) {
    const char* argv0 = argc > 0 && argv[0] ? argv[0] : "cvinst";
    resetInstallState();

    char programDir[kPathSize];
    getProgramDirectory(programDir, argv0);
    setMessageFile(programDir, "cdinst.cvb");
    getMessage(-2);

    readAnswersFile(gState.answersFileName, &gState.answers);
    if (parseCommandLine(argc, argv) != 0) exit(1);

    if (findDistributionDir(argv0, gDistribDir) != 0) {
        printMessage("Unable to determine the distribution directory.");
        exit(1);
    }
    if (choosePackage() != 0) exit(1);

    if (gState.answers.acceptEula != 1) {
        showBanner();
        char discard[kPathSize] = "";
        int32_t endOfInput = promptLine("<ENTER> to continue...", discard);
        printf("\n");
        fflush(stdout);
        if (endOfInput != 0) return 1;
    }

    int status = runChain();
    if (gState.cleanupAfterInstall) cleanupDistribution();
    if (status == 0) printCompletionNotes();
    return status;
}
