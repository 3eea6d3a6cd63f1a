// Two installations into one directory interleave their unpacking, verification and generated
// files and leave a broken tree. The lock is taken once the directory exists and is settled, before
// the disk-space check and anything else that writes. The descriptor is close-on-exec: the programs
// the installer starts do not hold the lock, so it cannot outlive the installer (the editor started
// by post-installation runs on in the background). Killed during unpacking, the installer leaves tar
// to write what is left in the pipe; the next run unpacks the package again over it.
#include "installer/instlock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "installer/console.h"
#include "installer/state.h"

int32_t lockInstallDirectory() {
    static int lockFd = -1;  // open, and the lock held, until the process ends
    if (lockFd >= 0) return 0;
    int fd = open(gState.installDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {
        lockFd = fd;
        return 0;
    }
    int error = errno;
    if (fd >= 0) close(fd);
    if (error == EWOULDBLOCK) {
        printMessage("Another installation into %s, or a removal of it, is still running.",
                     gState.installDir);
    } else {
        printMessage("Cannot lock %s for the installation.", gState.installDir);
    }
    return 1;
}
