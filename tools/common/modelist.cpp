// Writing and reading the mode list.
#include "tools/common/modelist.h"

#include <cstdio>
#include <cstdlib>

#include "tools/common/linelist.h"

std::string modeLine(const ModeEntry& entry) {
    char mode[8];
    snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(entry.mode & 07777));
    return std::string(mode) + (entry.rootOwned ? " root " : " - ") + entry.name + "\n";
}

int parseModeLine(const std::string& line, ModeEntry* entry) {
    if (line.size() < 6 || line[4] != ' ') return 1;
    mode_t mode = 0;
    for (size_t i = 0; i < 4; i++) {
        if (line[i] < '0' || line[i] > '7') return 1;
        mode = mode * 8 + static_cast<mode_t>(line[i] - '0');
    }
    size_t blank = line.find(' ', 5);
    if (blank == std::string::npos || blank + 1 >= line.size()) return 1;
    std::string owner = line.substr(5, blank - 5);
    if (owner != "root" && owner != "-") return 1;
    entry->mode = mode;
    entry->rootOwned = owner == "root";
    entry->name = line.substr(blank + 1);
    return 0;
}

size_t parseModeList(const std::string& text, std::vector<ModeEntry>* entries) {
    return parseLineList(text, entries, parseModeLine);
}

bool modeDiffers(mode_t listed, mode_t actual) {
    listed &= 07777;
    actual &= 07777;
    return (actual & ~listed) != 0 || ((actual ^ listed) & 0700) != 0;
}
