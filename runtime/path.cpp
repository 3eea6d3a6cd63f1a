// Bounded strings, path parts, the current-directory cache, absolute paths and link resolution,
// the PATH search and the environment snapshot.
#include "runtime/path.h"

#include "runtime/filehandle.h"
#include "runtime/status.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int32_t kPathSize = 512;
const int32_t kLongPathSize = 1024;
const int kMaxLinkHops = 8;

// Current-directory cache: the physical directory as getcwd reports it and the logical one as
// last requested through changeDirectory (links not resolved). Neither keeps a trailing "/".
char gPhysicalDir[kLongPathSize];
char gLogicalDir[kLongPathSize];
bool gCwdCached = false;

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

void dropTrailingSlash(char* path) {
    size_t n = strlen(path);
    if (n >= 2 && path[n - 1] == '/') path[n - 1] = 0;
}

// Re-reads the physical directory; the logical one follows it.
int32_t readCurrentDirectory() {
    char buf[kLongPathSize];
    if (!getcwd(buf, sizeof buf)) {
        gCwdCached = false;
        return fileMapErrno(errno, kPathNotFound);
    }
    strCopyBounded(gPhysicalDir, buf, kLongPathSize);
    strCopyBounded(gLogicalDir, buf, kLongPathSize);
    gCwdCached = true;
    return 0;
}

// Makes sure the cache describes the directory the process is really in. Someone may have
// called chdir behind the library's back; then both entries are taken afresh.
int32_t validateCwdCache() {
    if (!gCwdCached) return readCurrentDirectory();
    struct stat here, cached;
    if (stat(".", &here) != 0 || stat(gPhysicalDir, &cached) != 0 || here.st_dev != cached.st_dev ||
        here.st_ino != cached.st_ino)
        return readCurrentDirectory();
    return 0;
}

// Joins dir and name with exactly one "/" between them, bounded to size.
void joinPath(char* out, const char* dir, const char* name, int32_t size) {
    strCopyBounded(out, dir, size);
    if (pathLastChar(out) != '/') strAppendBounded(out, "/", size);
    strAppendBounded(out, name, size);
}

// Collapses "." and ".." in an absolute path; ".." at the root stays at the root.
void collapseDots(const char* in, char* out, int32_t size) {
    char work[kLongPathSize];
    int32_t len = 0;
    work[0] = 0;
    const char* p = in;
    while (*p) {
        while (*p == '/') ++p;
        const char* start = p;
        while (*p && *p != '/') ++p;
        size_t n = static_cast<size_t>(p - start);
        if (n == 0 || (n == 1 && start[0] == '.')) continue;
        if (n == 2 && start[0] == '.' && start[1] == '.') {
            while (len > 0 && work[len - 1] != '/') --len;
            if (len > 0) --len;
            work[len] = 0;
            continue;
        }
        if (len + 1 + static_cast<int32_t>(n) >= kLongPathSize) break;
        work[len++] = '/';
        memcpy(work + len, start, n);
        len += static_cast<int32_t>(n);
        work[len] = 0;
    }
    size_t inLen = strlen(in);
    bool trailing = inLen > 0 && in[inLen - 1] == '/';
    if (len == 0) {
        strCopyBounded(out, "/", size);
        return;
    }
    if (trailing && len + 1 < kLongPathSize) {
        work[len++] = '/';
        work[len] = 0;
    }
    strCopyBounded(out, work, size);
}

// The current directory can be noted in a path buffer, and so be returned to, only when it fits
// one whole; a cut one names some other directory or none.
bool cwdFits() {
    return validateCwdCache() == 0 && strlen(gLogicalDir) < size_t(kPathSize) &&
           strlen(gPhysicalDir) < size_t(kPathSize);
}

// Goes back to a directory noted earlier: the logical one, else the physical one.
void returnTo(const char* logical, const char* physical) {
    if (changeDirectory(logical) != 0) changeDirectory(physical);
}

// An executable candidate: exists, is no directory and carries an execute bit.
int32_t testExecutable(const char* candidate) {
    struct stat st;
    if (stat(candidate, &st) != 0 || S_ISDIR(st.st_mode) || (st.st_mode & 0111) == 0) return kNotExecutable;
    return 0;
}

// Environment snapshot: one block holding copies of all usable entries.
struct EnvEntry {
    const char* name;
    size_t nameLength;
    const char* value;
};
EnvEntry* gEnvEntries = nullptr;
char* gEnvText = nullptr;  // the copied strings that the entries point into
size_t gEnvCount = 0;
bool gEnvTaken = false;

void takeEnvironmentSnapshot() {
    gEnvTaken = true;
    if (!environ) return;
    size_t count = 0;
    size_t bytes = 0;
    for (char** e = environ; *e; ++e) {
        ++count;
        bytes += strlen(*e) + 1;
    }
    if (count == 0) return;
    EnvEntry* entries = static_cast<EnvEntry*>(malloc(count * sizeof(EnvEntry)));
    char* text = static_cast<char*>(malloc(bytes));
    if (!entries || !text) {
        free(entries);
        free(text);
        return;
    }
    size_t used = 0;
    char* dst = text;
    for (char** e = environ; *e; ++e) {
        size_t n = strlen(*e);
        memcpy(dst, *e, n + 1);
        char* eq = strchr(dst, '=');
        if (eq && eq != dst) {
            entries[used].name = dst;
            entries[used].nameLength = static_cast<size_t>(eq - dst);
            entries[used].value = eq + 1;
            ++used;
        }
        dst += n + 1;
    }
    gEnvEntries = entries;
    gEnvText = text;
    gEnvCount = used;
}

}  // namespace

void strCopyBounded(char* dst, const char* src, int32_t size) {
    size_t n = strlen(src);
    if (size <= 0)
        n = 0;
    else if (n > static_cast<size_t>(size - 1))
        n = static_cast<size_t>(size - 1);
    memmove(dst, src, n);
    dst[n] = 0;
}

void strAppendBounded(char* dst, const char* src, int32_t size) {
    if (size <= 0) return;
    size_t n = strlen(dst);
    size_t limit = static_cast<size_t>(size);
    while (n < limit) {
        dst[n] = *src;
        if (*src == 0) return;
        ++src;
        ++n;
    }
    // The buffer filled up (or dst was exactly size long): cut to size - 1 characters.
    if (n == limit) dst[limit - 1] = 0;
}

int32_t pathLastChar(const char* path) {
    size_t n = strlen(path);
    return n == 0 ? ' ' : static_cast<unsigned char>(path[n - 1]);
}

int32_t pathDirLength(const char* path) {
    int32_t length = 0;
    for (int32_t i = 0; path[i]; ++i)
        if (isSeparator(path[i])) length = i + 1;
    return length;
}

void pathExtension(const char* path, char* out, int32_t size) {
    if (size <= 0) return;
    const char* name = path + pathDirLength(path);
    const char* dot = strrchr(name, '.');
    strCopyBounded(out, dot ? dot : "", size);
}

void pathPart(char* path, char what) {
    switch (what) {
        case 'P': {
            int32_t dir = pathDirLength(path);
            memmove(path, path + dir, strlen(path + dir) + 1);
            break;
        }
        case 'N':
            path[pathDirLength(path)] = 0;
            break;
        case 'E': {
            // The extension goes through a 20-byte buffer; only as many characters as it kept are cut.
            char ext[20];
            pathExtension(path, ext, sizeof ext);
            size_t n = strlen(path);
            size_t cut = strlen(ext);
            path[n - cut] = 0;
            break;
        }
        case 'B':
            pathPart(path, 'P');
            pathPart(path, 'E');
            break;
        case 'D':
            if (isalpha(static_cast<unsigned char>(path[0])) && path[1] == ':')
                memmove(path, path + 2, strlen(path + 2) + 1);
            break;
        default:
            break;
    }
}

int32_t getCurrentDirectory(char* out, int32_t ignored, int32_t logical) {
    int32_t rc = validateCwdCache();
    if (rc != 0) return rc;
    strCopyBounded(out, logical ? gLogicalDir : gPhysicalDir, kPathSize);
    dropTrailingSlash(out);
    return 0;
}

int32_t changeDirectory(const char* path) {
    int32_t rc = validateCwdCache();
    if (rc != 0) return rc;
    if (strcmp(gPhysicalDir, path) == 0) return 0;

    char savedLogical[kLongPathSize];
    strCopyBounded(savedLogical, gLogicalDir, kLongPathSize);
    char logical[kLongPathSize];
    pathResolve(logical, path, 1);

    if (chdir(path) != 0) {
        int err = errno;
        strCopyBounded(gLogicalDir, savedLogical, kLongPathSize);
        return fileMapErrno(err, kPathNotFound);
    }
    char physical[kPathSize];
    if (getcwd(physical, sizeof physical))
        strCopyBounded(gPhysicalDir, physical, kLongPathSize);
    else
        strCopyBounded(gPhysicalDir, logical, kLongPathSize);
    strCopyBounded(gLogicalDir, logical, kLongPathSize);
    dropTrailingSlash(gLogicalDir);
    return 0;
}

int32_t pathAbsolute(char* out, const char* in) {
    char path[kPathSize];
    strCopyBounded(path, in, kPathSize);
    if (path[0] == '"') memmove(path, path + 1, strlen(path));
    size_t len = strlen(path);
    if (len > 0 && path[len - 1] == '"') path[len - 1] = 0;

    char logical[kPathSize];
    char physical[kPathSize];
    int32_t rc = getCurrentDirectory(logical, 0, 1);
    if (rc == 0) rc = getCurrentDirectory(physical, 0, 0);
    if (rc != 0) {
        strCopyBounded(out, path, kPathSize);
        return rc;
    }

    int32_t dirLength = pathDirLength(path);
    if (dirLength == 0) {
        joinPath(out, physical, path, kPathSize);
        return 0;
    }

    char dir[kPathSize];
    strCopyBounded(dir, path, dirLength + 1);
    dropTrailingSlash(dir);
    const char* name = path + dirLength;
    if (cwdFits() && changeDirectory(dir) == 0) {
        char here[kPathSize];
        if (getCurrentDirectory(here, 0, 0) != 0) strCopyBounded(here, dir, kPathSize);
        joinPath(out, here, name, kPathSize);
        returnTo(logical, physical);
        return 0;
    }
    if (path[0] == '/')
        strCopyBounded(out, path, kPathSize);
    else
        joinPath(out, physical, path, kPathSize);
    return 0;
}

int32_t pathResolve(char* out, const char* in, int32_t noFollow) {
    if (noFollow) {
        char absolute[kLongPathSize];
        if (in[0] == '/') {
            strCopyBounded(absolute, in, kLongPathSize);
        } else {
            char logical[kPathSize];
            int32_t rc = getCurrentDirectory(logical, 0, 1);
            if (rc != 0) return rc;
            joinPath(absolute, logical, in, kLongPathSize);
        }
        collapseDots(absolute, out, kPathSize);
        return 0;
    }

    pathAbsolute(out, in);
    char kept[kPathSize];
    strCopyBounded(kept, out, kPathSize);

    char logical[kPathSize];
    char physical[kPathSize];
    int hops = 0;
    struct stat st;
    while (lstat(out, &st) == 0 && S_ISLNK(st.st_mode)) {
        if (hops == 0) {
            if (!cwdFits() || getCurrentDirectory(logical, 0, 1) != 0 ||
                getCurrentDirectory(physical, 0, 0) != 0) {
                strCopyBounded(out, kept, kPathSize);
                return 0;
            }
        }
        char dir[kPathSize];
        strCopyBounded(dir, out, pathDirLength(out) + 1);
        dropTrailingSlash(dir);
        char target[kLongPathSize];
        ssize_t n = -1;
        if (changeDirectory(dir) == 0) n = readlink(out, target, sizeof target - 1);
        if (n < 0) {
            strCopyBounded(out, kept, kPathSize);
            break;
        }
        target[n] = 0;
        pathAbsolute(out, target);
        // Long chains (and loops) are left unresolved: the path as first made absolute stands.
        if (++hops == kMaxLinkHops) {
            strCopyBounded(out, kept, kPathSize);
            break;
        }
    }
    if (hops > 0) returnTo(logical, physical);
    return 0;
}

int32_t pathSearch(char* out, const char* name, const char* listName, int32_t flags, int32_t outSize) {
    if (outSize <= 0) return kFileNotFound;
    size_t nameLength = strlen(name);
    out[0] = 0;
    if (strchr(name, '/')) {
        if (nameLength >= static_cast<size_t>(outSize)) return kFileNotFound;
        strCopyBounded(out, name, outSize);
        if (testExecutable(out) == 0) return 0;
        out[0] = 0;
        return kFileNotFound;
    }

    const char* list;
    if ((flags & 0x80) && listName)
        list = listName;
    else
        list = getenv(listName ? listName : "PATH");
    if (!list) {
        if (nameLength < static_cast<size_t>(outSize)) {
            strCopyBounded(out, name, outSize);
            if (testExecutable(out) == 0) return 0;
        }
        out[0] = 0;
        return kFileNotFound;
    }

    const char* p = list;
    for (;;) {
        while (*p == ' ') ++p;
        const char* start = p;
        while (*p && *p != ':') ++p;
        size_t n = static_cast<size_t>(p - start);
        bool slash = n > 0 && start[n - 1] != '/';
        // A candidate that does not fit would name some other file; skip it.
        if (n + (slash ? 1 : 0) + nameLength < static_cast<size_t>(outSize)) {
            memcpy(out, start, n);
            out[n] = 0;
            if (slash) strAppendBounded(out, "/", outSize);
            strAppendBounded(out, name, outSize);
            if (testExecutable(out) == 0) return 0;
        }
        if (*p == 0) break;
        ++p;
    }
    out[0] = 0;
    return kFileNotFound;
}

int32_t entryExists(const char* path) {
    char copy[kPathSize];
    strCopyBounded(copy, path, kPathSize);
    dropTrailingSlash(copy);
    int32_t member = fileArchiveMemberExists(copy);
    if (member >= 0) return member;
    struct stat st;
    return stat(copy, &st) == 0 ? 1 : 0;
}

int32_t removeDirectory(const char* path) {
    char copy[kLongPathSize];
    strCopyBounded(copy, path, kLongPathSize);
    dropTrailingSlash(copy);
    if (rmdir(copy) != 0) return fileMapErrno(errno, kPathNotFound);
    return 0;
}

const char* envGet(const char* name) {
    if (!gEnvTaken) takeEnvironmentSnapshot();
    size_t n = strlen(name);
    if (n == 0) return nullptr;
    for (size_t i = 0; i < gEnvCount; ++i)
        if (gEnvEntries[i].nameLength == n && memcmp(gEnvEntries[i].name, name, n) == 0)
            return gEnvEntries[i].value;
    return nullptr;
}
