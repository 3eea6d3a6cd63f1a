// A walk over a directory tree that never follows a symbolic link and stays on the file system of
// the directory it starts from; for looking at what a package has unpacked.
#pragma once
#include <sys/stat.h>

#include <cstdint>

// Called for every entry below the starting directory, a directory before its contents: dirFd holds
// the entry under name, rel is its path relative to the starting directory. A non-zero result ends
// the walk with that result.
using TreeVisitor = int32_t (*)(int dirFd, const char* name, const char* rel, const struct stat& info,
                                void* context);

// 0 when every entry was visited, the visitor's result when it ended the walk, or -1 when some
// directory could not be opened or read: the walk goes on without it, and the first such directory
// (relative to dir, "" for dir itself) is left in failedRel (PATH_MAX bytes).
int32_t walkTree(const char* dir, TreeVisitor visit, void* context, char* failedRel);
