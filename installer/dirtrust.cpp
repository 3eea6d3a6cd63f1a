// The installation directory as root may use it: its path resolved by the kernel, each directory
// on it looked at once. A directory that only root can change stays as checked, so no later step
// has to trust a name that another user could have swapped.
#include "installer/dirtrust.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "installer/console.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

// The system's own directories, as paths below "/" without the leading "/". Names beginning
// with "lib" are matched as a family below "/", "/usr" and "/usr/local" (lib32, lib64, libx32,
// libexec).
const char* const kSystemDirs[] = {
    "bin",         "boot",          "dev",           "etc",     "home",      "media",     "mnt",
    "opt",         "proc",          "root",          "run",     "sbin",      "srv",       "sys",
    "tmp",         "usr",           "var",           "snap",    "usr/bin",   "usr/games", "usr/include",
    "usr/local",   "usr/sbin",      "usr/share",     "usr/src", "var/cache", "var/lib",   "var/local",
    "var/lock",    "var/log",       "var/mail",      "var/opt", "var/run",   "var/spool", "var/tmp",
    "var/backups", "usr/share/doc", "usr/share/man",
};

bool isLibFamily(const char* rest) {
    // "lib", "lib64", "libexec", ...: one name, no further "/".
    return strncmp(rest, "lib", 3) == 0 && strchr(rest, '/') == nullptr;
}

void describeOwner(unsigned uid, char* out, size_t size) {
    struct passwd* entry = getpwuid(uid);
    if (entry != nullptr) {
        snprintf(out, size, "user %s (uid %u)", entry->pw_name, uid);
    } else {
        snprintf(out, size, "uid %u", uid);
    }
}

// Why a directory that exists could be changed by another user than root: 1 when owned by
// another user, 2 when others may write it (with the sticky bit only when stickyCounts), else 0.
int32_t untrustedReason(unsigned ownerUid, unsigned mode, bool stickyCounts) {
    if (ownerUid != 0) return 1;
    if ((mode & S_IWOTH) != 0 && !(stickyCounts && (mode & S_ISVTX) != 0)) return 2;
    return 0;
}

// Refuses dir when another user could change it; 0 when it is root's alone.
int32_t refuseIfUntrusted(const char* dir, const struct stat& info, bool stickyCounts) {
    int32_t reason = untrustedReason(info.st_uid, info.st_mode, stickyCounts);
    if (reason == 1) {
        char owner[64];
        describeOwner(info.st_uid, owner, sizeof(owner));
        printMessage(
            "%s is owned by %s, who could change or replace what root installs there. Make root "
            "its owner (chown root %s) or run the installer as that user.",
            dir, owner, dir);
    } else if (reason == 2) {
        printMessage(
            "%s can be written by every user (mode %04o), who could change or replace what root "
            "installs there. Take that permission away (chmod o-w %s) or run the installer as the "
            "user who is to own the installation.",
            dir, static_cast<unsigned>(info.st_mode & 07777), dir);
    }
    return reason != 0 ? 1 : 0;
}

// The longest part of path that exists, resolved by the kernel, into canonical (PATH_MAX bytes);
// rest points at what does not exist yet ("" when all of it does). False when nothing resolves.
bool resolveExisting(const char* path, char* canonical, const char** rest) {
    char prefix[PATH_MAX];
    strCopyBounded(prefix, path, sizeof(prefix));
    size_t length = strlen(prefix);
    for (;;) {
        while (length > 1 && prefix[length - 1] == '/') prefix[--length] = '\0';
        if (realpath(prefix, canonical) != nullptr) break;
        if (errno != ENOENT || length <= 1) return false;
        char* slash = strrchr(prefix, '/');
        if (slash == nullptr) return false;
        length = slash == prefix ? 1 : static_cast<size_t>(slash - prefix);
        prefix[length] = '\0';
    }
    *rest = path + length;
    while (**rest == '/') (*rest)++;
    return true;
}

// Appends the names in rest (which do not exist yet) to the canonical path whole (PATH_MAX
// bytes), "." dropped and ".." taking the name before it away, as they will resolve once the
// directories are made.
void appendLexically(char* whole, const char* rest) {
    while (*rest != '\0') {
        size_t n = strcspn(rest, "/");
        if (n == 2 && strncmp(rest, "..", 2) == 0) {
            char* slash = strrchr(whole, '/');
            if (slash != nullptr) slash[slash == whole ? 1 : 0] = '\0';
        } else if (n > 0 && !(n == 1 && rest[0] == '.')) {
            if (strcmp(whole, "/") != 0) strAppendBounded(whole, "/", PATH_MAX);
            size_t length = strlen(whole);
            if (length + n < PATH_MAX) {
                memcpy(whole + length, rest, n);
                whole[length + n] = '\0';
            }
        }
        rest += n;
        while (*rest == '/') rest++;
    }
}

// Every directory from "/" down to canonical, each looked at once.
int32_t checkPath(const char* canonical, bool lastIsTarget) {
    char dir[PATH_MAX];
    size_t at = 0;
    for (;;) {
        size_t end = at == 0 ? 1 : at + strcspn(canonical + at + 1, "/") + 1;
        strCopyBounded(dir, canonical, static_cast<int32_t>(end + 1));
        struct stat info;
        if (stat(dir, &info) != 0) return 0;  // gone meanwhile: the later steps meet it
        bool last = canonical[end] == '\0';
        if (refuseIfUntrusted(dir, info, !(last && lastIsTarget)) != 0) return 1;
        if (last) return 0;
        at = end;
    }
}

// True when the canonical path (no trailing "/" except for "/" itself) is "/" or one of the
// directories the system keeps its own files in ("/usr", "/usr/lib", "/var", "/etc", ...).
// Directories below them with a name of their own ("/opt/corvane", "/usr/local/corvane") are not.
bool isSystemDirectory(const char* canonical) {
    if (strcmp(canonical, "/") == 0) return true;
    if (canonical[0] != '/') return false;
    const char* rest = canonical + 1;
    for (const char* dir : kSystemDirs)
        if (strcmp(rest, dir) == 0) return true;
    if (isLibFamily(rest)) return true;
    if (strncmp(rest, "usr/", 4) == 0 && isLibFamily(rest + 4)) return true;
    return strncmp(rest, "usr/local/", 10) == 0 && isLibFamily(rest + 10);
}

}  // namespace

int32_t checkInstallDirectoryTrust(const char* installDir) {
    if (geteuid() != 0) return 0;
    char canonical[PATH_MAX];
    const char* rest = "";
    if (!resolveExisting(installDir, canonical, &rest)) return 0;  // left to the access checks
    char whole[PATH_MAX];
    strCopyBounded(whole, canonical, sizeof(whole));
    appendLexically(whole, rest);
    if (isSystemDirectory(whole)) {
        printMessage(
            "%s is one of the system's own directories: the package would be unpacked over the "
            "system's files. Choose a directory of its own, such as /opt/corvane/.",
            whole);
        return 1;
    }
    // The directory itself, when it exists, is where the package goes: no sticky bit makes it safe
    // for others to write in it, for they could make its bin/ before tar does.
    if (checkPath(canonical, rest[0] == '\0') != 0) return 1;
    if (rest[0] != '\0') return 0;
    for (const char* sub : {"bin", "macros", "bitmaps"}) {
        char dir[PATH_MAX];
        strCopyBounded(dir, canonical, sizeof(dir));
        if (strcmp(dir, "/") != 0) strAppendBounded(dir, "/", sizeof(dir));
        strAppendBounded(dir, sub, sizeof(dir));
        struct stat info;
        if (stat(dir, &info) == 0 && S_ISDIR(info.st_mode) && refuseIfUntrusted(dir, info, false) != 0)
            return 1;
    }
    return 0;
}
