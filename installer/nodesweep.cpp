// The sweep after unpacking: a walk over the installation directory that never follows a link.
#include "installer/nodesweep.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "installer/console.h"
#include "installer/treewalk.h"

namespace {

struct Sweep {
    const char* dir;
    struct timespec since;
    int32_t found;
};

const char* kindOf(mode_t mode) {
    if (S_ISBLK(mode)) return "block device";
    if (S_ISCHR(mode)) return "character device";
    if (S_ISFIFO(mode)) return "FIFO";
    if (S_ISSOCK(mode)) return "socket";
    return nullptr;
}

bool changedSince(const struct stat& info, const struct timespec& since) {
    if (info.st_ctim.tv_sec != since.tv_sec) return info.st_ctim.tv_sec > since.tv_sec;
    return info.st_ctim.tv_nsec >= since.tv_nsec;
}

int32_t removeIfSpecial(int dirFd, const char* name, const char* rel, const struct stat& info,
                        void* context) {
    auto* sweep = static_cast<Sweep*>(context);
    const char* kind = kindOf(info.st_mode);
    if (kind == nullptr || !changedSince(info, sweep->since)) return 0;
    sweep->found++;
    if (unlinkat(dirFd, name, 0) == 0) {
        printMessage("Removed %s%s: the package may not install a %s.", sweep->dir, rel, kind);
    } else {
        printMessage("Cannot remove %s%s: the package may not install a %s.", sweep->dir, rel, kind);
    }
    return 0;
}

}  // namespace

int32_t removeSpecialFiles(const char* dir, const struct timespec& since) {
    Sweep sweep{dir, since, 0};
    char failedRel[PATH_MAX];
    // Another user's installer cannot make device nodes, and a FIFO or socket in a directory that it
    // cannot read harms only that user: only root, who can read every directory, must see all.
    if (walkTree(dir, removeIfSpecial, &sweep, failedRel) != 0 && getuid() == 0) {
        printMessage("Cannot look for device nodes, FIFOs and sockets in %s%s.", dir, failedRel);
        return 1;
    }
    return sweep.found > 0 ? 1 : 0;
}
