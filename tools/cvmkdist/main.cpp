// cvmkdist: builds a distribution directory from a payload tree (cvmkdist --help).
//
// The payload is read and checked first, and nothing is written when it holds something a
// package must not carry, or lacks what an installation of the package kind reads. Then the
// package is packed, the side files are copied beside it, SHA256SUMS is written over the
// whole directory, and on request the self-extracting file is made from that directory.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/cvmkdist/distdir.h"
#include "tools/cvmkdist/filelist.h"
#include "tools/cvmkdist/modes.h"
#include "tools/cvmkdist/options.h"
#include "tools/cvmkdist/package.h"
#include "tools/cvmkdist/payload.h"
#include "tools/cvmkdist/selfextract.h"
#include "tools/cvmkdist/sums.h"
#include "tools/cvmkdist/util.h"
#include "tools/common/modelist.h"
#include "tools/common/sha256list.h"

namespace {

void warnAboutOtherPackages(const MkdistOptions& options) {
    for (const char* name : {"cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd"}) {
        if (options.package == name) continue;
        if (access((options.out + "/" + name).c_str(), F_OK) == 0)
            mkdistWarn(options.out + " also holds the package " + name);
    }
}

// Everything wrong with the inputs, in one report. Gaps (missing pieces) are warnings with
// --allow-incomplete; what a package must not carry never is.
int checkInputs(const MkdistOptions& options, const Payload& payload,
                const std::vector<std::string>& problems) {
    std::vector<std::string> lacking = missingPieces(payload, options.package), sideFiles;
    if (checkSideFiles(options, &sideFiles) != 0) return 1;
    bool refuse = !problems.empty();
    if (!problems.empty())
        mkdistList("the payload " + options.payload + " holds what a package cannot carry:", problems);
    if (!lacking.empty())
        mkdistList("the payload " + options.payload + " lacks what an installation from " + options.package +
                       " reads:",
                   lacking, options.allowIncomplete);
    if (!sideFiles.empty()) mkdistList("the distribution lacks:", sideFiles, options.allowIncomplete);
    if (!options.allowIncomplete && (!lacking.empty() || !sideFiles.empty())) {
        fprintf(stderr,
                "cvmkdist: nothing was built (--allow-incomplete builds a test distribution anyway)\n");
        refuse = true;
    } else if (refuse) {
        fprintf(stderr, "cvmkdist: nothing was built\n");
    }
    return refuse ? 1 : 0;
}

// A private directory removed when main returns, however it returns.
struct WorkDirectory {
    std::string path;
    WorkDirectory() = default;
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;
    ~WorkDirectory() {
        if (!path.empty()) removeTree(path);
    }
};

}  // namespace

int main(int argc, char** argv) {
    MkdistOptions options;
    int parsed = parseMkdistOptions(argc, argv, &options);
    if (parsed != 0) return parsed == 2 ? 0 : 1;
    long long epoch = -1;
    if (sourceDateEpoch(&epoch) != 0) return 1;
    struct stat st;
    if (stat(options.payload.c_str(), &st) != 0)
        return mkdistFail("payload directory %s not found", options.payload, strerror(errno));
    if (!S_ISDIR(st.st_mode)) return mkdistFail("payload %s is not a directory", options.payload);

    // The files cvmkdist generates into the top of the package; the payload's own are replaced.
    const std::vector<std::string> generatedNames = {kFileListName, kSha256ListName, kModeListName};
    Payload payload;
    if (walkPayload(options.payload, generatedNames, &payload) != 0) return 1;
    WorkDirectory checkerCopy;
    if (options.checkerInPayload && !options.listOnly &&
        addCheckerCopy(options.checker, &checkerCopy.path, &payload) != 0)
        return 1;
    std::vector<std::string> problems = payload.problems;
    if (!options.allowGroupWrite)
        problems.insert(problems.end(), payload.groupWritable.begin(), payload.groupWritable.end());
    std::string list = buildFileList(payload, &problems);
    if (options.listOnly) {
        if (!problems.empty())
            mkdistList("the payload " + options.payload + " holds what a package cannot carry:", problems);
        else
            fwrite(list.data(), 1, list.size(), stdout);
        return problems.empty() ? 0 : 1;
    }
    if (checkInputs(options, payload, problems) != 0) return 1;

    if (makeDirectoryTree(options.out) != 0) return 1;
    if (!options.selfExtracting.empty() && prepareSelfExtracting(options.selfExtracting, options.out) != 0)
        return 1;
    warnAboutOtherPackages(options);
    // Beside the file list, the SHA-256 list of the same files, which cvcheck checks with: a
    // byte sum cannot see two bytes that changed places.
    std::vector<std::pair<std::string, std::string>> files;
    for (const PayloadEntry& entry : payload.entries)
        if (entry.kind == 'f') files.emplace_back(entry.path, entrySource(payload, entry));
    std::string sha256List, modeList;
    if (buildSha256ListOf("cvmkdist", files, &sha256List) != 0) return 1;
    // And the modes, which cvcheck compares as rpm -V does.
    if (buildModeList(payload, &modeList) != 0) return 1;
    const std::vector<GeneratedMember> generated = {
        {kFileListName, list}, {kSha256ListName, sha256List}, {kModeListName, modeList}};
    if (writePackage(payload, generated, epoch, options.out + "/" + options.package) != 0) return 1;
    if (copySideFiles(options) != 0) return 1;
    // Listed last, so that every file put into the directory before is covered.
    if (writeSha256Sums(options.out) != 0) return 1;
    if (!options.selfExtracting.empty() &&
        writeSelfExtracting(options.out, options.selfExtracting, epoch) != 0)
        return 1;
    return 0;
}
