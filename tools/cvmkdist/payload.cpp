// Reading the payload tree and checking it before anything is packed.
#include "tools/cvmkdist/payload.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>

#include "tools/cvmkdist/util.h"

namespace {

using EntryMap = std::map<std::string, const PayloadEntry*>;

// The installer follows at most this many links in a row, like the kernel.
const int kMaxLinkHops = 40;

const char* const kPackageNames[] = {"cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd"};

// What an installation reads from the unpacked tree: the link step makes bin/cvt point to
// bin/cvtw; the generated-files step moves or appends $alias.crv, copies corv.stu to
// rescue.stu and writes corv.ini into bin; macro compilation runs bin/cvtw over the list in
// cmacros.lst (each name in macros), or without a list over every source in macros.
struct Need {
    const char* path;
    char kind;
    const char* why;
};
const Need kEditorNeeds[] = {
    {"bin", 'd', "the directory where bin/cvt and corv.ini are made"},
    {"bin/cvtw", 'f', "the macro translator, which compiles the macros and which bin/cvt links to"},
    {"$alias.crv", 'f', "the shipped alias file, which becomes or extends alias.crv"},
    {"corv.stu", 'f', "the state file, copied to rescue.stu"},
    {"macros", 'd', "the macro sources, compiled one by one when cmacros.lst is missing or fails"},
};
// The plug-in layout step moves these three to their versioned names.
const Need kPluginNeeds[] = {
    {"eclipse/features/com.corvane.plugin", 'd', "the plug-in's feature directory"},
    {"eclipse/plugins/com.corvane.core", 'd', "the core plug-in directory"},
    {"eclipse/plugins/com.corvane.eclipse.plugin", 'd', "the Eclipse plug-in directory"},
};

std::vector<std::string> splitPath(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return parts;
}

std::string joinPath(const std::vector<std::string>& parts) {
    std::string path;
    for (const std::string& part : parts) path += (path.empty() ? "" : "/") + part;
    return path;
}

// Resolves path (components from the payload root) through the payload's own links, as the
// kernel would below the installation directory. Returns "" with the resolved path in *found,
// or why the path leads out of the payload.
std::string resolve(const EntryMap& byPath, const std::string& path, std::string* found) {
    std::vector<std::string> here;
    std::vector<std::string> parts = splitPath(path);
    std::deque<std::string> todo(parts.begin(), parts.end());
    int hops = 0;
    while (!todo.empty()) {
        std::string part = todo.front();
        todo.pop_front();
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (here.empty()) return "leads out of the payload";
            here.pop_back();
            continue;
        }
        here.push_back(part);
        auto entry = byPath.find(joinPath(here));
        if (entry == byPath.end() || entry->second->kind != 'l') continue;
        const std::string& target = entry->second->target;
        if (++hops > kMaxLinkHops) return "is part of a loop of symbolic links";
        if (!target.empty() && target[0] == '/')
            return "leads out of the payload through the link " + joinPath(here);
        here.pop_back();
        std::vector<std::string> next = splitPath(target);
        todo.insert(todo.begin(), next.begin(), next.end());
    }
    *found = joinPath(here);
    return "";
}

// The kind of what path leads to through the payload's links; 0 when nothing is there.
char kindAt(const EntryMap& byPath, const std::string& path) {
    std::string found;
    if (!resolve(byPath, path, &found).empty()) return 0;
    if (found.empty()) return 'd';
    auto entry = byPath.find(found);
    if (entry == byPath.end()) return 0;
    return entry->second->kind;
}

void checkNeed(const EntryMap& byPath, const Need& need, std::vector<std::string>* missing) {
    char kind = kindAt(byPath, need.path);
    if (kind == need.kind) return;
    std::string text = std::string(need.path) + ": " + need.why;
    if (kind != 0) text += need.kind == 'd' ? " (here not a directory)" : " (here not a regular file)";
    missing->push_back(text);
}

// Every macro that cmacros.lst names must be in macros; the batch compilation of the list
// fails on the first missing one.
void checkMacroList(const Payload& payload, const EntryMap& byPath, std::vector<std::string>* missing) {
    std::string list;
    if (kindAt(byPath, "cmacros.lst") != 'f' || readWholeFile(payload.root + "/cmacros.lst", &list) != 0)
        return;
    size_t start = 0;
    while (start < list.size()) {
        size_t end = list.find('\n', start);
        if (end == std::string::npos) end = list.size();
        std::string name = list.substr(start, end - start);
        start = end + 1;
        if (name.empty() || kindAt(byPath, "macros/" + name) == 'f') continue;
        missing->push_back("macros/" + name + ": a macro source that cmacros.lst names");
    }
}

std::string modeText(mode_t mode) {
    char text[8];
    snprintf(text, sizeof(text), "%04o", (unsigned)(mode & 07777));
    return text;
}

// A file or directory that another user may write stays so in the installation (tar keeps the
// modes it packed): anyone could then change the editor that everybody runs, or put files into
// its directories. A link's own mode means nothing and is not looked at.
void checkWritable(const std::string& rel, char kind, mode_t mode, Payload* payload) {
    if (kind == 'l' || (mode & (S_IWGRP | S_IWOTH)) == 0) return;
    std::string what = rel + (kind == 'd' ? ": a directory" : ": a file");
    if (mode & S_IWOTH)
        payload->problems.push_back(what + " writable by others (mode " + modeText(mode) + ")");
    else
        payload->groupWritable.push_back(what + " writable by its group (mode " + modeText(mode) +
                                         "; --allow-group-write packs it)");
}

int walkDirectory(const std::string& relative, const std::vector<std::string>& reserved, Payload* payload) {
    std::string dirPath = relative.empty() ? payload->root : payload->root + "/" + relative;
    DIR* dir = opendir(dirPath.c_str());
    if (!dir) return mkdistFail("cannot read directory %s", dirPath, strerror(errno));
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        std::string rel = relative.empty() ? name : relative + "/" + name;
        std::string full = payload->root + "/" + rel;
        if (relative.empty() && std::find(reserved.begin(), reserved.end(), name) != reserved.end()) {
            mkdistWarn(full + " in the payload is replaced by the one cvmkdist makes");
            continue;
        }
        if (rel.find_first_of("\r\n") != std::string::npos) {
            payload->problems.push_back(rel + ": a name with a line break, which the file list cannot hold");
            continue;
        }
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) return mkdistFail("cannot stat %s", full, strerror(errno));
        const struct timespec& changed = st.st_mtim;
        if (changed.tv_sec > payload->newest.tv_sec ||
            (changed.tv_sec == payload->newest.tv_sec && changed.tv_nsec > payload->newest.tv_nsec))
            payload->newest = changed;
        PayloadEntry item{rel, 0, ""};
        if (S_ISDIR(st.st_mode)) {
            item.kind = 'd';
        } else if (S_ISREG(st.st_mode)) {
            item.kind = 'f';
        } else if (S_ISLNK(st.st_mode)) {
            item.kind = 'l';
            std::vector<char> target(st.st_size > 0 ? st.st_size + 1 : 4096);
            ssize_t n = readlink(full.c_str(), target.data(), target.size());
            if (n < 0 || (size_t)n >= target.size()) return mkdistFail("cannot read the link %s", full);
            item.target.assign(target.data(), (size_t)n);
        } else {
            const char* what = S_ISCHR(st.st_mode)    ? "a character device"
                               : S_ISBLK(st.st_mode)  ? "a block device"
                               : S_ISFIFO(st.st_mode) ? "a FIFO"
                               : S_ISSOCK(st.st_mode) ? "a socket"
                                                      : "neither a file, a directory nor a symbolic link";
            payload->problems.push_back(rel + ": " + what);
            continue;
        }
        checkWritable(rel, item.kind, st.st_mode, payload);
        payload->entries.push_back(item);
        if (item.kind == 'd' && walkDirectory(rel, reserved, payload) != 0) return 1;
    }
    return 0;
}

EntryMap mapEntries(const Payload& payload) {
    EntryMap byPath;
    for (const PayloadEntry& entry : payload.entries) byPath[entry.path] = &entry;
    return byPath;
}

}  // namespace

int walkPayload(const std::string& root, const std::vector<std::string>& reserved, Payload* payload) {
    payload->root = root;
    if (walkDirectory("", reserved, payload) != 0) return 1;
    // A link is checked where it stands: where its target leads, through any other links of
    // the payload, must stay inside the payload.
    EntryMap byPath = mapEntries(*payload);
    for (const PayloadEntry& entry : payload->entries) {
        if (entry.kind != 'l') continue;
        std::string found, from = entry.path.substr(0, entry.path.find_last_of('/') + 1);
        std::string why = entry.target.empty() || entry.target[0] != '/'
                              ? resolve(byPath, from + entry.target, &found)
                              : "leads out of the payload";
        if (!why.empty())
            payload->problems.push_back(entry.path + ": a symbolic link to '" + entry.target + "', which " +
                                        why);
    }
    return 0;
}

std::vector<std::string> missingPieces(const Payload& payload, const std::string& package) {
    EntryMap byPath = mapEntries(payload);
    std::vector<std::string> missing;
    for (const Need& need : kEditorNeeds) checkNeed(byPath, need, &missing);
    checkMacroList(payload, byPath, &missing);
    if (isPluginPackage(package))
        for (const Need& need : kPluginNeeds) checkNeed(byPath, need, &missing);
    return missing;
}

bool isPackageName(const std::string& name) {
    return std::any_of(std::begin(kPackageNames), std::end(kPackageNames),
                       [&](const char* known) { return name == known; });
}

bool isPluginPackage(const std::string& name) {
    return name == "cvpackep" || name == "cvpackepd";
}
