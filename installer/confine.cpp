// Confinement of the installer's own writes and reads. The kernel opens the name beneath the
// root's descriptor (openat2 with RESOLVE_BENEATH): one system call, which fails with EXDEV where
// a link or ".." would lead out. Kernels without openat2 (ENOSYS), and the names that the kernel
// refuses or that end in a link to be followed, take the walk: every directory resolved
// (realpath), the result required to lie in the root, and the directory then opened from the
// root's descriptor one component at a time with O_NOFOLLOW, so that what is used is what was
// checked. The walk also tells a link that leads out from an absolute link that stays inside
// (which RESOLVE_BENEATH refuses as well).
#include "installer/confine.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "installer/console.h"
#include "runtime/path.h"

namespace {

// The roots' descriptors, opened at first use and kept: a root is a directory that the run has
// settled on (the installation directory, the Eclipse location, a backup directory) and never
// moves. Beyond the table's size a root is opened each time.
struct RootEntry {
    char path[kPathSize];
    int fd;
};
RootEntry gRoots[4];
int gRootCount = 0;
bool gNoOpenat2 = false;  // the kernel said ENOSYS once

int rootDescriptor(const char* root, bool* owned) {
    *owned = false;
    for (int i = 0; i < gRootCount; i++)
        if (strcmp(gRoots[i].path, root) == 0) return gRoots[i].fd;
    int fd = open(root, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || strlen(root) >= kPathSize || gRootCount == 4) {
        *owned = fd >= 0;
        return fd;
    }
    strCopyBounded(gRoots[gRootCount].path, root, kPathSize);
    gRoots[gRootCount++].fd = fd;
    return fd;
}

// openat2 beneath dirFd. -1 with errno; ENOSYS also when an earlier call said so.
int openBeneath(int dirFd, const char* rel, int flags, mode_t mode) {
    if (gNoOpenat2) {
        errno = ENOSYS;
        return -1;
    }
    struct open_how how;
    memset(&how, 0, sizeof(how));
    how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
    how.mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    auto fd = static_cast<int>(syscall(SYS_openat2, dirFd, rel[0] != '\0' ? rel : ".", &how, sizeof(how)));
    if (fd < 0 && errno == ENOSYS) gNoOpenat2 = true;
    return fd;
}

// What an openat2 failure leaves to the walk: the kernel's refusals (a link or ".." out, an
// absolute link, a magic link, a rename racing the lookup) and a kernel without it. Anything else
// (ENOENT, EACCES, ENOTDIR, ...) is the operation's ordinary failure.
bool walkDecides(int error) {
    return error == EXDEV || error == ELOOP || error == EAGAIN || error == ENOSYS;
}

// path relative to root (path begins with root): the rest without leading "/".
const char* relativeTo(const char* root, const char* path) {
    const char* rel = path + strlen(root);
    while (*rel == '/') rel++;
    return rel;
}

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

namespace {

// The walk: confinePath without the kernel's help.
ConfineResult walkConfined(const char* root, const char* path, bool followLast, ConfinedPath* out) {
    char rootReal[PATH_MAX], parent[PATH_MAX], parentReal[PATH_MAX], leaf[kPathSize];
    if (!splitPath(path, parent, leaf)) {
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

}  // namespace

ConfineResult confinePath(const char* root, const char* path, bool followLast, ConfinedPath* out) {
    out->dirFd = -1;
    char parent[PATH_MAX], leaf[kPathSize];
    // Callers build the path from the root; anything else is a mistake, not a path to write.
    if (strncmp(path, root, strlen(root)) != 0 || !splitPath(path, parent, leaf) ||
        strlen(parent) + 1 < strlen(root)) {
        errno = EINVAL;
        return kConfineFailed;
    }
    bool owned = false;
    int rootFd = rootDescriptor(root, &owned);
    if (rootFd < 0) return kConfineFailed;
    int dirFd = openBeneath(rootFd, strlen(parent) > strlen(root) ? relativeTo(root, parent) : "",
                            O_PATH | O_DIRECTORY, 0);
    int error = errno;
    if (owned) close(rootFd);
    if (dirFd < 0) {
        if (walkDecides(error)) return walkConfined(root, path, followLast, out);
        errno = error;
        return kConfineFailed;
    }
    struct stat info;
    if (followLast && fstatat(dirFd, leaf, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode)) {
        close(dirFd);  // where the link leads is for the walk to work out
        return walkConfined(root, path, followLast, out);
    }
    out->dirFd = dirFd;
    strCopyBounded(out->leaf, leaf, kPathSize);
    return kConfineOk;
}

void releaseConfined(ConfinedPath* confined) {
    if (confined->dirFd >= 0) close(confined->dirFd);
    confined->dirFd = -1;
}

int openConfined(const char* root, const char* path, int flags, mode_t mode) {
    if (strncmp(path, root, strlen(root)) == 0) {
        int fd = openBeneathRoot(root, relativeTo(root, path), flags, mode);
        if (fd >= 0 || !walkDecides(errno)) return fd;
    }
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

int openBeneathRoot(const char* root, const char* rel, int flags, mode_t mode) {
    bool owned = false;
    int rootFd = rootDescriptor(root, &owned);
    if (rootFd < 0) return -1;
    int fd = openBeneath(rootFd, rel, flags, mode);
    int error = errno;
    if (owned) close(rootFd);
    errno = error;
    return fd;
}

bool confineWalkDecides(int error) {
    return walkDecides(error);
}

int32_t checkConfined(const char* root, const char* path, bool followLast) {
    ConfinedPath confined;
    ConfineResult result = confinePath(root, path, followLast, &confined);
    releaseConfined(&confined);
    return result == kConfineRefused ? 1 : 0;
}
