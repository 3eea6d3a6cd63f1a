// The payload: the editor tree as it will stand in the installation directory. It is read once,
// without following symbolic links, and checked the way a release engineer would before
// shipping it: nothing in it may be something a package must not carry into a root
// installation, and it must hold what an installation of its package kind reads.
#pragma once
#include <sys/stat.h>

#include <string>
#include <vector>

struct PayloadEntry {
    std::string path;      // relative to the payload root, no leading "/"
    char kind;             // 'd' directory, 'f' regular file, 'l' symbolic link
    std::string target;    // a link's target, as stored
    std::string source{};  // a file added from elsewhere (the checker): where it is; "" below the root
};

struct Payload {
    std::string root;
    std::vector<PayloadEntry> entries;  // depth first, names sorted
    struct timespec newest = {0, 0};    // newest modification time of any entry
    // One text for each entry that a package must not carry: device nodes, FIFOs, sockets,
    // symbolic links that lead out of the payload, names with line breaks, files and directories
    // that others may write.
    std::vector<std::string> problems;
    // The same for files and directories that their group may write: refused unless the release
    // engineer says that the group is meant to (--allow-group-write).
    std::vector<std::string> groupWritable;
};

// Where an entry's bytes are: below the payload root, or the file it was added from.
inline std::string entrySource(const Payload& payload, const PayloadEntry& entry) {
    return entry.source.empty() ? payload.root + "/" + entry.path : entry.source;
}

// Reads the tree below root. Top-level names in reserved are left out with a warning: the
// builder generates those files itself. Returns 1 only when the tree cannot be read.
int walkPayload(const std::string& root, const std::vector<std::string>& reserved, Payload* payload);

// Each piece that an installation from a package of this name reads and that the payload lacks,
// as "path: what it is for". Empty when nothing is missing.
std::vector<std::string> missingPieces(const Payload& payload, const std::string& package);

// The package names the installer looks for, and whether the name is an Eclipse plug-in package.
bool isPackageName(const std::string& name);
bool isPluginPackage(const std::string& name);
