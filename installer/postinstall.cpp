// Post-installation and the notes that end a successful installation.
#include "installer/postinstall.h"

#include <cstdio>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/eclipse.h"
#include "installer/fileutil.h"
#include "installer/shellcmd.h"
#include "installer/state.h"

namespace {

enum { kCommandSize = 4 * kPathSize + 16 };

const char* const kPluginTitle = "Corvane Plug-In for WebSphere and Eclipse";

// The editor builds its tag files on its first start, which needs the X server.
void startEditor() {
    printf("Starting Corvane with post-installation.\n");
    printf("Please wait for Corvane to come up...\n");
    char tagFiles[kPathSize];
    formatPath(tagFiles, "%stagfiles", gState.installDir);
    // The editor writes its tag files there: not through a link that leads out of the installation.
    if (checkConfined(gState.installDir, tagFiles, true) != 0) return;
    if (!pathExists(tagFiles)) makeDirectory(tagFiles, 0755);

    char command[kCommandSize];
    if (formatShellCommand(command, sizeof(command), "\"%scv\" +new &", gState.binDir) != 0) return;
    printVerbose("Post install: command=%s\n", command);
    runShell(command);
}

}  // namespace

int32_t runPostInstall() {
    if (gState.pluginMode == 1) {
        writeEclipseLaunchScript();
    } else if (gState.xServerAvailable) {
        startEditor();
    } else {
        printMessage("%s", "");
        printMessage("Cannot start post-installation because X server is not accessible.");
        printMessage("You will need to manually tag your C/C++ headers and Java source");
        printMessage("files to fully use our new Tagwise feature set.");
    }
    return 0;
}

void printCompletionNotes() {
    printf("\n");
    printf("%s\n", kStarLine);
    printf("*           INSTALLATION SUCCESSFULLY COMPLETED              \n");
    printf("%s\n", kStarLine);
    printf("\n");
    if (gState.pluginMode == 1) {
        printf("Installation of %s was successful!\n", kPluginTitle);
        printf("\n");
        printf("NOTES:\n");
        printf("1. Because of the LD_LIBRARY_PATH settings, we recommend starting\n");
        printf("   Eclipse using '%seclipse-cv'.\n", gState.eclipseLocation);
        return;
    }
    printf("NOTES:\n");
    printf("%d. Type \"%scv\" to run Corvane.\n", 1, gState.binDir);
    printf("%d. You may want to add \"%s\" to your users' PATH.\n", 2, gState.binDir);
}
