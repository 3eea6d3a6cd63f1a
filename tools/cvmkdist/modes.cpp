// The mode list and the checker in the payload.
#include "tools/cvmkdist/modes.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/common/modelist.h"
#include "tools/cvmkdist/util.h"

void addChecker(const std::string& checker, Payload* payload) {
    for (PayloadEntry& entry : payload->entries) {
        if (entry.path != kCheckerPath) continue;
        mkdistWarn(payload->root + "/" + kCheckerPath + " is replaced by the checker " + checker);
        entry = PayloadEntry{kCheckerPath, 'f', "", checker};
        return;
    }
    payload->entries.push_back(PayloadEntry{kCheckerPath, 'f', "", checker});
}

int addCheckerCopy(const std::string& checker, std::string* work, Payload* payload) {
    struct stat info;
    if (stat(checker.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return 0;
    if (makeWorkDirectory(work) != 0) return 1;
    std::string copy = *work + "/cvcheck";
    if (copyStripped(checker, copy, kAddedFileMode) != 0) return 1;
    addChecker(copy, payload);
    return 0;
}

int buildModeList(const Payload& payload, std::string* list) {
    std::vector<ModeEntry> entries;
    for (const PayloadEntry& entry : payload.entries) {
        if (entry.kind != 'f' && entry.kind != 'd') continue;
        struct stat info;
        mode_t mode = kAddedFileMode;
        if (entry.source.empty()) {
            std::string file = entrySource(payload, entry);
            if (lstat(file.c_str(), &info) != 0) return mkdistFail("cannot read %s", file, strerror(errno));
            mode = info.st_mode & 07777;
        }
        entries.push_back(ModeEntry{entry.path + (entry.kind == 'd' ? "/" : ""), mode, true});
    }
    std::sort(entries.begin(), entries.end(),
              [](const ModeEntry& a, const ModeEntry& b) { return a.name < b.name; });
    list->clear();
    for (const ModeEntry& entry : entries) *list += modeLine(entry);
    return 0;
}
