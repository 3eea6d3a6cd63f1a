// SHA256SUMS of a distribution directory and the .sha256 line beside a single file.
#include "tools/cvmkdist/sums.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/cvmkdist/util.h"
#include "tools/common/sha256.h"

const char kSumsName[] = "SHA256SUMS";

namespace {

const char* const kSignatureSuffixes[] = {".sig", ".asc", ".gpg"};

bool isOldSignature(const std::string& name) {
    return std::any_of(std::begin(kSignatureSuffixes), std::end(kSignatureSuffixes),
                       [&](const char* suffix) { return name == std::string(kSumsName) + suffix; });
}

int sumLine(const std::string& file, const std::string& name, std::string* out) {
    char hex[kSha256HexSize];
    if (sha256File(file.c_str(), hex) != 0) return mkdistFail("cannot read %s", file, strerror(errno));
    *out += sha256SumLine(hex, name);
    return 0;
}

}  // namespace

int writeSha256Sums(const std::string& dir) {
    DIR* listing = opendir(dir.c_str());
    if (!listing) return mkdistFail("cannot read directory %s", dir, strerror(errno));
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(listing)) {
        std::string name = entry->d_name;
        if (name != "." && name != ".." && name != kSumsName) names.push_back(name);
    }
    closedir(listing);
    std::sort(names.begin(), names.end());
    std::string sums;
    for (const std::string& name : names) {
        std::string file = dir + "/" + name;
        struct stat st;
        if (isOldSignature(name)) {
            if (unlink(file.c_str()) != 0)
                return mkdistFail("cannot remove the old signature %s", file, strerror(errno));
            mkdistWarn("removed " + file + ": it signed an earlier " + kSumsName);
        } else if (lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            mkdistWarn(file + " is not a regular file; " + kSumsName + " leaves it out");
        } else if (sumLine(file, name, &sums) != 0) {
            return 1;
        }
    }
    return writeWholeFile(dir + "/" + kSumsName, sums, 0644);
}

int writeSha256Beside(const std::string& file) {
    std::string line;
    if (sumLine(file, baseName(file), &line) != 0) return 1;
    return writeWholeFile(file + ".sha256", line, 0644);
}
