// Command-line options: switches and presets written into gState.
#include "installer/cmdline.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "installer/state.h"
#include "runtime/path.h"

static const char* const kUsageLines[] = {
    "USAGE: cvinst [-h][-s][-o ostype-version-release]",
    "",
    "       -o  -- specify OS type and version information",
    "              Examples: irix-6-5 for Irix 6.5",
    "                        aix-4-3 for AIX 4.3",
    "       -s  -- skip size and checksum verification",
    "       -d  -- skip disk space check",
    "       -h  -- this help information",
    "       -v  -- verbose",
    "       -destination-dir -- installation dir",
    "       -backup-dir -- Where should files be backed up?",
    "       +/-accept-eula -- Accept EULA/Don't accept EULA",
    "       +/-post-install -- Perform/Dont perform post-install tasks immediately after installation",
};

void printUsage() {
    printf("\n");
    printf("cvinst Version %s\n", gState.productVersion);
    for (const char* line : kUsageLines) printf("%s\n", line);
    printf("\n");
    fflush(stdout);
}

// Long options are written with any one leading character ("-" or "+"), which is not compared.
static bool isLongOption(const char* arg, const char* name) {
    return arg[0] != '\0' && strcasecmp(arg + 1, name) == 0;
}

// Outcome of a path option: the value was taken, or the option was dropped.
enum PathTake { kTaken, kSkipped, kNoMoreArguments };

// Path options take the next argument unless it looks like an option itself, in which case
// that argument is examined on its own.
static PathTake takePathValue(int argc, char** argv, int* index, char* target) {
    if (*index + 1 >= argc) return kNoMoreArguments;
    const char* next = argv[*index + 1];
    if (next[0] == '+' || next[0] == '-') return kSkipped;
    strCopyBounded(target, next, kPathSize);
    ++*index;
    return kTaken;
}

int32_t scanCommandLine(int argc, char** argv) {
    // The answers-file presets stay; only the switches start afresh.
    gState.skipVerification = 0;
    gState.verbose = 0;
    gState.cleanupAfterInstall = 0;
    gState.osTypeOverride[0] = '\0';

    InstallAnswers* answers = &gState.answers;
    for (int i = 0; i < argc; ++i) {
        const char* arg = argv[i];
        if (arg == nullptr) break;

        if (strcmp(arg, "-o") == 0) {
            if (i + 1 >= argc) break;
            strCopyBounded(gState.osTypeOverride, argv[++i], kPathSize);
        } else if (strcmp(arg, "-s") == 0) {
            gState.skipVerification = 1;
        } else if (strcmp(arg, "-d") == 0) {
            gState.skipDiskSpaceCheck = 1;
        } else if (strcmp(arg, "-v") == 0) {
            gState.verbose = 1;
        } else if (strcmp(arg, "-cleanup") == 0) {
            gState.cleanupAfterInstall = 1;
        } else if (isLongOption(arg, "destination-dir")) {
            if (takePathValue(argc, argv, &i, answers->destinationDir) == kNoMoreArguments) break;
        } else if (eulaBypassEnabled() && isLongOption(arg, "accept-eula")) {
            answers->acceptEula = arg[0] == '+' ? 1 : 0;
        } else if (isLongOption(arg, "eclipse-dir")) {
            if (takePathValue(argc, argv, &i, answers->eclipseDir) == kNoMoreArguments) break;
        } else if (strcmp(arg, "-h") == 0 || strcmp(arg, "-?") == 0) {
            return 1;
        } else if (isLongOption(arg, "post-install")) {
            answers->postInstall = arg[0] == '+' ? 1 : 0;
        } else if (isLongOption(arg, "backup-dir")) {
            if (takePathValue(argc, argv, &i, answers->backupDir) == kNoMoreArguments) break;
        }
        // anything else is ignored without a message
    }
    return 0;
}

uint32_t parseCommandLine(int argc, char** argv) {
    if (scanCommandLine(argc, argv) != 0) {
        printUsage();
        exit(0);
    }
    return 0;
}
