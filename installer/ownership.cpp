// The super-user's installation belongs to the super-user, whoever owned the files in the
// package or an earlier installation.
#include "installer/ownership.h"

#include <unistd.h>

#include <cstdio>

#include "installer/console.h"
#include "installer/shellcmd.h"
#include "installer/state.h"

namespace {

enum { kCommandSize = 4 * kPathSize + 32 };

}  // namespace

// Nothing needs checking before these commands run: chown -R and chgrp -R without -H or -L walk the
// tree physically and change a symbolic link itself, never what it points to (tried with GNU
// coreutils 9.1 as root: a link in the tree to a file of uid 65534 outside, or to a directory there,
// leaves their owner and group as they were). The installation directory itself is the user's choice.
int32_t updateOwnership() {
    uid_t user = getuid();
    if (user != 0) return static_cast<int32_t>(user);
    printf("Updating user and group file ownership. Please wait...\n");

    char command[kCommandSize];
    formatShellCommand(command, sizeof(command), "chown -R %d \"%s\"", 0, gState.installDir);
    printVerbose("Updating macros user ownership: command=%s\n", command);
    runShell(command);

    formatShellCommand(command, sizeof(command), "chgrp -R %d \"%s\"", static_cast<int>(getgid()),
                       gState.installDir);
    printVerbose("Updating macros group ownership: command=%s\n", command);
    return runShell(command);
}
