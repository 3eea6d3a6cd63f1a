// cvcheck remove: takes an installation off the machine again.
#pragma once

struct RemoveOptions {
    const char* dir = nullptr;
    bool dryRun = false;
    bool purge = false;
    bool unfinished = false;        // go by the package's own list: an installation never verified
    const char* eclipse = nullptr;  // the Eclipse installation of a plug-in installation
};

// Holding the installer's lock on the installation directory, removes the listed files that are
// unchanged, what the installation made itself and the directories that the lists name or imply
// once they are empty; keeps changed files, backups and what the installation recorded as made
// while installing (all removed with purge), and whatever is not the installation's (kept with
// purge too), and names them. Returns the exit status: 0 done, 1 something could not be
// removed, 2 refused.
int runRemove(const RemoveOptions& options);
