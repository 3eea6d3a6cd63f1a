// The mode list of a distribution: "distribmodes", packed beside "distribfilelist", names every
// regular file and directory of the payload with its permission bits and owner, one line
// "MODE OWNER NAME" each (MODE four octal digits, OWNER "root": the package's members belong to
// uid 0, which a root installation keeps; a directory's NAME ends in "/"), sorted by name. cvcheck
// verify reports an installed file whose mode or owner no longer agrees.
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

inline constexpr char kModeListName[] = "distribmodes";

struct ModeEntry {
    std::string name;  // relative to the installation directory; a directory's ends in "/"
    mode_t mode;       // permission bits (07777)
    bool rootOwned;    // OWNER is "root"
};

// One line, with its line feed. Names holding a line feed cannot stand in the list.
std::string modeLine(const ModeEntry& entry);
// One line without its line feed; 0, or 1 when it is not of that form.
int parseModeLine(const std::string& line, ModeEntry* entry);
// All lines of a list; 0, or the number of the first line that is not of that form.
size_t parseModeList(const std::string& text, std::vector<ModeEntry>* entries);
// True when an installed mode departs from the listed one in a way that matters: a permission
// the list does not grant (another user's write, a set-id bit), or the owner's own permissions
// changed (the macro translator no longer executable). Group and other permissions that the list
// grants and the file lacks are what the installing user's umask takes away and do not count.
bool modeDiffers(mode_t listed, mode_t actual);
