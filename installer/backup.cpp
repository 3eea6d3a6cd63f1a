// Before a new installation overwrites an old one, the old global configuration files may be
// copied into a backup directory: "old" in the installation directory unless another is given.
#include "installer/backup.h"

#include <cstdio>
#include <cstring>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/shellcmd.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

enum { kCommandSize = 8 * kPathSize };

// The files looked for, in the order they are searched and copied.
const char* const kBinFiles[] = {"cv", "corv.ini"};
const char* const kInstallFiles[] = {"corv.stu",  "uprjpack.crv", "uvcsys.crv", "corv.cvx",
                                     "unixc.api", "unixx11.api",  "unixxm.api"};

// Creates a missing backup directory, one level only; a failure has been reported and the
// copies into it then fail on their own.
void makeBackupDirectory(const char* dir) {
    if (!pathExists(dir)) makeDirectory(dir, 0777);
}

// Asks whether and where to back up. 0 with dir set, or 1 when no backup is wanted or input ended.
int32_t askBackupDirectory(char* dir) {
    int32_t wanted = 1;
    if (askYesNo(
            "Some old global configuration files have been found.\nDo you want a backup of these files [Y]? ",
            &wanted, 1) != 0 ||
        wanted == 0) {
        return 1;
    }
    for (;;) {
        formatPath(dir, "%sold", gState.installDir);
        // Input that has ended leaves the default standing.
        promptDirectory("Directory for old configuration files [%s]: ", dir);
        stripTrailingSlash(dir);  // the "/" that the question added
        if (!pathExists(dir)) {
            makeBackupDirectory(dir);
            return 0;
        }
        printf("\n");
        int32_t replace = 1;
        if (askYesNo("Backup directory already exists.\nReplace files [Y]?", &replace, 1) != 0) return 1;
        if (replace == 1) return 0;
    }
}

// Copies the files of one group that exist; returns the status of the last test or copy. cp
// follows links in both of its names, so each is checked first: the old file must lie in the
// installation, the copy in backupRoot. A refused copy is reported and left out.
int32_t copyGroup(const char* fromDir, const char* const* names, size_t count, const char* backupDir,
                  const char* backupRoot) {
    int32_t status = 0;
    for (size_t i = 0; i < count; i++) {
        char source[kPathSize];
        strCopyBounded(source, fromDir, kPathSize);
        strAppendBounded(source, names[i], kPathSize);
        status = pathExists(source) ? 0 : 1;
        if (status != 0) continue;
        char destination[kPathSize];
        if (formatPath(destination, "%s/%s", backupDir, names[i]) == 0 &&
            (checkConfined(gState.installDir, source, true) != 0 ||
             checkConfined(backupRoot, destination, true) != 0)) {
            status = 1;
            continue;
        }
        char command[kCommandSize];
        if (formatShellCommand(command, sizeof(command), "cp \"%s\" \"%s/%s\"", source, backupDir,
                               names[i]) != 0) {
            status = 1;
            continue;
        }
        printVerbose("%s\n", command);
        status = runShell(command);
    }
    return status;
}

}  // namespace

int32_t findFilesToBackUp() {
    printVerbose("Looking for files to be backed up:\n");
    char path[kPathSize];
    for (const char* name : kBinFiles) {
        strCopyBounded(path, gState.binDir, kPathSize);
        strAppendBounded(path, name, kPathSize);
        if (pathExists(path)) return 1;
    }
    for (const char* name : kInstallFiles) {
        strCopyBounded(path, gState.installDir, kPathSize);
        strAppendBounded(path, name, kPathSize);
        if (pathExists(path)) return 1;
    }
    return 0;
}

int32_t backUpOldConfiguration() {
    if (findFilesToBackUp() == 0) return 0;
    printf("\n");
    char backupDir[kPathSize];
    if (gState.answers.backupDir[0] != '\0') {
        strCopyBounded(backupDir, gState.answers.backupDir, kPathSize);
        makeBackupDirectory(backupDir);
    } else if (askBackupDirectory(backupDir) != 0) {
        return 1;
    }
    // The default backup directory lies in the installation and is held to it; one that the user
    // named is trusted itself, and only what is written into it is held to it.
    char defaultDir[kPathSize];
    formatPath(defaultDir, "%sold", gState.installDir);
    const char* backupRoot = strcmp(backupDir, defaultDir) == 0 ? gState.installDir : backupDir;
    copyGroup(gState.binDir, kBinFiles, sizeof(kBinFiles) / sizeof(kBinFiles[0]), backupDir, backupRoot);
    return copyGroup(gState.installDir, kInstallFiles, sizeof(kInstallFiles) / sizeof(kInstallFiles[0]),
                     backupDir, backupRoot);
}
