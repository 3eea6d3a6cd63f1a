// Confinement of the installer's own writes. Every file that the installer itself writes, creates,
// links, touches or removes is reached from a trusted root directory (the installation directory,
// the plug-in root, the Eclipse location, a backup directory that the user named) without following
// a symbolic link that leads out of that root. The package is input like any other: a link that it
// ships must not turn a write into the installation into a write somewhere else.
#pragma once
#include <sys/types.h>

#include <cstdint>

#include "installer/state.h"

// The directory that holds a file, as a descriptor opened without following any link, and the
// file's name in it. Operations on the name use O_NOFOLLOW or AT_SYMLINK_NOFOLLOW.
struct ConfinedPath {
    int dirFd;
    char leaf[kPathSize];
};

enum ConfineResult { kConfineOk = 0, kConfineRefused = 1, kConfineFailed = 2 };
// Returned by openConfined when the path was refused.
enum { kConfineRefusedFd = -2 };

// Resolves path, which is root followed by a relative name, from root. Links on the way are
// followed as long as they stay inside root. With followLast the last component is handled the same
// way (for operations that would follow it, such as open or cp); without, it is taken as it stands
// (unlink, rename, mkdir, symlink). kConfineOk: out->dirFd is open until releaseConfined.
// kConfineRefused: the refusal naming the path and the link has been printed. kConfineFailed: an
// ordinary failure such as a missing directory, errno set and nothing printed; the caller reports it
// as it reports the operation failing.
ConfineResult confinePath(const char* root, const char* path, bool followLast, ConfinedPath* out);
void releaseConfined(ConfinedPath* confined);

// open(2) of path inside root: a descriptor (close-on-exec), -1 with errno set, or
// kConfineRefusedFd after the refusal has been printed.
int openConfined(const char* root, const char* path, int flags, mode_t mode);

// open(2) of rel beneath root in one system call, links inside root followed: a descriptor
// (close-on-exec), or -1 with errno set and nothing printed. When confineWalkDecides(errno), the
// kernel could not settle it (a link or ".." that leads out, an absolute link, no openat2): the
// caller judges the name another way, as openConfined does with its walk.
int openBeneathRoot(const char* root, const char* rel, int flags, mode_t mode);
bool confineWalkDecides(int error);

// The check alone, for a path that a shell command is about to use: 1 when refused (printed),
// else 0; an ordinary failure is left to the command to meet.
int32_t checkConfined(const char* root, const char* path, bool followLast);

// 1 when the canonical path real is rootReal or lies below it.
int32_t isBelowRoot(const char* rootReal, const char* real);
