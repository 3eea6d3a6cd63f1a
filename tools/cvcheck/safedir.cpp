// Component-wise openat with O_NOFOLLOW.
#include "tools/cvcheck/safedir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

int openDirBelow(int base, const std::string& relDir) {
    if (base < 0) {
        errno = ENOENT;  // a base directory that could not be opened holds nothing
        return -1;
    }
    int fd = openat(base, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (size_t start = 0; fd >= 0 && start < relDir.size();) {
        size_t end = relDir.find('/', start);
        if (end == std::string::npos) end = relDir.size();
        std::string part = relDir.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".") continue;
        int next = -1;
        if (part == "..")
            errno = EINVAL;
        else
            next = openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int saved = errno;
        close(fd);
        errno = saved;
        fd = next;
    }
    return fd;
}

DirCursor::~DirCursor() {
    if (fd_ >= 0) close(fd_);
}

int DirCursor::dirOf(const std::string& path, std::string* leaf) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash);
    *leaf = slash == std::string::npos ? path : path.substr(slash + 1);
    if (!valid_ || dir != dir_) {
        if (fd_ >= 0) close(fd_);
        fd_ = openDirBelow(base_, dir);
        error_ = errno;
        dir_ = dir;
        valid_ = true;
    }
    if (fd_ < 0) errno = error_;
    return fd_;
}
