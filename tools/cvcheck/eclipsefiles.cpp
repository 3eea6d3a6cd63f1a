// Recognising the plug-in's files in an Eclipse installation. Both were written from the plug-in
// root as the installer had it: the link file holds "path=<root>", the script's library path
// starts with "<root>/eclipse/plugins/com.corvane.core_10.0.0/bin", quoted by the installer's
// own shell quoting.
#include "tools/cvcheck/eclipsefiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "installer/eclipse.h"
#include "installer/shellcmd.h"
#include "installer/state.h"

namespace {

// Up to limit bytes of a regular file; false when it is not one or cannot be read.
bool readSmall(int dirFd, const char* name, std::string* text, size_t limit) {
    int fd = dirFd >= 0 ? openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1;
    if (fd < 0) return false;
    struct stat info;
    std::string buffer(limit, '\0');
    ssize_t n = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? read(fd, buffer.data(), limit) : -1;
    close(fd);
    if (n < 0) return false;
    *text = buffer.substr(0, static_cast<size_t>(n));
    return true;
}

bool sameFile(const char* path, const std::string& other) {
    struct stat a, b;
    return stat(path, &a) == 0 && stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

void look(int dirFd, const std::string& dirPath, const char* leaf, EclipseFile* file) {
    struct stat info;
    file->dirFd = dirFd;
    file->leaf = leaf;
    file->path = dirPath + leaf;
    file->exists = dirFd >= 0 && fstatat(dirFd, leaf, &info, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

int findEclipseFiles(const char* dir, const Installation& inst, EclipseFiles* files, std::string* why) {
    char resolved[PATH_MAX];
    if (realpath(dir, resolved) == nullptr) {
        *why = std::string("cannot open the Eclipse installation ") + dir + ": " + strerror(errno);
        return 1;
    }
    files->location = resolved;
    if (files->location.back() != '/') files->location += '/';
    struct stat info;
    if (stat((files->location + ".eclipseproduct").c_str(), &info) != 0) files->location += "eclipse/";
    if (stat((files->location + ".eclipseproduct").c_str(), &info) != 0) {
        *why = std::string(dir) + " holds no Eclipse installation (no .eclipseproduct there or in eclipse/)";
        return 1;
    }
    files->fd = open(files->location.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int links =
        files->fd >= 0 ? openat(files->fd, "links", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
    look(links, files->location + "links/", kEclipseLinkFile, &files->link);
    look(files->fd, files->location, kLaunchScript, &files->script);

    // The root as the installer wrote it, when the link file names this plug-in root.
    std::string root = inst.root.substr(0, inst.root.size() > 1 ? inst.root.size() - 1 : 1), text;
    if (readSmall(links, kEclipseLinkFile, &text, PATH_MAX + 8) && text.compare(0, 5, "path=") == 0 &&
        sameFile(text.c_str() + 5, inst.root)) {
        files->link.ours = true;
        root = text.substr(5);
    }
    std::string bin =
        root + (root.back() == '/' ? "eclipse/" : "/eclipse/") + versionedName(kPluginDirs[1]) + "/bin";
    char expected[8 * kPathSize];
    files->script.ours = formatShellCommand(expected, sizeof(expected),
                                            "#!/bin/sh\n\nLD_LIBRARY_PATH=%s:", bin.c_str()) == 0 &&
                         readSmall(files->fd, kLaunchScript, &text, sizeof(expected)) &&
                         text.compare(0, strlen(expected), expected) == 0;
    return 0;
}

void closeEclipseFiles(EclipseFiles* files) {
    if (files->link.dirFd >= 0) close(files->link.dirFd);
    if (files->fd >= 0) close(files->fd);
    files->link.dirFd = files->script.dirFd = files->fd = -1;
}
