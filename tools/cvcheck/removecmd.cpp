// The remove command. It walks the directory given, descending only into real directories
// (openat with O_NOFOLLOW) and removing entries with unlinkat relative to their directory's
// descriptor, so a symbolic link is removed as a link and never followed out of the directory.
// Every entry is decided on by its place: a listed file that is unchanged, a file the
// installation made, a backup, or something unknown.
#include "tools/cvcheck/removecmd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tools/cvcheck/eclipsefiles.h"
#include "tools/cvcheck/filecheck.h"
#include "tools/cvcheck/installation.h"
#include "tools/cvcheck/madefiles.h"

namespace {

enum Verdict { kRemove, kKeepChanged, kKeepUnknown, kKeepBackup, kKeepList, kRemoveList, kKeepMade };

struct Remover {
    const RemoveOptions* options = nullptr;
    const Installation* inst = nullptr;
    std::string installPrefix;  // the installation directory, relative to the directory given
    std::unordered_map<std::string, const ListedFile*> bySpot;  // listed files by place (relative to it)
    std::unordered_set<std::string> listedInstall;  // their places relative to the installation directory
    // The directories that the lists name or imply (relative to the directory given, ending in "/"):
    // only these are removed when empty. "" is the directory given.
    std::unordered_set<std::string> implied;
    dev_t device = 0;
    std::unordered_map<std::string, Verdict> verdicts;  // of the files, by place
    bool act = false;                                   // false while deciding, true while acting
    size_t toKeep = 0;                                  // what deciding found to keep
    size_t removed = 0, kept = 0, failures = 0;
};

// Removes one entry (in a dry run only says so); false when that failed.
bool removeEntry(Remover* r, int dirFd, const std::string& leaf, const std::string& path, bool directory) {
    if (!r->options->dryRun && unlinkat(dirFd, leaf.c_str(), directory ? AT_REMOVEDIR : 0) != 0) {
        printf("%-12s %s (%s)\n", "failed", path.c_str(), strerror(errno));
        r->failures++;
        return false;
    }
    printf("%-12s %s\n", r->options->dryRun ? "would remove" : "removed", path.c_str());
    r->removed++;
    return true;
}

void keep(Remover* r, const std::string& path, const char* why) {
    printf("%-12s %s (%s)\n", "kept", path.c_str(), why);
    r->kept++;
}

// True when the file equals the listed file at place (relative to the installation directory).
bool equalsListed(const Remover& r, int dirFd, const std::string& leaf, const std::string& place) {
    auto found = r.bySpot.find(r.installPrefix + place);
    return found != r.bySpot.end() && checkFileAt(dirFd, leaf.c_str(), *found->second).drift == kSame;
}

bool holds(int dirFd, const std::string& leaf, const std::string& expected) {
    int fd = openat(dirFd, leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    std::string text(expected.size() + 1, '\0');
    ssize_t n = read(fd, text.data(), text.size());
    close(fd);
    return n == static_cast<ssize_t>(expected.size()) && text.compare(0, expected.size(), expected) == 0;
}

// The verdict on the installation's own file without purge; with purge it goes whatever became of it.
Verdict purged(bool purge, Verdict verdict) {
    return purge ? kRemove : verdict;
}

Verdict decide(const Remover& r, int dirFd, const std::string& leaf, const std::string& spot,
               const struct stat& info) {
    bool inInstall = spot.compare(0, r.installPrefix.size(), r.installPrefix) == 0;
    std::string place = inInstall ? spot.substr(r.installPrefix.size()) : "";
    MadeKind kind = inInstall ? madeKind(place, r.listedInstall) : kMadeNone;
    if (r.options->purge && kind != kMadeNone && !(kind == kMadeProject && r.listedInstall.count(place) != 0))
        return kRemove;
    switch (kind) {
        case kMadeTagFile:
        case kMadeMacro:
            return kRemove;
        case kMadeList:
            return kRemoveList;
        case kMadeLink: {
            char target[8];
            ssize_t n = S_ISLNK(info.st_mode) ? readlinkat(dirFd, leaf.c_str(), target, sizeof(target)) : -1;
            return n == 4 && memcmp(target, "cvtw", 4) == 0 ? kRemove : kKeepChanged;
        }
        case kMadeIni:
            return S_ISREG(info.st_mode) && holds(dirFd, leaf, environmentIniText()) ? kRemove : kKeepChanged;
        case kMadeAlias:
            return equalsListed(r, dirFd, leaf, "$alias.crv") || equalsListed(r, dirFd, leaf, place)
                       ? kRemove
                       : kKeepChanged;
        case kMadeRescue:
            return equalsListed(r, dirFd, leaf, "corv.stu") ? kRemove : kKeepChanged;
        case kMadeProject:
            if (r.listedInstall.count(place) != 0) break;
            return S_ISREG(info.st_mode) && info.st_size == 0 ? kRemove : kKeepChanged;
        case kMadeBackup:
            return kKeepBackup;
        default:
            break;
    }
    auto found = r.bySpot.find(spot);
    if (found != r.bySpot.end())
        return purged(r.options->purge, checkFileAt(dirFd, leaf.c_str(), *found->second).drift == kSame
                                            ? kRemove
                                            : kKeepChanged);
    if (inInstall && r.inst->made.count(place) != 0) return purged(r.options->purge, kKeepMade);
    return kKeepUnknown;
}

// Adds the directories above a place (relative to the directory given) to the implied ones.
void imply(Remover* r, const std::string& spot) {
    for (size_t slash = spot.find('/'); slash != std::string::npos; slash = spot.find('/', slash + 1))
        r->implied.insert(spot.substr(0, slash + 1));
}

std::vector<std::string> entriesOf(int dirFd) {
    std::vector<std::string> names;
    int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        if (fd >= 0) close(fd);
        return names;
    }
    while (const struct dirent* entry = readdir(dir))
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// Walks everything below the directory dirFd (spot: its place relative to the directory given,
// "" or ending in "/"). The first walk only decides (r->act false) and keeps the verdicts; the
// second acts on them. True when nothing is left in the directory (or would be left).
bool walk(Remover* r, int dirFd, const std::string& spot) {
    static const char* const kWhy[] = {
        "", "changed", "unknown", "backup", "the list of the kept files", "", "made while installing"};
    bool empty = true;
    for (const std::string& leaf : entriesOf(dirFd)) {
        const std::string path = r->inst->dir + spot + leaf;
        struct stat info;
        int child = -1;
        const char* problem = nullptr;
        bool reached = fstatat(dirFd, leaf.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
        if (reached && S_ISDIR(info.st_mode) && info.st_dev != r->device) {
            problem = "another file system";
        } else if (reached && S_ISDIR(info.st_mode)) {
            child = openat(dirFd, leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            reached = child >= 0;
        }
        if (!reached) problem = strerror(errno);
        if (problem != nullptr) {
            if (r->act)
                keep(r, path, problem);
            else
                r->toKeep++;
            empty = false;
        } else if (child >= 0) {
            bool childEmpty = walk(r, child, spot + leaf + "/");
            close(child);
            // A directory that the lists do not imply was there before (or came from elsewhere).
            bool ours = r->implied.count(spot + leaf + "/") != 0;
            if (childEmpty && r->act && !ours) keep(r, path + "/", "not the installation's");
            empty = childEmpty && r->act && ours && removeEntry(r, dirFd, leaf, path + "/", true) && empty;
        } else if (!r->act) {
            Verdict verdict = decide(*r, dirFd, leaf, spot + leaf, info);
            r->verdicts[spot + leaf] = verdict;
            if (verdict != kRemove && verdict != kRemoveList) r->toKeep++;
        } else {
            auto found = r->verdicts.find(spot + leaf);
            Verdict verdict = found != r->verdicts.end() ? found->second : kKeepUnknown;
            // The lists go with the last kept file: a later --purge still knows the installation.
            if (verdict == kRemoveList) verdict = r->toKeep == 0 || r->options->purge ? kRemove : kKeepList;
            if (verdict == kRemove) {
                empty = removeEntry(r, dirFd, leaf, path, false) && empty;
            } else {
                keep(r, path, kWhy[verdict]);
                empty = false;
            }
        }
    }
    return empty;
}

// One of the two files in the Eclipse installation, removed only when it is this plug-in's: it lies
// outside the directory given, so --purge does not take it either.
void eclipseFile(Remover* r, const EclipseFile& file) {
    if (!file.exists) return;
    if (file.ours)
        removeEntry(r, file.dirFd, file.leaf, file.path, false);
    else
        keep(r, file.path, "not this installation's");
}

int refuse(const std::string& why, const std::string& advice = "") {
    fprintf(stderr, "cvcheck: refusing to remove: %s\n", why.c_str());
    if (!advice.empty()) fprintf(stderr, "cvcheck: %s\n", advice.c_str());
    return 2;
}

// The installer's lock (installer/instlock.h): an exclusive flock on the installation directory,
// held until the removal ends, so that an installation and a removal never interleave.
std::string lockInstallation(const Installation& inst) {
    if (flock(inst.installFd, LOCK_EX | LOCK_NB) == 0) return "";
    if (errno == EWOULDBLOCK)
        return "an installation into " + inst.install + " is running (it holds the directory's lock)";
    return "cannot lock " + inst.install + ": " + strerror(errno);
}

}  // namespace

int runRemove(const RemoveOptions& options) {
    char resolved[PATH_MAX];
    if (realpath(options.dir, resolved) != nullptr && strcmp(resolved, "/") == 0)
        return refuse(std::string(options.dir) + " is the root directory");
    Installation inst;
    std::string why;
    if (openInstallation(options.dir, &inst, &why, options.unfinished) != 0) {
        std::string advice, running = inst.unfinished ? runningInstallation(inst) : "";
        if (inst.unfinished)
            advice = running.empty() ? unfinishedAdvice(inst) : "try again once it has ended";
        closeInstallation(&inst);
        return refuse(running.empty() ? why : running, advice);
    }
    why = lockInstallation(inst);
    if (!why.empty()) {
        closeInstallation(&inst);
        return refuse(why, "try again once it has ended");
    }
    EclipseFiles eclipse;
    if (options.eclipse != nullptr && !inst.plugin) why = inst.dir + " is no plug-in installation";
    if (why.empty() && options.eclipse != nullptr) findEclipseFiles(options.eclipse, inst, &eclipse, &why);
    if (!why.empty()) {
        closeEclipseFiles(&eclipse);
        closeInstallation(&inst);
        return refuse(why);
    }
    Remover r;
    r.options = &options;
    r.inst = &inst;
    r.installPrefix = inst.install.substr(inst.dir.size());
    size_t outside = 0;
    for (const ListedFile& file : inst.files) {
        if (file.base == kBaseInstall) r.listedInstall.insert(file.location);
        if (!insideDir(inst, file)) {
            outside++;
            continue;
        }
        std::string spot =
            file.base == kBaseInstall ? r.installPrefix + file.location : "eclipse/" + file.location;
        imply(&r, spot);
        if (!file.superseded) r.bySpot[spot] = &file;
    }
    // The installation directory itself, what it recorded as made and the directories the
    // installer makes (the backups' and the tag files').
    imply(&r, r.installPrefix);
    for (const std::string& made : inst.made) imply(&r, r.installPrefix + made);
    for (const char* dir : {"old/", "tagfiles/"}) imply(&r, r.installPrefix + dir);
    struct stat info;
    fstat(inst.dirFd, &info);
    r.device = info.st_dev;
    walk(&r, inst.dirFd, "");
    r.act = true;
    if (walk(&r, inst.dirFd, "")) removeEntry(&r, AT_FDCWD, inst.dir, inst.dir, true);
    eclipseFile(&r, eclipse.link);
    eclipseFile(&r, eclipse.script);
    if (outside != 0)
        printf("cvcheck: %zu listed files lie in %s, outside %s; give the plug-in root %s to remove them\n",
               outside, inst.layout.c_str(), inst.dir.c_str(), inst.root.c_str());
    printf("cvcheck: %s %zu entries of %s, kept %zu", options.dryRun ? "would remove" : "removed", r.removed,
           inst.dir.c_str(), r.kept);
    if (r.failures != 0) printf(", %zu could not be removed", r.failures);
    printf("\n");
    closeEclipseFiles(&eclipse);
    closeInstallation(&inst);
    return r.failures != 0 ? 1 : 0;
}
