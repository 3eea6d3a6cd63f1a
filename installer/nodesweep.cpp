// The sweep after unpacking: a walk over the installation directory that never follows a link.
#include "installer/nodesweep.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>

#include "installer/console.h"
#include "installer/treewalk.h"

namespace {

struct Sweep {
    const char* dir;
    struct timespec since;
    bool clearOthersWrite;
    int32_t found;
};

const char* kindOf(mode_t mode) {
    if (S_ISBLK(mode)) return "block device";
    if (S_ISCHR(mode)) return "character device";
    if (S_ISFIFO(mode)) return "FIFO";
    if (S_ISSOCK(mode)) return "socket";
    return nullptr;
}

bool later(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

int32_t removeIfSpecial(int dirFd, const char* name, const char* rel, const struct stat& info,
                        void* context) {
    auto* sweep = static_cast<Sweep*>(context);
    if (!later(info.st_ctim, sweep->since)) return 0;
    const char* kind = kindOf(info.st_mode);
    if (kind == nullptr) {
        // As root, what the package brought is not left for every user to change: a 0777 bin/cv or
        // macros/ would let any user change what others run. A directory is visited before its
        // contents, so nothing is swapped in below it once it is cleared. The mode is set on the
        // entry itself, never through a link.
        if (sweep->clearOthersWrite && !S_ISLNK(info.st_mode) && (info.st_mode & S_IWOTH) != 0 &&
            fchmodat(dirFd, name, (info.st_mode & 07777) & ~S_IWOTH, AT_SYMLINK_NOFOLLOW) != 0 &&
            errno != EOPNOTSUPP) {
            printMessage("Cannot take the write permission of other users from %s%s.", sweep->dir, rel);
            sweep->found++;
        }
        return 0;
    }
    sweep->found++;
    if (unlinkat(dirFd, name, 0) == 0) {
        printMessage("Removed %s%s: the package may not install a %s.", sweep->dir, rel, kind);
    } else {
        printMessage("Cannot remove %s%s: the package may not install a %s.", sweep->dir, rel, kind);
    }
    return 0;
}

}  // namespace

void markBeforeUnpacking(struct timespec* mark) {
    // The fine clock for the mark: a file changed a moment ago may carry a time that the coarse
    // clock, a tick behind, has not reached yet. Then wait for the coarse clock, which stamps most
    // new files, to pass the mark, so that nothing made afterwards can carry the mark's own time.
    clock_gettime(CLOCK_REALTIME, mark);
    for (int tries = 0; tries < 1000; tries++) {
        struct timespec coarse;
        clock_gettime(CLOCK_REALTIME_COARSE, &coarse);
        if (later(coarse, *mark)) return;
        usleep(500);
    }
}

int32_t removeSpecialFiles(const char* dir, const struct timespec& since) {
    Sweep sweep{dir, since, getuid() == 0, 0};
    char failedRel[PATH_MAX];
    // Another user's installer cannot make device nodes, and a FIFO or socket in a directory that it
    // cannot read harms only that user: only root, who can read every directory, must see all.
    if (walkTree(dir, removeIfSpecial, &sweep, failedRel) != 0 && getuid() == 0) {
        printMessage("Cannot look for device nodes, FIFOs and sockets in %s%s.", dir, failedRel);
        return 1;
    }
    return sweep.found > 0 ? 1 : 0;
}
