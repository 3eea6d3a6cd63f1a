// Touching installed files so that the editor takes its macro sources, state file and compiled
// resources as fresh rather than stale.
#include "installer/timestamps.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

bool isGiven(const char* text) {
    return text != nullptr && text[0] != '\0';
}

bool matches(const char* name, const char* extension1, const char* extension2, const char* exactName) {
    if (isGiven(exactName) && strcmp(name, exactName) == 0) return true;
    if (!isGiven(extension1) && !isGiven(extension2)) return false;
    const char* dot = strrchr(name, '.');
    if (dot == nullptr) return false;
    return (isGiven(extension1) && strcmp(dot, extension1) == 0) ||
           (isGiven(extension2) && strcmp(dot, extension2) == 0);
}

}  // namespace

int32_t touchFile(const char* directory, const char* name) {
    char path[kPathSize];
    strCopyBounded(path, directory, kPathSize);
    appendSlash(path);
    strAppendBounded(path, name, kPathSize);
    // Every file touched lies in the installation; a link that leads out of it is not followed.
    ConfinedPath confined;
    ConfineResult result = confinePath(gState.installDir, path, true, &confined);
    if (result == kConfineRefused) return 1;
    if (result != kConfineOk) return 0;  // a missing directory: nothing to create, as below
    int32_t status = 0;
    struct stat info;
    if (fstatat(confined.dirFd, confined.leaf, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        // A creation that fails goes unnoticed here; whoever needs the file finds out.
        int fd = openat(confined.dirFd, confined.leaf, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                        0644);
        if (fd >= 0) close(fd);
    } else {
        status = utimensat(confined.dirFd, confined.leaf, nullptr, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : 1;
    }
    releaseConfined(&confined);
    return status;
}

int32_t timestampFiles(const char* directory, const char* extension1, const char* extension2,
                       const char* exactName) {
    // A directory reached through a link out of the installation is not the installation's.
    if (checkConfined(gState.installDir, directory, true) != 0) return 1;
    DIR* dir = opendir(directory);
    if (dir == nullptr) {
        printMessage("Cannot open convert files in directory %s.", directory);
        return 1;
    }
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        if (!matches(name, extension1, extension2, exactName)) continue;
        printProgress("   Timestamping %s", name);
        touchFile(directory, name);
    }
    closedir(dir);
    return 0;
}

int32_t timestampInstallation() {
    if (timestampFiles(gState.macrosDir, ".e", ".sh", nullptr) != 0) return 1;
    if (timestampFiles(gState.installDir, nullptr, nullptr, "corv.stu") != 0) return 1;
    if (timestampFiles(gState.installDir, ".cvb", nullptr, nullptr) != 0) return 1;
    return timestampFiles(gState.binDir, ".cvb", nullptr, nullptr);
}
