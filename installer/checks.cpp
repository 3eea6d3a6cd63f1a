// Environment checks run before anything is written: the shell tools on PATH, a reachable
// X server and enough free space where the editor goes.
#include "installer/checks.h"

#include <X11/Xlib.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/locate.h"
#include "installer/state.h"

namespace {

// Size of the installation without tag files, and with them.
enum { kBaseSizeMB = 142, kTotalSizeMB = 167 };

const char* const kRequiredTools[] = {
    "uname", "cp", "mv", "rm", "mkdir", "tar", "uncompress", "chgrp", "chown", "touch", "more",
};

// A run killed during the slow check leaves its probe behind with all it had written; it goes
// before the space is measured. Only a regular file of that name counts as a probe.
void removeStaleProbe() {
    char probe[kPathSize];
    struct stat info;
    if (formatPath(probe, "%sSPACECHECK", gState.installDir) == 0 && lstat(probe, &info) == 0 &&
        S_ISREG(info.st_mode)) {
        unlink(probe);
    }
}

}  // namespace

int32_t checkTools() {
    const char* path = getenv("PATH");
    printVerbose("Checking tools: PATH=%s\n", path != nullptr && path[0] != '\0' ? path : "<EMPTY>");

    for (const char* tool : kRequiredTools) {
        char dir[kPathSize];
        printVerbose("   %s ... ", tool);
        if (searchProgramInPath(tool, dir) == 0) {
            printVerbose("Found at %s\n", dir);
            continue;
        }
        if (strcmp(tool, "uncompress") == 0) {
            // Systems without "uncompress" usually have "zcat", which does the same job.
            printVerbose("Missing ");
            printVerbose("trying zcat ... ");
            if (searchProgramInPath("zcat", dir) == 0) {
                gState.useZcat = 1;
                printVerbose("Found at %s\n", dir);
                continue;
            }
        }
        printVerbose("Missing\n");
        printMessage("'%s' is not found in your PATH.", tool);
        printMessage("Please add it to your path and restart the installation.");
        return 1;
    }
    return 0;
}

int32_t probeXServer() {
    gState.xServerAvailable = 0;
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) return 0;
    XCloseDisplay(display);
    gState.xServerAvailable = 1;
    return 1;
}

int32_t checkXServer() {
    // Only an explicit "no post-install" skips the check: tagging needs the X server.
    if (gState.answers.postInstall == 0) return 0;
    printVerbose("Checking X server:\n");
    if (probeXServer()) return 0;

    printf("\n");
    printMessage("X server is not accessible.");
    printf("\n");
    printf("Please make sure that your DISPLAY environment variable\n");
    printf("is set to the correct display and that connection to\n");
    printf("the X server is enabled (ie. use 'xhost +').\n");
    printf("\n");
    printf("You can still continue with the installation but your C/C++\n");
    printf("and Java source files will not be automatically tagged. You\n");
    printf("can always manually tag these files later.\n");
    printf("\n");

    int32_t answer = 0;
    int32_t endOfInput = askYesNo("Continue installation (Y/N)? [N]: ", &answer, 0);
    printf("\n");
    if (endOfInput != 0) return 1;
    return answer == 0 ? 1 : 0;
}

void estimateDiskSpace(int32_t* baseMB, int32_t* totalMB) {
    *baseMB = kBaseSizeMB;
    *totalMB = kTotalSizeMB;
}

int32_t checkDiskSpace() {
    printf("\n");
    if (gState.skipDiskSpaceCheck) {
        printf("Skipping disk space check.\n");
        return 0;
    }
    printf("Checking disk space. Please wait...\n");
    int32_t baseMB = 0;
    int32_t neededMB = 0;
    estimateDiskSpace(&baseMB, &neededMB);
    removeStaleProbe();

    struct statfs info;
    if (statfs(gState.installDir, &info) != 0) {
        fflush(stdout);
        perror("Corvane Install:");
        return slowDiskSpaceCheck(neededMB);
    }

    // Blocks available to ordinary users, not the reserve kept for root.
    double availMB = static_cast<double>(info.f_bsize) * static_cast<double>(info.f_bavail) / 1048576.0;
    printVerbose("checkDiskSpace blkavail=%.0f blocks of size blksize=%.0f, inodeavail=%d\n",
                 static_cast<double>(info.f_bavail), static_cast<double>(info.f_bsize),
                 static_cast<int>(info.f_ffree));
    printVerbose("checkDiskSpace availM=%.2f MB needM=%.2f MB\n", availMB, static_cast<double>(neededMB));
    if (static_cast<double>(neededMB) > availMB) {
        printMessage("Insufficient free disk space. Need %d MB but %s only has %.2f MB.", neededMB,
                     gState.installDir, availMB);
        return 1;
    }
    return 0;
}

int32_t slowDiskSpaceCheck(int32_t neededMB) {
    printVerbose("Show disk space check ...\n");
    char probe[kPathSize];
    int n = snprintf(probe, sizeof(probe), "%sSPACECHECK", gState.installDir);
    if (access(gState.installDir, R_OK | W_OK) != 0) {
        printMessage("Insufficient access to %s. Read/Write access is required.", gState.installDir);
        return 1;
    }
    // A probe name that does not fit would land somewhere else: do not write it at all.
    if (n < 0 || n >= static_cast<int>(sizeof(probe))) {
        printMessage("Slow disk space check failed.");
        return 1;
    }
    // O_NOFOLLOW: a link planted under the probe's name must not redirect the writes.
    int fd = open(probe, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        printMessage("Slow disk space check failed.");
        return 1;
    }
    static const char kBlock[1024] = {0};
    const long blocks = static_cast<long>(neededMB) * 1024L;
    for (long i = 0; i < blocks; i++) {
        if (write(fd, kBlock, sizeof(kBlock)) != static_cast<ssize_t>(sizeof(kBlock))) {
            printMessage("Not enough disk space.");
            close(fd);
            unlink(probe);
            return 1;
        }
    }
    close(fd);
    unlink(probe);
    return 0;
}
