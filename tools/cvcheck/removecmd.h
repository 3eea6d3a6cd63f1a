// cvcheck remove: takes an installation off the machine again.
#pragma once

struct RemoveOptions {
    const char* dir = nullptr;
    bool dryRun = false;
    bool purge = false;
    const char* eclipse = nullptr;  // the Eclipse installation of a plug-in installation
};

// Removes the listed files that are unchanged, what the installation made itself and the
// directories left empty; keeps changed and unknown files and backups (all removed with purge)
// and names them. Returns the exit status: 0 done, 1 something could not be removed, 2 refused.
int runRemove(const RemoveOptions& options);
