// Touching installed files so that the editor takes its macro sources, state file and compiled
// resources as fresh rather than stale.
#include "installer/timestamps.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include <cstring>

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
    if (!pathExists(path)) {
        // A creation that fails goes unnoticed here; whoever needs the file finds out.
        int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) close(fd);
        return 0;
    }
    return utime(path, nullptr) == 0 ? 0 : 1;
}

int32_t timestampFiles(const char* directory, const char* extension1, const char* extension2,
                       const char* exactName) {
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
