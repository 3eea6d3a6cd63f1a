// The side files of a distribution directory, one row each.
#include "tools/cvmkdist/distdir.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "tools/cvmkdist/util.h"

namespace {

struct SideFile {
    std::string MkdistOptions::*source;
    const char* option;
    const char* name;  // in the distribution directory
    const char* what;
    mode_t mode;
    bool required;  // a distribution without it is refused unless --allow-incomplete
    bool program;   // shipped stripped
};
const SideFile kSideFiles[] = {
    {&MkdistOptions::installer, "--installer", "cvinst", "the installer", 0755, true, true},
    {&MkdistOptions::messages, "--messages", "cdinst.cvb", "the message file", 0644, true, false},
    {&MkdistOptions::license, "--license", "license.txt", "the licence text", 0644, true, false},
    // The installation checker, by default the one beside cvmkdist.
    {&MkdistOptions::checker, "--checker", "cvcheck", "the installation checker", 0755, true, true},
};

}  // namespace

int checkSideFiles(const MkdistOptions& options, std::vector<std::string>* missing) {
    for (const SideFile& side : kSideFiles) {
        const std::string& source = options.*(side.source);
        if (source.empty()) {
            if (side.required) missing->push_back(std::string(side.what) + " (" + side.option + " FILE)");
            continue;
        }
        struct stat st;
        if (stat(source.c_str(), &st) != 0) return mkdistFail("%s not found", source, strerror(errno));
        if (!S_ISREG(st.st_mode)) return mkdistFail("%s is not a regular file", source);
    }
    return 0;
}

int copySideFiles(const MkdistOptions& options) {
    for (const SideFile& side : kSideFiles) {
        const std::string& source = options.*(side.source);
        if (source.empty()) continue;
        std::string target = options.out + "/" + side.name;
        if ((side.program ? copyStripped(source, target, side.mode) : copyInto(source, target, side.mode)) !=
            0)
            return 1;
    }
    return 0;
}
