// The record of what an installation made. Birth times tell it: a file's birth time, unlike its
// status change time, stays what it was when root's chown -R walks the tree, so nothing that was
// there before the mark passes for new.
#include "installer/maderecord.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "installer/console.h"
#include "installer/nodesweep.h"
#include "installer/state.h"
#include "installer/verify.h"

namespace {

struct timespec gStart = {0, 0};
bool gMarked = false;

struct Recording {
    std::unordered_set<std::string> listed, earlier;
    std::vector<std::string> names;
};

bool isDatedListName(const char* name) {
    size_t prefix = strlen(kFileListName);
    if (strncmp(name, kFileListName, prefix) != 0 || name[prefix] != '.' || strlen(name) != prefix + 15)
        return false;
    for (const char* digit = name + prefix + 1; *digit != '\0'; digit++)
        if (*digit < '0' || *digit > '9') return false;
    return true;
}

// The list the installation was checked against: the dated one it was renamed to, or with -s the
// package's own list as it was unpacked.
std::string listOf(int dirFd) {
    struct stat info;
    if (fstatat(dirFd, kFileListName, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
        return kFileListName;
    int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    std::string newest;
    while (dir != nullptr) {
        const struct dirent* entry = readdir(dir);
        if (entry == nullptr) break;
        if (isDatedListName(entry->d_name) && entry->d_name > newest) newest = entry->d_name;
    }
    if (dir != nullptr)
        closedir(dir);
    else if (fd >= 0)
        close(fd);
    return newest;
}

// Reads the listed names and the directories above them.
void readListed(int dirFd, const std::string& name, std::unordered_set<std::string>* listed) {
    int fd = name.empty() ? -1 : openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    FILE* list = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (list == nullptr) {
        if (fd >= 0) close(fd);
        return;
    }
    char line[kListLineSize];
    ListRecord record;
    while (readListRecord(list, line, &record) > 0) {
        std::string path = record.path;
        if (path.empty()) continue;
        listed->insert(path);
        for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
            listed->insert(path.substr(0, slash + 1));
    }
    fclose(list);
}

void readEarlier(int dirFd, std::unordered_set<std::string>* earlier) {
    int fd = openat(dirFd, kMadeRecordName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    FILE* record = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (record == nullptr) {
        if (fd >= 0) close(fd);
        return;
    }
    char line[PATH_MAX + 2];
    while (fgets(line, sizeof(line), record) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        if (line[0] != '\0') earlier->insert(line);
    }
    fclose(record);
}

bool bornAfterMark(int dirFd, const char* name) {
    struct statx info;
    if (statx(dirFd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, STATX_BTIME, &info) != 0 ||
        (info.stx_mask & STATX_BTIME) == 0)
        return false;
    return info.stx_btime.tv_sec != gStart.tv_sec ? info.stx_btime.tv_sec > gStart.tv_sec
                                                  : info.stx_btime.tv_nsec > gStart.tv_nsec;
}

// Walks the directory fd (rel: its place, "" or ending in "/"), taking the entry's kind from the
// directory listing: most entries are listed files, which cost a lookup and no system call. Only
// real directories on the installation's file system are entered, never a link.
void walk(Recording* recording, int fd, const std::string& rel, dev_t device) {
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return;
    }
    while (const struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || strchr(name, '\n') != nullptr) continue;
        bool isDir = entry->d_type == DT_DIR;
        struct stat info;
        if (entry->d_type == DT_UNKNOWN)
            isDir = fstatat(dirfd(dir), name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
        std::string path = rel + name + (isDir ? "/" : "");
        // The lists are known by their names; a dated list's name would make two installations of
        // the same package differ in their records.
        if (path == kMadeRecordName || path == kFileListName || isDatedListName(path.c_str())) continue;
        // Listed entries are looked up before the birth time is asked for.
        if (recording->listed.count(path) == 0 &&
            (recording->earlier.count(path) != 0 || bornAfterMark(dirfd(dir), name)))
            recording->names.push_back(path);
        if (!isDir) continue;
        int sub = openat(dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub >= 0 && fstat(sub, &info) == 0 && info.st_dev == device)
            walk(recording, sub, path, device);
        else if (sub >= 0)
            close(sub);
    }
    closedir(dir);
}

int32_t writeRecord(int dirFd, const std::vector<std::string>& names) {
    static const char kPartial[] = "distribmade.new";
    unlinkat(dirFd, kPartial, 0);
    int fd = openat(dirFd, kPartial, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    FILE* out = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (out == nullptr) {
        if (fd >= 0) close(fd);
        return 1;
    }
    for (const std::string& name : names) fprintf(out, "%s\n", name.c_str());
    bool written = fclose(out) == 0;
    if (written && renameat(dirFd, kPartial, dirFd, kMadeRecordName) == 0) return 0;
    unlinkat(dirFd, kPartial, 0);
    return 1;
}

}  // namespace

void markInstallationStart() {
    // As before unpacking: the clock that stamps new files passes the mark before the run goes on.
    markBeforeUnpacking(&gStart);
    gMarked = true;
}

int32_t recordMadeFiles() {
    if (!gMarked) return 0;
    int dirFd = open(gState.installDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0) {
        printMessage("Cannot record the files made in %s.", gState.installDir);
        return 1;
    }
    Recording recording;
    readListed(dirFd, listOf(dirFd), &recording.listed);
    readEarlier(dirFd, &recording.earlier);
    struct stat info;
    int top = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (top >= 0 && fstat(top, &info) == 0)
        walk(&recording, top, "", info.st_dev);
    else if (top >= 0)
        close(top);
    std::sort(recording.names.begin(), recording.names.end());
    printVerbose("Recording %d files made in %s%s\n", static_cast<int>(recording.names.size()),
                 gState.installDir, kMadeRecordName);
    int32_t result = writeRecord(dirFd, recording.names);
    close(dirFd);
    if (result != 0) printMessage("Cannot record the files made in %s.", gState.installDir);
    return result;
}
