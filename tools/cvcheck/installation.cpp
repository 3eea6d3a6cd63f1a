// Finding an installation's lists and placing its listed files. In plug-in mode the package
// unpacks into the core plug-in directory, and the layout step moves what it holds below
// "eclipse/" into the plug-in layout directory, giving the three plug-in directories the version.
#include "tools/cvcheck/installation.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unordered_map>
#include <utility>

#include "installer/eclipse.h"
#include "installer/state.h"
#include "installer/verify.h"
#include "tools/cvcheck/safedir.h"
#include "installer/maderecord.h"
#include "tools/common/modelist.h"
#include "tools/common/sha256list.h"

namespace {

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The newest dated list among the regular files of the directory, or "".
std::string newestDatedList(int dirFd) {
    int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        if (fd >= 0) close(fd);
        return "";
    }
    std::string newest;
    while (const struct dirent* entry = readdir(dir)) {
        struct stat info;
        if (isDatedList(entry->d_name) && entry->d_name > newest &&
            fstatat(dirFd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode))
            newest = entry->d_name;
    }
    closedir(dir);
    return newest;
}

bool regularFileAt(int dirFd, const char* name) {
    struct stat info;
    return dirFd >= 0 && fstatat(dirFd, name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
}

// The whole of a regular file in the directory; 0, or -1 with errno set.
int readWhole(int dirFd, const char* name, std::string* text) {
    int fd = openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    char block[65536];
    ssize_t n = 0;
    while ((n = read(fd, block, sizeof(block))) > 0) text->append(block, static_cast<size_t>(n));
    int saved = errno;
    close(fd);
    errno = saved;
    return n < 0 ? -1 : 0;
}

// Where the installation put a listed name.
void placeListed(bool plugin, ListedFile* file) {
    file->base = kBaseInstall;
    file->location = file->name;
    if (!plugin || !startsWith(file->name, "eclipse/")) return;
    std::string rest = file->name.substr(8);
    for (const char* dir : kPluginDirs) {
        if (rest == dir || startsWith(rest, std::string(dir) + "/")) {
            rest = versionedName(dir) + rest.substr(strlen(dir));
            break;
        }
    }
    const std::string core = versionedName(kPluginDirs[1]) + "/";
    file->base = startsWith(rest, core) ? kBaseInstall : kBaseLayout;
    file->location = file->base == kBaseInstall ? rest.substr(core.size()) : rest;
}

// Finds the installation directory: dir itself, or the core plug-in directory below a plug-in
// root. Sets the paths and descriptors; 0 or 1.
int locate(Installation* inst, std::string* why) {
    const std::string coreBelowRoot = "eclipse/" + versionedName(kPluginDirs[1]);
    inst->listName = newestDatedList(inst->dirFd);
    inst->unfinished = regularFileAt(inst->dirFd, kFileListName);
    if (!inst->listName.empty() || inst->unfinished) {
        inst->install = inst->dir;
        inst->installFd = openDirBelow(inst->dirFd, "");
        // A core plug-in directory: <root>/eclipse/plugins/com.corvane.core_10.0.0/.
        if (inst->dir.size() > coreBelowRoot.size() + 1 &&
            inst->dir.compare(inst->dir.size() - coreBelowRoot.size() - 2, coreBelowRoot.size() + 2,
                              "/" + coreBelowRoot + "/") == 0) {
            inst->plugin = true;
            inst->root = inst->dir.substr(0, inst->dir.size() - coreBelowRoot.size() - 1);
        }
    } else {
        int core = openDirBelow(inst->dirFd, coreBelowRoot);
        std::string list = core >= 0 ? newestDatedList(core) : "";
        inst->unfinished = regularFileAt(core, kFileListName);
        if (list.empty() && !inst->unfinished) {
            if (core >= 0) close(core);
            *why = "no dated file list (" + std::string(kFileListName) + ".YYYYMMDDhhmmss) in " + inst->dir +
                   ": no installation there, or one that was never verified";
            return 1;
        }
        inst->plugin = true;
        inst->listName = list;
        inst->installFd = core;
        inst->root = inst->dir;
        inst->install = inst->dir + coreBelowRoot + "/";
    }
    if (inst->plugin) {
        inst->layout = inst->root + "eclipse/";
        inst->layoutFd = open(inst->layout.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    return 0;
}

int readFileList(Installation* inst, std::string* why) {
    int fd = openat(inst->installFd, inst->listName.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    char digest[kSha256HexSize];
    if (fd >= 0 && sha256Descriptor(fd, digest) == 0 && lseek(fd, 0, SEEK_SET) == 0)
        inst->listSha256 = digest;
    FILE* list = fd >= 0 && !inst->listSha256.empty() ? fdopen(fd, "r") : nullptr;
    if (list == nullptr) {
        *why = "cannot read " + inst->install + inst->listName + ": " + strerror(errno);
        if (fd >= 0) close(fd);
        return 1;
    }
    struct stat info;
    inst->rootInstallation = fstat(fd, &info) == 0 && info.st_uid == 0;
    char line[kListLineSize];
    ListRecord record;
    while (readListRecord(list, line, &record) > 0) {
        if (record.path[0] == '\0') continue;
        if (record.size != 0 || record.checksum != 0) inst->listRecords++;
        if (listNameLeavesDir(record.path)) {
            *why = inst->listName + " names '" + record.path + "', which has a '..' component";
            fclose(list);
            return 1;
        }
        ListedFile file{record.path, kBaseInstall, "",        record.size, record.checksum,
                        false,       "",           kMadeNone, false};
        placeListed(inst->plugin, &file);
        inst->files.push_back(file);
    }
    fclose(list);
    return 0;
}

// Reads the side list name of the installation with parseList into entries. 0 (present: whether
// there is such a list), or 1 with why set; refusal says what a bad line is not and what to do.
template <typename Entry, typename ParseList>
int readSideList(const Installation* inst, const char* name, ParseList parseList, const char* refusal,
                 std::vector<Entry>* entries, bool* present, std::string* why) {
    std::string text;
    *present = false;
    if (readWhole(inst->installFd, name, &text) != 0) {
        if (errno == ENOENT) return 0;
        *why = "cannot read " + inst->install + name + ": " + strerror(errno);
        return 1;
    }
    *present = true;
    size_t bad = parseList(text, entries);
    if (bad == 0) return 0;
    *why = inst->install + name + " line " + std::to_string(bad) + refusal;
    return 1;
}

int readDigests(Installation* inst, std::string* why) {
    std::vector<Sha256Entry> entries;
    bool present = false;
    if (readSideList(inst, kSha256ListName, parseSha256List,
                     " is not a sha256sum line; remove the file to check with the byte sums alone", &entries,
                     &present, why) != 0)
        return 1;
    if (!present) return 0;
    std::unordered_map<std::string, const Sha256Entry*> byName;
    for (const Sha256Entry& entry : entries) byName[entry.name] = &entry;
    for (ListedFile& file : inst->files) {
        auto found = byName.find(file.name);
        if (found == byName.end()) continue;
        file.hasDigest = true;
        memcpy(file.digest, found->second->hex, kSha256HexSize);
        byName.erase(found);
    }
    // A file that the SHA-256 list names and the file list does not (an emptied or damaged file
    // list) is checked by its digest alone, in the SHA-256 list's order.
    for (const Sha256Entry& entry : entries) {
        if (byName.count(entry.name) == 0) continue;
        if (listNameLeavesDir(entry.name.c_str())) {
            *why = std::string(kSha256ListName) + " names '" + entry.name + "', which has a '..' component";
            return 1;
        }
        ListedFile file{entry.name, kBaseInstall, "", -1, 0, true, "", kMadeNone, false};
        memcpy(file.digest, entry.hex, kSha256HexSize);
        placeListed(inst->plugin, &file);
        inst->files.push_back(file);
    }
    inst->sha256List = true;
    return 0;
}

int readModes(Installation* inst, std::string* why) {
    std::vector<ModeEntry> entries;
    bool present = false;
    if (readSideList(inst, kModeListName, parseModeList,
                     " is not a mode line; remove the file to check without modes", &entries, &present,
                     why) != 0)
        return 1;
    if (!present) return 0;
    std::unordered_map<std::string, const ModeEntry*> byName;
    for (const ModeEntry& entry : entries) byName[entry.name] = &entry;
    for (ListedFile& file : inst->files) {
        auto found = byName.find(file.name);
        if (found == byName.end()) continue;
        file.mode = static_cast<int>(found->second->mode);
        file.ownerRoot = found->second->rootOwned && inst->rootInstallation;
    }
    for (const ModeEntry& entry : entries) {
        if (entry.name.size() < 2 || entry.name.back() != '/') continue;
        ListedFile dir{entry.name.substr(0, entry.name.size() - 1),
                       kBaseInstall,
                       "",
                       -1,
                       0,
                       false,
                       "",
                       kMadeNone,
                       false};
        dir.mode = static_cast<int>(entry.mode);
        dir.ownerRoot = entry.rootOwned && inst->rootInstallation;
        placeListed(inst->plugin, &dir);
        if (!listNameLeavesDir(dir.name.c_str())) inst->dirs.push_back(dir);
    }
    inst->modeList = true;
    return 0;
}

// The record of what the installation made, one name a line; none is fine (an older installer).
void readMade(Installation* inst) {
    std::string text;
    if (readWhole(inst->installFd, kMadeRecordName, &text) != 0) return;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string name = text.substr(start, end - start);
        if (!name.empty() && !listNameLeavesDir(name.c_str())) inst->made.insert(name);
        start = end + 1;
    }
}

// The installation's own kinds, and files placed on the same location by a later one.
void classify(Installation* inst) {
    std::unordered_set<std::string> listed;
    for (const ListedFile& file : inst->files)
        if (file.base == kBaseInstall) listed.insert(file.location);
    std::map<std::pair<FileBase, std::string>, ListedFile*> placed;
    for (ListedFile& file : inst->files) {
        if (file.base == kBaseInstall) file.made = madeKind(file.location, listed);
        ListedFile*& previous = placed[{file.base, file.location}];
        if (previous != nullptr) previous->superseded = true;
        previous = &file;
    }
}

}  // namespace

std::string versionedName(const char* name) {
    char text[128];
    snprintf(text, sizeof(text), "%s_%d.%d.%d", name, kPluginMajor, kPluginMinor, kPluginMicro);
    return text;
}

int openInstallation(const char* dir, Installation* inst, std::string* why, bool packageList) {
    char resolved[PATH_MAX];
    if (realpath(dir, resolved) == nullptr) {
        *why = std::string("cannot open ") + dir + ": " + strerror(errno);
        return 1;
    }
    inst->dir = resolved;
    if (inst->dir.back() != '/') inst->dir += '/';
    inst->dirFd = open(resolved, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (inst->dirFd < 0) {
        *why = "cannot read the directory " + inst->dir + ": " + strerror(errno);
        return 1;
    }
    if (locate(inst, why) != 0) return 1;
    if (inst->unfinished && !packageList) {
        *why = "the installation into " + inst->install + " was never verified: " + kFileListName +
               ", the package's own list, is still there (the installer renames it once it has checked "
               "the unpacked files)";
        return 1;
    }
    if (packageList && !inst->unfinished) {
        *why = inst->install + " holds no unfinished installation (no " + kFileListName + " there)";
        return 1;
    }
    if (packageList) inst->listName = kFileListName;
    if (readFileList(inst, why) != 0 || readDigests(inst, why) != 0 || readModes(inst, why) != 0) return 1;
    readMade(inst);
    classify(inst);
    return 0;
}

void closeInstallation(Installation* inst) {
    for (int* fd : {&inst->dirFd, &inst->installFd, &inst->layoutFd}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

std::string runningInstallation(const Installation& inst) {
    if (inst.installFd < 0 || flock(inst.installFd, LOCK_SH | LOCK_NB) == 0) {
        if (inst.installFd >= 0) flock(inst.installFd, LOCK_UN);
        return "";
    }
    return errno == EWOULDBLOCK
               ? "an installation into " + inst.install + " is running (it holds the directory's lock)"
               : "";
}

std::string unfinishedAdvice(const Installation& inst) {
    return "run the installer again into " + inst.install +
           ", or take off what it unpacked with: cvcheck remove " + inst.install + " --unfinished";
}

int baseFd(const Installation& inst, FileBase base) {
    return base == kBaseLayout ? inst.layoutFd : inst.installFd;
}

const std::string& basePath(const Installation& inst, FileBase base) {
    return base == kBaseLayout ? inst.layout : inst.install;
}

std::string installedPath(const Installation& inst, const ListedFile& file) {
    return basePath(inst, file.base) + file.location;
}

bool insideDir(const Installation& inst, const ListedFile& file) {
    return file.base == kBaseInstall || inst.dir == inst.root;
}
