// The installation directory: asked for (or preset), made absolute, checked for access,
// created on request, and split into the bin, macros and bitmaps directories that the
// later steps write into. In plug-in mode the editor goes into the versioned core plug-in
// directory below the answered plug-in root.
#include "installer/installdir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "installer/console.h"
#include "installer/dirtrust.h"
#include "installer/fileutil.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

// Longest name that the later steps append to the installation directory, with room to spare:
// "eclipse/plugins/com.corvane.eclipse.plugin_10.0.0" and "distribfilelist.YYYYMMDDhhmmss".
enum { kInstallDirReserve = 64 };

enum LoopResult { kSettled, kFailed, kAskAgain };

// The directories worked out from one answer; committed to gState only once all of them fit.
struct Layout {
    char installDir[kPathSize];
    char pluginTarget[kPathSize];
    char binDir[kPathSize];
    char macrosDir[kPathSize];
    char bitmapsDir[kPathSize];
};

int32_t endsInSlash(const char* path) {
    size_t length = strlen(path);
    return length > 0 && path[length - 1] == '/';
}

// The parent of a directory path, without its trailing "/"; "/" stays "/".
void parentOf(const char* path, char* parent) {
    strCopyBounded(parent, path, kPathSize);
    stripTrailingSlash(parent);
    cutToParentDir(parent);
    stripTrailingSlash(parent);
}

int32_t hasFullAccess(const char* path) {
    return access(path, R_OK | W_OK | X_OK) == 0 ? 1 : 0;
}

void reportNoAccess(const char* path) {
    printMessage("Insufficient access to %s. Read/Write access is required.", path);
}

// Plug-in mode proposes a "corvplugin" directory beside the Eclipse installation.
int32_t pluginDefault(char* out) {
    char parent[kPathSize];
    strCopyBounded(parent, gState.eclipseLocation, kPathSize);
    size_t length = strlen(parent);
    if (length > 0 && parent[length - 1] == '/') parent[length - 1] = '\0';
    char* lastSlash = strrchr(parent, '/');
    if (lastSlash != nullptr) {
        lastSlash[1] = '\0';
    } else {
        parent[0] = '\0';
    }
    return formatPath(out, "%scorvplugin/", parent);
}

// Step 1: the preset directory, or the user's answer. 0, or 1 at end of input.
int32_t readAnswer(const char* defaultDir, char* answer, int32_t preset) {
    if (preset) {
        if (formatPath(answer, "%s%s", gState.answers.destinationDir,
                       endsInSlash(gState.answers.destinationDir) ? "" : "/") != 0) {
            // Reported with the other over-long answers by the caller.
            strCopyBounded(answer, gState.answers.destinationDir, kPathSize);
        }
        return 0;
    }
    strCopyBounded(answer, defaultDir, kPathSize);
    return promptDirectory("Install directory [%s]: ", answer);
}

// Steps 2 and 3: the absolute form of the answer. "." and ".." are kept as typed.
LoopResult makeAbsolute(const char* answer, char* absolute) {
    if (answer[0] == '/') {
        strCopyBounded(absolute, answer, kPathSize);
        return kSettled;
    }
    char cwd[kPathSize];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) {
        printMessage("Cannot determine the current directory for %s.", answer);
        return kFailed;
    }
    if (formatPath(absolute, "%s%s%s", cwd, endsInSlash(cwd) ? "" : "/", answer) != 0) {
        printMessage("Install directory %s%s%s is too long.", cwd, endsInSlash(cwd) ? "" : "/", answer);
        return kFailed;
    }
    return kSettled;
}

// Steps 5 and 6: the directories derived from the answer, all or nothing.
int32_t deriveLayout(const char* answered, Layout* layout) {
    layout->pluginTarget[0] = '\0';
    if (gState.pluginMode == 1) {
        if (formatPath(layout->pluginTarget, "%seclipse/", answered) != 0) return 1;
        if (formatPath(layout->installDir, "%splugins/com.corvane.core_%d.%d.%d/", layout->pluginTarget,
                       kPluginMajor, kPluginMinor, kPluginMicro) != 0) {
            return 1;
        }
    } else {
        strCopyBounded(layout->installDir, answered, kPathSize);
    }
    // Room for the names that later steps make in it (the dated file list, the plug-in
    // directories), so that none of them has to be cut.
    if (strlen(layout->installDir) + kInstallDirReserve >= kPathSize) return 1;
    if (formatPath(layout->binDir, "%sbin/", layout->installDir) != 0) return 1;
    if (formatPath(layout->macrosDir, "%smacros/", layout->installDir) != 0) return 1;
    if (formatPath(layout->bitmapsDir, "%sbitmaps/", layout->installDir) != 0) return 1;
    return 0;
}

void commitLayout(const Layout& layout) {
    strCopyBounded(gState.installDir, layout.installDir, kPathSize);
    strCopyBounded(gState.binDir, layout.binDir, kPathSize);
    strCopyBounded(gState.macrosDir, layout.macrosDir, kPathSize);
    strCopyBounded(gState.bitmapsDir, layout.bitmapsDir, kPathSize);
    if (gState.pluginMode == 1) strCopyBounded(gState.eclipsePluginTarget, layout.pluginTarget, kPathSize);
}

// Step 4: the user must be able to create the directory, or to write into it.
int32_t checkAccessBeforeCreation(const char* dir) {
    if (!pathExists(dir)) {
        char parent[kPathSize];
        parentOf(dir, parent);
        if (!hasFullAccess(parent)) {
            printMessage("Insufficient access to create %s. Read/Write access is required for %s.", dir,
                         parent);
            return 1;
        }
        return 0;
    }
    if (!hasFullAccess(dir)) {
        reportNoAccess(dir);
        return 1;
    }
    return 0;
}

// Step 7, plug-in mode: confirm the plug-in root and create the core plug-in directory.
LoopResult confirmPluginRoot() {
    char root[kPathSize];
    strCopyBounded(root, gState.eclipsePluginTarget, kPathSize);
    size_t length = strlen(root);
    if (length > 0) root[length - 1] = '\0';
    char* lastSlash = strrchr(root, '/');
    if (lastSlash != nullptr) lastSlash[1] = '\0';
    length = strlen(root);
    if (length > 1) root[length - 1] = '\0';

    int32_t answer = 1;
    int32_t endOfInput;
    if (pathExists(root)) {
        printf("%s already exists. ", root);
        endOfInput = askYesNo("Continue [Y]? ", &answer, 1);
    } else {
        printf("Directory %s does not exist. ", root);
        endOfInput = askYesNo("Create [Y]? ", &answer, 1);
    }
    if (endOfInput != 0) {
        printMessage("Cannot query install directory.");
        return kFailed;
    }
    if (answer == 0) return kAskAgain;
    if (pathExists(gState.installDir)) return kSettled;
    char core[kPathSize];
    strCopyBounded(core, gState.installDir, kPathSize);
    stripTrailingSlash(core);
    return makeDirectoryTree(core) == 0 ? kSettled : kAskAgain;
}

// Step 7, normal mode: create a missing directory, asking first unless it was preset.
LoopResult confirmInstallDir(int32_t preset) {
    char dir[kPathSize];
    strCopyBounded(dir, gState.installDir, kPathSize);
    stripTrailingSlash(dir);
    if (pathExists(dir)) return kSettled;
    if (!preset) {
        printf("Directory %s ", gState.installDir);
        int32_t answer = 1;
        if (askYesNo("does not exist. Create [Y]? ", &answer, 1) != 0) {
            printMessage("Cannot query install directory.");
            return kFailed;
        }
        if (answer == 0) return kAskAgain;
    }
    // A failed creation has been reported; the final access check stops the step.
    makeDirectoryTree(dir);
    return kSettled;
}

// One pass of the question loop.
LoopResult settleOnce(const char* defaultDir) {
    const int32_t preset = gState.answers.destinationDir[0] != '\0';
    char answer[kPathSize];
    if (readAnswer(defaultDir, answer, preset) != 0) {
        printMessage("Cannot query install directory.");
        return kFailed;
    }

    char absolute[kPathSize];
    LoopResult result = makeAbsolute(answer, absolute);
    if (result != kSettled) return result;

    Layout layout;
    // An answer that fills the whole line buffer may have been cut; either way its
    // subdirectories would not fit, so nothing is created under a shortened name.
    if (!endsInSlash(absolute) || deriveLayout(absolute, &layout) != 0) {
        printMessage("Install directory %s is too long.", absolute);
        return kFailed;
    }

    struct stat info;
    char plain[kPathSize];
    strCopyBounded(plain, absolute, kPathSize);
    stripTrailingSlash(plain);
    if (stat(plain, &info) == 0 && !S_ISDIR(info.st_mode)) {
        printMessage("%s is not a directory.", plain);
        return preset ? kFailed : kAskAgain;
    }

    // As root, before anything is created or unpacked: a directory that another user could change
    // or replace, or one of the system's own, is refused.
    if (checkInstallDirectoryTrust(layout.installDir) != 0) return preset ? kFailed : kAskAgain;

    if (checkAccessBeforeCreation(absolute) != 0) return kFailed;

    commitLayout(layout);
    printf("\n");
    return gState.pluginMode == 1 ? confirmPluginRoot() : confirmInstallDir(preset);
}

// Step 8: the directory must be usable, and so must any subdirectory already there.
int32_t finalAccessCheck() {
    if (!hasFullAccess(gState.installDir)) {
        reportNoAccess(gState.installDir);
        return 1;
    }
    const char* const subdirs[] = {gState.binDir, gState.macrosDir, gState.bitmapsDir};
    for (const char* dir : subdirs) {
        if (pathExists(dir) && !hasFullAccess(dir)) {
            reportNoAccess(dir);
            return 1;
        }
    }
    return 0;
}

}  // namespace

int32_t queryInstallDirectory() {
    char defaultDir[kPathSize];
    if (gState.pluginMode == 1) {
        if (pluginDefault(defaultDir) != 0) {
            printMessage("Install directory beside %s is too long.", gState.eclipseLocation);
            return 1;
        }
    } else {
        strCopyBounded(defaultDir, gState.installDir, kPathSize);
    }

    printf("\n");
    for (;;) {
        LoopResult result = settleOnce(defaultDir);
        if (result == kFailed) return 1;
        if (result == kSettled) break;
    }
    // Once more now that the directory exists: in a directory on the way that everyone may write
    // (a sticky /tmp), another user could have made it first, between the check and its creation.
    if (checkInstallDirectoryTrust(gState.installDir) != 0) return 1;
    return finalAccessCheck();
}
