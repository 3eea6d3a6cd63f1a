// Finding the directory that holds the installer and its distribution.
#include "installer/locate.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "installer/console.h"
#include "installer/state.h"
#include "runtime/path.h"

void dirPartOf(const char* path, char* out, int32_t size) {
    if (size <= 0) return;
    const char* slash = strrchr(path, '/');
    int32_t n = slash != nullptr ? static_cast<int32_t>(slash - path) + 1 : 0;
    if (n > size - 1) n = size - 1;
    memcpy(out, path, static_cast<size_t>(n));
    out[n] = '\0';
}

int32_t changeToProgramDir(const char* program, char* out) {
    char current[kDistribDirSize];
    if (getcwd(current, sizeof(current)) == nullptr) return 1;
    printVerbose("   Current directory is %s.\n", current);

    char dir[kDistribDirSize];
    dirPartOf(program, dir, sizeof(dir));
    size_t len = strlen(dir);
    if (len > 1 && dir[len - 1] == '/') dir[len - 1] = '\0';
    printVerbose("   Changing to directory %s\n", dir);
    // Through the runtime library, so that its cached current directory follows the move.
    if (changeDirectory(dir) != 0) return 1;

    if (getcwd(current, sizeof(current)) == nullptr) return 1;
    if (current[0] == '\0' || current[strlen(current) - 1] != '/')
        strAppendBounded(current, "/", sizeof(current));
    printVerbose("   New current directory is %s\n", current);
    strCopyBounded(out, current, kDistribDirSize);
    return 0;
}

int32_t searchProgramInPath(const char* name, char* outDir) {
    const char* list = getenv("PATH");
    if (list == nullptr || list[0] == '\0') return 1;

    const char* entry = list;
    for (;;) {
        const char* end = strchr(entry, ':');
        size_t len = end != nullptr ? static_cast<size_t>(end - entry) : strlen(entry);
        // An empty entry is not taken for the current directory; a trailing ":" ends the list.
        bool fitsResult = len + 2 <= static_cast<size_t>(kPathSize);
        if (len > 0 && fitsResult) {
            char dir[kPathSize];
            memcpy(dir, entry, len);
            dir[len] = '\0';
            if (dir[len - 1] != '/') strAppendBounded(dir, "/", sizeof(dir));

            char candidate[2 * kPathSize];
            strCopyBounded(candidate, dir, sizeof(candidate));
            strAppendBounded(candidate, name, sizeof(candidate));
            struct stat info;
            if (strlen(dir) + strlen(name) < sizeof(candidate) && stat(candidate, &info) == 0 &&
                S_ISREG(info.st_mode)) {
                strCopyBounded(outDir, dir, kPathSize);
                return 0;
            }
        }
        if (end == nullptr) return 1;
        entry = end + 1;
    }
}

int32_t findDistributionDir(const char* programName, char* out) {
    printVerbose("Finding the full path to executable...\n");

    if (programName[0] == '/') {
        dirPartOf(programName, out, kDistribDirSize);
        printVerbose("   From full path ==> %s.\n", out);
        return 0;
    }
    if (strchr(programName, '/') != nullptr) {
        if (changeToProgramDir(programName, out) != 0) return 1;
        printVerbose("   From relative path ==> %s.\n", out);
        return 0;
    }

    char found[kPathSize];
    if (searchProgramInPath(programName, found) != 0) return 1;
    if (found[0] == '/') {
        strCopyBounded(out, found, kDistribDirSize);
        printVerbose("   From PATH ==> %s.\n", out);
        return 0;
    }
    if (changeToProgramDir(found, out) != 0) return 1;
    printVerbose("   From relative path in PATH ==> %s.\n", out);
    return 0;
}
