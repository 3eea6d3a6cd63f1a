// The "bin/cvt" link and the clean-up of the distribution directory.
#include "installer/links.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/shellcmd.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

enum { kCommandSize = 4 * kDistribDirSize + 16 };

}  // namespace

int32_t createLinks() {
    const char* const linkPath = "bin/cvt";
    const char* const target = "cvtw";  // relative: resolves beside the link in bin
    // The bin directory is opened from the installation directory: a "bin" that leads out of it is
    // refused, not written into. Without a bin directory the link cannot be made.
    char fullPath[kPathSize];
    ConfinedPath bin;
    ConfineResult where = formatPath(fullPath, "%s%s", gState.installDir, linkPath) == 0
                              ? confinePath(gState.installDir, fullPath, false, &bin)
                              : kConfineFailed;
    if (where == kConfineRefused) return 1;
    if (where == kConfineOk) unlinkat(bin.dirFd, bin.leaf, 0);  // an older link or file of that name goes
    printVerbose("Linking %s to %s\n", linkPath, target);
    bool made = where == kConfineOk && symlinkat(target, bin.dirFd, bin.leaf) == 0;
    if (where == kConfineOk) releaseConfined(&bin);
    if (!made) {
        printMessage("Cannot create symbolic link %s to %s.", linkPath, target);
        return 1;
    }
    return 0;
}

void cleanupDistribution() {
    if (!gState.cleanupAfterInstall) return;
    printf("Cleaning up distribution files...\n");
    if (gDistribDir[0] == '\0') return;

    // Step out of the directory that is about to go. Any occurrence counts, not just a prefix.
    char cwd[kPathSize];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) cwd[0] = '\0';
    size_t length = strlen(cwd);
    if (length > 0 && cwd[length - 1] != '/') strAppendBounded(cwd, "/", sizeof(cwd));
    // A failed change goes unreported: the removal works from inside as well.
    if (strstr(cwd, gDistribDir) != nullptr) (void)!chdir("/tmp");

    char command[kCommandSize];
    if (formatShellCommand(command, sizeof(command), "rm -fr %s", gDistribDir) == 0) runShell(command);
}
