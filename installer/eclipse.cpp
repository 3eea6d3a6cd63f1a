// Plug-in mode. The package unpacks the editor into the versioned core plug-in directory with
// its feature and plug-in descriptions below "eclipse/" there; the layout step moves them to
// their versioned names beside the core plug-in and tells Eclipse where they are.
#include "installer/eclipse.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/shellcmd.h"
#include "installer/state.h"
#include "installer/treewalk.h"
#include "runtime/message.h"
#include "runtime/path.h"

const char* const kPluginDirs[kPluginDirCount] = {
    "features/com.corvane.plugin",
    "plugins/com.corvane.core",
    "plugins/com.corvane.eclipse.plugin",
};

namespace {

enum { kCommandSize = 8 * kPathSize };

// "Try again [Y]? ": 1 to try again, 0 on No or at end of input.
int32_t tryAgain() {
    int32_t answer = 1;
    if (askYesNo("Try again [Y]? ", &answer, 1) != 0) return 0;
    return answer;
}

// A text of the message file, word-wrapped in a box, with argument 1 set to the path concerned.
// Like every long text of the message file it is wrapped at 60 columns; a long path breaks behind
// one of its dots.
void showMessageBox(int32_t code, const char* path) {
    if (path != nullptr) setMessageArg(1, path);
    printWrapped(getMessage(code));
}

bool hasEclipseMarker(const char* dir) {
    char marker[kPathSize];
    // A marker path cut short would name some other file, which must not count.
    if (formatPath(marker, "%s.eclipseproduct", dir) != 0) return false;
    return pathExists(marker) != 0;
}

// A relative answer is taken from the current directory, which later steps leave.
void makeAbsolute(char* dir) {
    if (dir[0] == '/') return;
    char absolute[kPathSize];
    if (getcwd(absolute, sizeof(absolute)) == nullptr) return;
    appendSlash(absolute);
    strAppendBounded(absolute, dir, kPathSize);
    strCopyBounded(dir, absolute, kPathSize);
}

// The plug-in root: the layout directory without its trailing "/eclipse/".
void pluginRoot(char* root) {
    strCopyBounded(root, gState.eclipsePluginTarget, kPathSize);
    stripTrailingSlash(root);
    char* lastSlash = strrchr(root, '/');
    if (lastSlash != nullptr) lastSlash[lastSlash == root ? 1 : 0] = '\0';
}

// Creates the links directory, asking to try again while that fails. 0, or 1 when given up.
int32_t ensureLinksDirectory(const char* links) {
    if (pathExists(links)) return 0;
    while (mkdir(links, 0777) != 0) {
        showMessageBox(-416, links);
        if (!tryAgain()) return 1;
    }
    return 0;
}

int32_t writeLinkFile(const char* links) {
    char linkFile[kPathSize];
    strCopyBounded(linkFile, links, kPathSize);
    strAppendBounded(linkFile, "/", kPathSize);
    strAppendBounded(linkFile, kEclipseLinkFile, kPathSize);
    int fd = openConfined(gState.eclipseLocation, linkFile, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd == kConfineRefusedFd) return 1;
    if (fd < 0) {
        printBoxed("Error creating link file (%d)", errno);
        return 1;
    }
    char content[kPathSize + 8];
    char root[kPathSize];
    pluginRoot(root);
    snprintf(content, sizeof(content), "path=%s", root);
    size_t length = strlen(content);
    ssize_t written = write(fd, content, length);
    close(fd);
    if (written != static_cast<ssize_t>(length)) {
        printBoxed("Error creating link file (%d)", written < 0 ? errno : ENOSPC);
        return 1;
    }
    return 0;
}

// What "cp -fR" is about to write: every name below the unpacked tree (the shell's "*" leaves out
// the dot names at its top), taken to the plug-in layout directory.
struct CopyCheck {
    const char* root;
    const char* target;
};

int32_t checkCopyTarget(int /*dirFd*/, const char* /*name*/, const char* rel, const struct stat& /*info*/,
                        void* context) {
    auto* check = static_cast<CopyCheck*>(context);
    char destination[PATH_MAX];
    int n = snprintf(destination, sizeof(destination), "%s%s", check->target, rel);
    if (rel[0] == '.' || n < 0 || n >= static_cast<int>(sizeof(destination))) return 0;
    return checkConfined(check->root, destination, true);
}

// A plug-in directory as unpacked and under its versioned name, both in the installation
// directory. 1 when a path does not fit the buffers: such a directory cannot be moved by name.
int32_t pluginDirPaths(const char* name, char* unpacked, char* versioned) {
    if (formatPath(unpacked, "%seclipse/%s", gState.installDir, name) != 0) return 1;
    return formatPath(versioned, "%seclipse/%s_%d.%d.%d", gState.installDir, name, kPluginMajor, kPluginMinor,
                      kPluginMicro);
}

// The shell commands of the layout move, copy and remove below the plug-in root; none of their
// names may be reached through a link that leads out of it. 0, or 1 after the refusal.
int32_t checkLayoutCommands(const char* root) {
    for (const char* name : kPluginDirs) {
        char unpacked[kPathSize];
        char versioned[kPathSize];
        if (pluginDirPaths(name, unpacked, versioned) != 0) continue;
        // mv moves a link itself, but moves into a directory that its target names.
        if (checkConfined(root, unpacked, false) != 0 || checkConfined(root, versioned, true) != 0) return 1;
    }
    char unpackedTree[kPathSize];
    if (formatPath(unpackedTree, "%seclipse", gState.installDir) != 0) return 0;
    return checkConfined(root, unpackedTree, true) != 0 ? 1 : 0;
}

}  // namespace

int32_t queryEclipseLocation() {
    printf("\n%s\n", kStarLine);
    printf("* Please specify the location of your Eclipse or \n");
    printf("* Websphere Studio installation.\n");
    printf("*\n");
    printf("* Example: /usr/lib/eclipse202/eclipse\n");
    printf("%s\n", kStarLine);
    for (;;) {
        printf("\n");
        char answer[kPathSize] = "";
        if (promptDirectory("WebSphere or Eclipse location [%s]: ", answer) != 0) {
            printMessage("Cannot query eclipse directory.");
            return 1;
        }
        if (answer[0] == '\0') {
            showMessageBox(-414, nullptr);
        } else {
            makeAbsolute(answer);
            appendSlash(answer);
            if (hasEclipseMarker(answer)) {
                strCopyBounded(gState.eclipseLocation, answer, kPathSize);
                return 0;
            }
            char below[kPathSize];
            strCopyBounded(below, answer, kPathSize);
            strAppendBounded(below, "eclipse/", kPathSize);
            if (hasEclipseMarker(below)) {
                strCopyBounded(gState.eclipseLocation, below, kPathSize);
                return 0;
            }
            strAppendBounded(below, ".eclipseproduct", kPathSize);
            showMessageBox(-405, below);
        }
        if (!tryAgain()) return 1;
    }
}

int32_t layOutEclipsePlugin() {
    char root[kPathSize];
    pluginRoot(root);
    if (checkLayoutCommands(root) != 0) return 1;
    char command[kCommandSize];
    for (const char* name : kPluginDirs) {
        char unpacked[kPathSize];
        char versioned[kPathSize];
        if (pluginDirPaths(name, unpacked, versioned) != 0) continue;
        if (formatShellCommand(command, sizeof(command), "mv \"%s\" \"%s\"", unpacked, versioned) == 0)
            runShell(command);
    }
    // cp writes through a link where it finds one (a link planted in the core plug-in directory,
    // which the copy merges into, would take the copy out of the plug-in root).
    char unpackedTree[kPathSize];
    CopyCheck check = {root, gState.eclipsePluginTarget};
    char failedRel[PATH_MAX];
    if (formatPath(unpackedTree, "%seclipse/", gState.installDir) == 0 &&
        walkTree(unpackedTree, checkCopyTarget, &check, failedRel) > 0) {
        return 1;
    }
    // The wildcard stays outside the quoting of the directory in front of it.
    if (formatShellCommand(command, sizeof(command), "cp -fR %seclipse/* %s", gState.installDir,
                           gState.eclipsePluginTarget) == 0)
        runShell(command);

    char links[kPathSize];
    strCopyBounded(links, gState.eclipseLocation, kPathSize);
    strAppendBounded(links, "links", kPathSize);
    if (ensureLinksDirectory(links) != 0) return 1;
    while (access(links, R_OK | W_OK | X_OK) != 0) {
        printMessage("Insufficient access to create link file. Read/Write access is required for %s.", links);
        if (!tryAgain()) return 1;
    }
    if (writeLinkFile(links) != 0) return 1;

    // rm -fr removes a link without following it; the directory that holds "eclipse" was checked
    // with the moves.
    if (formatShellCommand(command, sizeof(command), "rm -fr %seclipse", gState.installDir) == 0)
        runShell(command);
    return 0;
}

int32_t writeEclipseLaunchScript() {
    appendSlash(gState.eclipseLocation);
    char script[kPathSize];
    strCopyBounded(script, gState.eclipseLocation, kPathSize);
    strAppendBounded(script, kLaunchScript, kPathSize);

    printf("\n\n%s\n", kStarLine);
    printf("* The Corvane Plug-In requires that the following\n");
    printf("* paths be in your LD_LIBRARY_PATH search path:\n");
    printf("*\n");
    printf("* %s\n", gState.binDir);
    printf("* %s\n", gState.eclipseLocation);
    printf("*\n");
    printf("%s\n", kStarLine);
    printf("\n");
    printf("To simplify this requirement, the 'eclipse-cv' script with the proper\n");
    printf("LD_LIBRARY_PATH settings will be created. We recommend starting\n");
    printf("Eclipse using this script.\n");
    printf("\n");

    if (pathExists(script)) {
        printf("%s already exists. ", script);
        int32_t overwrite = 0;
        if (askYesNo("Overwrite [N]? ", &overwrite, 0) != 0 || overwrite == 0) return 0;
        if (access(script, R_OK | W_OK) != 0) {
            printMessage("Insufficient access to overwrite %s. Read/Write access is required.\n", script);
            tryAgain();  // asked, but the script is left alone either way
            return 0;
        }
    }

    char binDir[kPathSize];
    strCopyBounded(binDir, gState.binDir, kPathSize);
    stripTrailingSlash(binDir);
    // Paths that need quoting get it, so the script also works from a directory with blanks.
    char launch[kCommandSize];
    int fd = -1;
    if (formatShellCommand(launch, sizeof(launch), "LD_LIBRARY_PATH=%s:%s:$LD_LIBRARY_PATH %seclipse $*",
                           binDir, gState.eclipseLocation, gState.eclipseLocation) == 0) {
        fd = openConfined(gState.eclipseLocation, script, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    }
    if (fd == kConfineRefusedFd) return 0;  // reported; the old script, if any, stays as it is
    FILE* out = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (out == nullptr) {
        if (fd >= 0) close(fd);
        printMessage("Error creating %s.\n", script);
        return 0;
    }
    fprintf(out, "#!/bin/sh\n\n%s\n", launch);
    fchmod(fd, 0755);
    if (fclose(out) != 0) printMessage("Error creating %s.\n", script);
    return 0;
}
