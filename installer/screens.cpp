// The two screens that open an interactive run: the banner and the licence agreement.
#include "installer/screens.h"

#include <cstdio>
#include <cstring>

#include "installer/checks.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/shellcmd.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

// The title lines have no closing asterisk; their trailing blanks belong to them.
const char* const kPluginTitle = "*       Corvane PLUG-IN INSTALLATION PROGRAM        ";
const char* const kEditorTitle = "*           Corvane INSTALLATION PROGRAM            ";

// Longest part of the distribution directory used for the agreement's path.
enum { kDistribDirUsed = 512 };

}  // namespace

int32_t showBanner() {
    int32_t baseMB = 0;
    int32_t totalMB = 0;
    estimateDiskSpace(&baseMB, &totalMB);

    int32_t count = 0;
    count += printf("\n\n");
    count += printf("%s\n", kStarLine);
    count += printf("%s\n", kStarLine);
    count += printf("%s\n", gState.pluginMode == 1 ? kPluginTitle : kEditorTitle);
    count += printf("*                       Version %s                    \n", gState.productVersion);
    count += printf("%s\n", kStarLine);
    count += printf("%s\n", kStarLine);
    count += printf("\n");
    count += printf("Estimated disk space needed:  %d MB (including %d MB for tag files)\n", totalMB,
                    totalMB - baseMB);
    count += printf("\n");
    return count;
}

int32_t showEula() {
    char path[kDistribDirUsed + 32];
    strCopyBounded(path, gDistribDir, kDistribDirUsed + 1);
    size_t length = strlen(path);
    if (length == 0 || path[length - 1] != '/') strAppendBounded(path, "/", sizeof(path));
    strAppendBounded(path, "license.txt", sizeof(path));

    // A distribution without an agreement text installs without asking.
    if (!pathExists(path)) return 0;

    char command[4 * sizeof(path) + 16];
    if (formatShellCommand(command, sizeof(command), "more %s", path) == 0) runShell(command);

    char answer[kPathSize];
    for (;;) {
        answer[0] = '\0';
        if (promptLine("Do you agree to the above license terms? [yes or no]\n", answer) != 0) return 1;
        toLowerInPlace(answer);
        if (strcmp(answer, "yes") == 0) return 0;
        if (strcmp(answer, "no") == 0) return 1;
    }
}
