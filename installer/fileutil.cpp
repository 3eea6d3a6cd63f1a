// File copy and directory utilities on plain POSIX calls. Each operation reports its own
// failure with the path concerned, so callers only pass the result on.
#include "installer/fileutil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

enum { kCopyBlock = 10240 };

// The parent directory of path, without a trailing "/"; a relative path stays as it is.
void parentOf(const char* path, char* parent) {
    strCopyBounded(parent, path, kPathSize);
    stripTrailingSlash(parent);
    cutToParentDir(parent);
    stripTrailingSlash(parent);
}

}  // namespace

void appendSlash(char* path) {
    size_t length = strlen(path);
    if (length == 0 || path[length - 1] != '/') strAppendBounded(path, "/", kPathSize);
}

void stripTrailingSlash(char* path) {
    size_t length = strlen(path);
    if (length > 1 && path[length - 1] == '/') path[length - 1] = '\0';
}

void cutToParentDir(char* path) {
    size_t length = strlen(path);
    if (length < 2 || path[0] != '/' || path[length - 1] == '/') return;
    char* lastSlash = strrchr(path, '/');
    lastSlash[1] = '\0';
}

int32_t pathExists(const char* path) {
    struct stat info;
    return stat(path, &info) == 0 ? 1 : 0;
}

int32_t getFileMode(const char* path, uint32_t* mode) {
    struct stat info;
    if (stat(path, &info) != 0) return 1;
    *mode = static_cast<uint32_t>(info.st_mode);
    return 0;
}

int32_t isReadableFile(const char* path) {
    struct stat info;
    if (stat(path, &info) != 0) return 0;
    return access(path, R_OK) == 0 ? 1 : 0;
}

int32_t canWritePath(const char* path) {
    struct stat info;
    if (stat(path, &info) == 0) {
        int wanted = S_ISDIR(info.st_mode) ? (R_OK | W_OK | X_OK) : (R_OK | W_OK);
        return access(path, wanted) == 0 ? 1 : 0;
    }
    if (errno != ENOENT) return 0;
    // A path still to be created can be written when its directory can.
    char parent[kPathSize];
    parentOf(path, parent);
    return access(parent, R_OK | W_OK | X_OK) == 0 ? 1 : 0;
}

int32_t copyFile(const char* source, const char* destination) {
    return copyFileWithin(source, destination, nullptr);
}

int32_t copyFileWithin(const char* source, const char* destination, const char* root) {
    printVerbose("Copying %s to %s\n", source, destination);
    if (!isReadableFile(source)) {
        printMessage("Insufficient read access to %s.", source);
        return 1;
    }
    if (!canWritePath(destination)) {
        printMessage("Insufficient write access to %s.", destination);
        return 1;
    }
    // Within a root the source is read only where it lies in it, like the destination is written.
    int inFd = root != nullptr ? openConfined(root, source, O_RDONLY, 0) : open(source, O_RDONLY | O_CLOEXEC);
    if (inFd == kConfineRefusedFd) return 1;
    FILE* in = inFd >= 0 ? fdopen(inFd, "rb") : nullptr;
    if (in == nullptr) {
        if (inFd >= 0) close(inFd);
        printMessage("Cannot open copy source file %s.", source);
        return 1;
    }
    int fd = root != nullptr ? openConfined(root, destination, O_WRONLY | O_CREAT | O_TRUNC, 0666)
                             : open(destination, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    FILE* out = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (out == nullptr) {
        fclose(in);
        if (fd >= 0) close(fd);
        // A refusal has said why; nothing was opened.
        if (fd != kConfineRefusedFd) printMessage("Cannot open copy destination file %s.", destination);
        return 1;
    }

    static char block[kCopyBlock];
    for (;;) {
        size_t count = fread(block, 1, sizeof(block), in);
        if (count == 0) break;
        if (fwrite(block, 1, count, out) != count) {
            // The partial destination and both streams are left as they are; the
            // installation stops on this failure anyway.
            printMessage("Cannot write to %s from %s. Please check disk space.", destination, source);
            return 1;
        }
    }
    fclose(in);
    // The mode is set through a descriptor of the file written, not by name again.
    int keep = dup(fd);
    // Buffered data reaches the disk only here: a full disk shows at the close.
    if (fclose(out) != 0) {
        if (keep >= 0) close(keep);
        printMessage("Cannot write to %s from %s. Please check disk space.", destination, source);
        return 1;
    }

    // Permission problems do not fail the copy: the content is what matters.
    uint32_t mode = 0;
    if (getFileMode(source, &mode) != 0) {
        printMessage("Warning: Cannot get permission bits from %s.", source);
        printMessage("Warning: Cannot set permission bits for %s.", destination);
    } else if (keep < 0 || fchmod(keep, static_cast<mode_t>(mode & 07777)) != 0) {
        printMessage("Warning: Cannot set permission bits for %s.", destination);
    }
    if (keep >= 0) close(keep);
    return 0;
}

int32_t makeDirectory(const char* path, uint32_t mode) {
    if (mkdir(path, static_cast<mode_t>(mode)) != 0) {
        printMessage("Cannot create directory %s.", path);
        return 1;
    }
    return 0;
}

int32_t makeDirectoryTree(const char* path) {
    if (path[0] == '\0' || strcmp(path, "/") == 0) return 0;
    char self[kPathSize];
    strCopyBounded(self, path, kPathSize);
    stripTrailingSlash(self);
    char parent[kPathSize];
    parentOf(path, parent);
    // A relative path has no parent we can work out; it is created as it stands.
    if (strcmp(parent, self) != 0 && !pathExists(parent)) {
        int32_t result = makeDirectoryTree(parent);
        if (result != 0) return result;
    }
    return makeDirectory(path, 0777);
}

int32_t ensureDirectory(const char* path, int32_t ask) {
    char directory[kPathSize];
    strCopyBounded(directory, path, kPathSize);
    stripTrailingSlash(directory);
    if (pathExists(directory)) return 0;
    if (ask) {
        printf("Directory %s ", path);
        int32_t answer = 0;
        // End of input counts as a refusal.
        if (askYesNo("does not exist. Create [Y]? ", &answer, 1) != 0 || answer == 0) return 1;
    }
    // A failure to create has been reported by makeDirectory; whoever uses the directory
    // next finds out for itself.
    makeDirectoryTree(directory);
    return 0;
}

int32_t formatPath(char* out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int n = vsnprintf(out, kPathSize, format, args);
    va_end(args);
    if (n < 0 || n >= kPathSize) {
        out[0] = '\0';
        return 1;
    }
    return 0;
}
