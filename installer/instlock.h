// One installation at a time per installation directory.
#pragma once
#include <cstdint>

// Locks the settled installation directory for the rest of the run: an exclusive flock on the
// directory's own descriptor, so no lock file is left behind and the lock goes with the process
// however it ends. 0, or 1 after "Another installation into %s is still running." when another run
// holds it (the caller stops at once; nothing has been written yet).
int32_t lockInstallDirectory();
