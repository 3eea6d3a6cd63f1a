// The walk opens each directory from its parent's descriptor with O_NOFOLLOW and looks at every
// entry with AT_SYMLINK_NOFOLLOW, so a link in the tree is visited as a link and never entered.
#include "installer/treewalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "runtime/path.h"

namespace {

struct Walk {
    TreeVisitor visit;
    void* context;
    dev_t device;
    char rel[PATH_MAX];
    char* failedRel;
    bool failed;
};

void noteFailure(Walk* walk) {
    if (!walk->failed) strCopyBounded(walk->failedRel, walk->rel, PATH_MAX);
    walk->failed = true;
}

int32_t walkDirectory(Walk* walk, int fd, size_t relLength) {
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        noteFailure(walk);
        return 0;
    }
    int32_t result = 0;
    while (result == 0) {
        errno = 0;
        struct dirent* entry = readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) noteFailure(walk);
            break;
        }
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        struct stat info;
        if (fstatat(dirfd(dir), name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
        size_t length = relLength + (relLength > 0 ? 1 : 0) + strlen(name);
        if (length >= sizeof(walk->rel)) {
            noteFailure(walk);
            continue;
        }
        if (relLength > 0) walk->rel[relLength] = '/';
        strCopyBounded(walk->rel + relLength + (relLength > 0 ? 1 : 0), name, PATH_MAX);
        result = walk->visit(dirfd(dir), name, walk->rel, info, walk->context);
        if (result == 0 && S_ISDIR(info.st_mode) && info.st_dev == walk->device) {
            int sub = openat(dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0) {
                noteFailure(walk);
            } else {
                result = walkDirectory(walk, sub, length);
            }
        }
        walk->rel[relLength] = '\0';
    }
    closedir(dir);
    return result;
}

}  // namespace

int32_t walkTree(const char* dir, TreeVisitor visit, void* context, char* failedRel) {
    Walk walk{visit, context, 0, "", failedRel, false};  // the levels of the walk share its path buffer
    failedRel[0] = '\0';
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    walk.device = info.st_dev;
    // A descriptor per level: tar makes trees up to PATH_MAX deep, about 2000 levels, so the soft
    // limit goes up to the hard one for the walk (and back afterwards, for the programs started later).
    struct rlimit saved;
    bool haveLimit = getrlimit(RLIMIT_NOFILE, &saved) == 0;
    struct rlimit raised = saved;
    raised.rlim_cur = raised.rlim_max;
    if (haveLimit) setrlimit(RLIMIT_NOFILE, &raised);
    int32_t result = walkDirectory(&walk, fd, 0);
    if (haveLimit) setrlimit(RLIMIT_NOFILE, &saved);
    return result == 0 && walk.failed ? -1 : result;
}
