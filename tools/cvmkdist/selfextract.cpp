// Writing the self-extracting file: archive the distribution directory, take its SHA-256 and
// size, fill them into the script and put the script in front of the archive.
#include "tools/cvmkdist/selfextract.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/cvmkdist/sums.h"
#include "tools/cvmkdist/util.h"
#include "installer/state.h"
#include "tools/common/sha256.h"

namespace {

// The first line's size check holds the file's size twice, as a number so that shellcheck can
// check the comparison: this one, which nothing else in the script holds.
const char kFileBytesPlaceholder[] = "9999999999999999";

int replaceEvery(std::string* text, const std::string& placeholder, const std::string& value, int times) {
    int found = 0;
    for (size_t at = 0; (at = text->find(placeholder, at)) != std::string::npos; at += value.size()) {
        text->replace(at, placeholder.size(), value);
        found++;
    }
    if (found != times)
        return mkdistFail("the built-in script does not hold %s as often as it should", placeholder);
    return 0;
}

// The package the distribution directory holds, named in the file's --info.
std::string packageOf(const std::string& members) {
    for (size_t at = 0; at < members.size(); at = members.find('\0', at) + 1) {
        std::string name = members.substr(at, members.find('\0', at) - at);
        for (const char* package : {"cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd"})
            if (name == package) return name;
    }
    return "none";
}

// The version of Corvane that the installer's banner shows.
std::string productVersion() {
    resetInstallState();
    return gState.productVersion;
}

// The script with its values. The header's own size is one of them, so it is filled in until
// the size it states is the size it has (the number's digits settle after a round or two).
int fillScript(const char* sha256, uint64_t archiveBytes, const std::string& package, std::string* header) {
    uint64_t headerBytes = 0;
    for (int round = 0; round < 8; round++) {
        std::string text = kSelfExtractScript;
        if (replaceEvery(&text, kFileBytesPlaceholder, std::to_string(headerBytes + archiveBytes), 2) != 0 ||
            replaceEvery(&text, "@ARCHIVE_SHA256@", sha256, 1) != 0 ||
            replaceEvery(&text, "@ARCHIVE_BYTES@", std::to_string(archiveBytes), 1) != 0 ||
            replaceEvery(&text, "@HEADER_BYTES@", std::to_string(headerBytes), 1) != 0 ||
            replaceEvery(&text, "@VERSION@", productVersion(), 1) != 0 ||
            replaceEvery(&text, "@PACKAGE@", package, 1) != 0)
            return 1;
        if (text.size() == headerBytes) {
            *header = text;
            return 0;
        }
        headerBytes = text.size();
    }
    return mkdistFail("%s", "the script's size does not settle");
}

std::string memberList(const std::string& distDir) {
    std::vector<std::string> names;
    if (DIR* listing = opendir(distDir.c_str())) {
        while (struct dirent* entry = readdir(listing)) {
            struct stat st;
            std::string name = entry->d_name;
            if (lstat((distDir + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) names.push_back(name);
        }
        closedir(listing);
    }
    std::sort(names.begin(), names.end());
    std::string list;
    for (const std::string& name : names) list += name + '\0';
    return list;
}

int copyRest(int from, int to, const std::string& file) {
    static char block[1 << 17];
    for (;;) {
        ssize_t n = read(from, block, sizeof(block));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return mkdistFail("cannot read the archive for %s", file, strerror(errno));
        if (n == 0) return 0;
        for (ssize_t done = 0; done < n;) {
            ssize_t written = write(to, block + done, (size_t)(n - done));
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) return mkdistFail("cannot write %s", file, strerror(errno));
            done += written;
        }
    }
}

// Writes the header and the archive into partial.
int assemble(int archive, const std::string& package, const std::string& partial) {
    char hex[kSha256HexSize];
    struct stat st;
    if (lseek(archive, 0, SEEK_SET) != 0 || sha256Descriptor(archive, hex) != 0 || fstat(archive, &st) != 0)
        return mkdistFail("cannot read the archive for %s", partial, strerror(errno));
    std::string header;
    if (fillScript(hex, (uint64_t)st.st_size, package, &header) != 0) return 1;
    int out = open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    if (out < 0) return mkdistFail("cannot create %s", partial, strerror(errno));
    int result = write(out, header.data(), header.size()) == (ssize_t)header.size() ? 0 : 1;
    if (result != 0) mkdistFail("cannot write %s", partial, strerror(errno));
    if (result == 0 && lseek(archive, 0, SEEK_SET) == 0) result = copyRest(archive, out, partial);
    if (close(out) != 0 && result == 0) result = mkdistFail("cannot write %s", partial, strerror(errno));
    if (result == 0 && chmod(partial.c_str(), 0755) != 0)
        result = mkdistFail("cannot set the mode of %s", partial, strerror(errno));
    return result;
}

}  // namespace

int prepareSelfExtracting(const std::string& file, const std::string& distDir) {
    std::string where = dirName(file);
    if (makeDirectoryTree(where) != 0) return 1;
    char fileDir[PATH_MAX], dist[PATH_MAX];
    if (!realpath(where.c_str(), fileDir) || !realpath(distDir.c_str(), dist))
        return mkdistFail("cannot resolve the directory of %s", file, strerror(errno));
    if (strcmp(fileDir, dist) == 0)
        return mkdistFail("%s would lie in the distribution directory, which it packs; write it beside",
                          file);
    return 0;
}

int writeSelfExtracting(const std::string& distDir, const std::string& file, long long epoch) {
    std::string work;
    if (makeWorkDirectory(&work) != 0) return 1;
    std::string members = work + "/members", archivePath = work + "/archive", partial = file + ".part";
    std::vector<std::string> tar = reproducibleTarCommand(distDir, members, epoch);
    int result = 1;
    int archive = open(archivePath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (archive < 0) {
        mkdistFail("cannot create %s", archivePath, strerror(errno));
    } else {
        std::string names = memberList(distDir);
        if (writeWholeFile(members, names, 0600) == 0 && runProgram(tar, archive) == 0 &&
            assemble(archive, packageOf(names), partial) == 0) {
            if (rename(partial.c_str(), file.c_str()) == 0)
                result = writeSha256Beside(file);
            else
                mkdistFail("cannot rename %s", partial, strerror(errno));
        }
        close(archive);
    }
    if (result != 0) unlink(partial.c_str());
    removeTree(work);
    return result;
}
