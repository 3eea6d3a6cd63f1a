// The installation's own files, recognised by name.
#include "tools/cvcheck/madefiles.h"

#include <cctype>

#include "installer/miscfiles.h"
#include "installer/verify.h"
#include "installer/maderecord.h"
#include "tools/common/modelist.h"
#include "tools/common/sha256list.h"

namespace {

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

bool isDatedList(const std::string& name) {
    const std::string prefix = std::string(kFileListName) + ".";
    if (name.size() != prefix.size() + 14 || !startsWith(name, prefix.c_str())) return false;
    for (size_t i = prefix.size(); i < name.size(); i++)
        if (isdigit(static_cast<unsigned char>(name[i])) == 0) return false;
    return true;
}

MadeKind madeKind(const std::string& path, const std::unordered_set<std::string>& listed) {
    if (path == "bin/cvt") return kMadeLink;
    if (path == "bin/corv.ini") return kMadeIni;
    if (path == "alias.crv") return kMadeAlias;
    if (path == "$alias.crv") return kMadeShippedAlias;
    if (path == "rescue.stu") return kMadeRescue;
    if (path == "uproject.crv") return kMadeProject;
    if (path == kSha256ListName || path == kModeListName || path == kMadeRecordName ||
        path == kFileListName || isDatedList(path))
        return kMadeList;
    if (startsWith(path, "tagfiles/")) return kMadeTagFile;
    if (startsWith(path, "old/")) return kMadeBackup;
    // Compilation writes NAME.ex beside every source it compiles, in the macros directory itself.
    if (startsWith(path, "macros/") && path.find('/', 7) == std::string::npos && endsWith(path, ".ex") &&
        listed.count(path.substr(0, path.size() - 1)) != 0)
        return kMadeMacro;
    return kMadeNone;
}

bool changedAfterVerification(MadeKind kind) {
    return kind == kMadeLink || kind == kMadeIni || kind == kMadeAlias || kind == kMadeShippedAlias ||
           kind == kMadeRescue || kind == kMadeMacro || kind == kMadeTagFile;
}

std::string environmentIniText() {
    std::string text;
    for (const char* line : kEnvironmentIni) text += std::string(line) + "\n";
    return text;
}
