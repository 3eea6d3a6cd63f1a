// Confinement of the installer's own writes: the kernel resolves every directory (realpath), the
// result must lie in the root, and the directory is then opened from the root's descriptor one
// component at a time with O_NOFOLLOW, so that what is written is what was checked.
#include "installer/confine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "installer/console.h"
#include "runtime/path.h"

namespace {

// Splits path into its directory and its last name (trailing "/" ignored). False when there is no
// name to split off, or the name is "." or "..", which no caller means.
bool splitPath(const char* path, char* parent, char* leaf) {
    char copy[PATH_MAX];
    strCopyBounded(copy, path, sizeof(copy));
    size_t length = strlen(copy);
    while (length > 1 && copy[length - 1] == '/') copy[--length] = '\0';
    char* slash = strrchr(copy, '/');
    if (slash == nullptr || slash[1] == '\0' || strcmp(slash + 1, ".") == 0 || strcmp(slash + 1, "..") == 0)
        return false;
    if (strlen(slash + 1) >= kPathSize) return false;
    strCopyBounded(leaf, slash + 1, kPathSize);
    slash[slash == copy ? 1 : 0] = '\0';
    strCopyBounded(parent, copy, PATH_MAX);
    return true;
}

// Opens the canonical directory dirReal, which is rootReal or lies below it, from rootReal one
// component at a time without following a link: a component swapped for a link since the
// canonical path was worked out makes the open fail instead of leading elsewhere.
int openBelow(const char* rootReal, const char* dirReal) {
    int fd = open(rootReal, O_PATH | O_DIRECTORY | O_CLOEXEC);
    const char* rest = dirReal + strlen(rootReal);
    while (fd >= 0 && *rest != '\0') {
        while (*rest == '/') rest++;
        size_t n = strcspn(rest, "/");
        if (n == 0) break;
        char component[NAME_MAX + 1];
        if (n > NAME_MAX) {
            close(fd);
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(component, rest, n);
        component[n] = '\0';
        rest += n;
        int next = openat(fd, component, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        close(fd);
        fd = next;
    }
    return fd;
}

// The first symbolic link on the way from root to path (root's own components not counted) that
// does not resolve to a place below rootReal. False when there is none.
bool findEscapingLink(const char* root, const char* rootReal, const char* path, char* link) {
    size_t at = strlen(root);
    for (;;) {
        while (path[at] == '/') at++;
        if (path[at] == '\0') return false;
        at += strcspn(path + at, "/");
        strCopyBounded(link, path, static_cast<int32_t>(at + 1 < PATH_MAX ? at + 1 : PATH_MAX));
        struct stat info;
        if (lstat(link, &info) != 0) return false;
        if (!S_ISLNK(info.st_mode)) continue;
        char real[PATH_MAX];
        if (realpath(link, real) == nullptr || !isBelowRoot(rootReal, real)) return true;
    }
}

ConfineResult refuse(const char* root, const char* rootReal, const char* path) {
    char link[PATH_MAX];
    if (!findEscapingLink(root, rootReal, path, link)) strCopyBounded(link, path, sizeof(link));
    if (strcmp(link, path) == 0) {
        printMessage("%s is a symbolic link that leads out of %s.", path, root);
    } else {
        printMessage("%s is reached through the symbolic link %s, which leads out of %s.", path, link, root);
    }
    return kConfineRefused;
}

ConfineResult openParent(const char* rootReal, const char* parentReal, const char* leaf, ConfinedPath* out) {
    out->dirFd = openBelow(rootReal, parentReal);
    if (out->dirFd < 0) return kConfineFailed;
    strCopyBounded(out->leaf, leaf, kPathSize);
    return kConfineOk;
}

// The last component is a link, to be followed: where it leads must lie in the root. A dangling
// link is judged by the directory in which an open that creates would make its target.
ConfineResult followLink(const char* root, const char* rootReal, const char* path, int dirFd,
                         const char* leaf, const char* parentReal, ConfinedPath* out) {
    char linkPath[PATH_MAX];
    strCopyBounded(linkPath, parentReal, sizeof(linkPath));
    strAppendBounded(linkPath, "/", sizeof(linkPath));
    strAppendBounded(linkPath, leaf, sizeof(linkPath));
    char target[PATH_MAX];
    if (realpath(linkPath, target) == nullptr) {
        if (errno != ENOENT) return kConfineFailed;
        char text[PATH_MAX];
        ssize_t n = readlinkat(dirFd, leaf, text, sizeof(text) - 1);
        if (n < 0) return kConfineFailed;
        text[n] = '\0';
        if (text[0] == '/') {
            strCopyBounded(target, text, sizeof(target));
        } else {
            strCopyBounded(target, parentReal, sizeof(target));
            strAppendBounded(target, "/", sizeof(target));
            strAppendBounded(target, text, sizeof(target));
        }
    }
    char targetParent[PATH_MAX], targetLeaf[kPathSize], targetParentReal[PATH_MAX];
    if (!splitPath(target, targetParent, targetLeaf)) {
        errno = EINVAL;
        return kConfineFailed;
    }
    // A target whose directory is missing cannot be made: an ordinary failure of the operation.
    if (realpath(targetParent, targetParentReal) == nullptr) return kConfineFailed;
    if (!isBelowRoot(rootReal, targetParentReal)) return refuse(root, rootReal, path);
    return openParent(rootReal, targetParentReal, targetLeaf, out);
}

}  // namespace

int32_t isBelowRoot(const char* rootReal, const char* real) {
    size_t length = strlen(rootReal);
    if (length > 0 && rootReal[length - 1] == '/') length--;  // "/" itself
    return strncmp(real, rootReal, length) == 0 && (real[length] == '\0' || real[length] == '/') ? 1 : 0;
}

ConfineResult confinePath(const char* root, const char* path, bool followLast, ConfinedPath* out) {
    out->dirFd = -1;
    char rootReal[PATH_MAX], parent[PATH_MAX], parentReal[PATH_MAX], leaf[kPathSize];
    // Callers build the path from the root; anything else is a mistake, not a path to write.
    if (strncmp(path, root, strlen(root)) != 0 || !splitPath(path, parent, leaf) ||
        strlen(parent) + 1 < strlen(root)) {
        errno = EINVAL;
        return kConfineFailed;
    }
    if (realpath(root, rootReal) == nullptr || realpath(parent, parentReal) == nullptr) return kConfineFailed;
    if (!isBelowRoot(rootReal, parentReal)) return refuse(root, rootReal, path);
    ConfineResult result = openParent(rootReal, parentReal, leaf, out);
    struct stat info;
    if (result != kConfineOk || !followLast || fstatat(out->dirFd, leaf, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISLNK(info.st_mode)) {
        return result;
    }
    int dirFd = out->dirFd;
    out->dirFd = -1;  // the link's own directory is not where the operation goes
    result = followLink(root, rootReal, path, dirFd, leaf, parentReal, out);
    close(dirFd);
    return result;
}

void releaseConfined(ConfinedPath* confined) {
    if (confined->dirFd >= 0) close(confined->dirFd);
    confined->dirFd = -1;
}

int openConfined(const char* root, const char* path, int flags, mode_t mode) {
    ConfinedPath confined;
    ConfineResult result = confinePath(root, path, true, &confined);
    if (result == kConfineRefused) return kConfineRefusedFd;
    if (result != kConfineOk) return -1;
    int fd = openat(confined.dirFd, confined.leaf, flags | O_NOFOLLOW | O_CLOEXEC, mode);
    int saved = errno;
    releaseConfined(&confined);
    errno = saved;
    return fd;
}

int32_t checkConfined(const char* root, const char* path, bool followLast) {
    ConfinedPath confined;
    ConfineResult result = confinePath(root, path, followLast, &confined);
    releaseConfined(&confined);
    return result == kConfineRefused ? 1 : 0;
}
