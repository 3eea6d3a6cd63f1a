// Paths below a directory descriptor, opened one component at a time without ever following a
// symbolic link, so that nothing reached through them lies outside the directory.
#pragma once
#include <string>

// Opens the directory relDir ("a/b", "" for base itself) below base. -1 with errno set when a
// component is missing (ENOENT), a symbolic link (ELOOP) or no directory (ENOTDIR); a ".."
// component is refused with EINVAL. A base below 0 (not opened) gives ENOENT.
int openDirBelow(int base, const std::string& relDir);

// The directory of one path after another, keeping the last one open: paths of a sorted list
// mostly share their directory with the path before.
class DirCursor {
public:
    explicit DirCursor(int base) : base_(base) {}
    ~DirCursor();
    DirCursor(const DirCursor&) = delete;
    DirCursor& operator=(const DirCursor&) = delete;
    // Descriptor of the directory holding path (relative to the base), with the last component
    // in *leaf; -1 with errno set when it cannot be reached as openDirBelow says.
    int dirOf(const std::string& path, std::string* leaf);

private:
    int base_;
    int fd_ = -1;
    int error_ = 0;
    std::string dir_;
    bool valid_ = false;
};
