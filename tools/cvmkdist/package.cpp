// Packing the staged payload: tar streams it through zlib into the package file.
#include "tools/cvmkdist/package.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/cvmkdist/modes.h"
#include "tools/cvmkdist/util.h"

namespace {

// The members in the order they are packed: the generated files first, so that the file list is
// whole whenever anything was unpacked (a disk that fills up or a package cut short then leaves
// files that verification finds missing or short, not an empty list that checks nothing).
std::string memberList(const Payload& payload, const std::vector<GeneratedMember>& generated) {
    std::vector<std::string> members;
    members.reserve(payload.entries.size());
    for (const PayloadEntry& entry : payload.entries) members.push_back(entry.path);
    std::sort(members.begin(), members.end());
    std::string list;
    for (const GeneratedMember& member : generated) list += member.name + '\0';
    for (const std::string& member : members) list += member + '\0';
    return list;
}

int stageGenerated(const std::string& staging, const std::vector<GeneratedMember>& generated,
                   const struct timespec& stamp) {
    for (const GeneratedMember& member : generated) {
        std::string file = staging + "/" + member.name;
        if (writeWholeFile(file, member.content, 0644) != 0) return 1;
        struct timespec times[2] = {stamp, stamp};
        if (utimensat(AT_FDCWD, file.c_str(), times, 0) != 0)
            return mkdistFail("cannot set the time of %s", file, strerror(errno));
    }
    return 0;
}

// Files added to the payload from elsewhere (the checker) go into the staged tree with the
// payload's newest time, so that the same inputs still give the same package.
int stageAdded(const Payload& payload, const std::string& staging, mode_t mode) {
    for (const PayloadEntry& entry : payload.entries) {
        if (entry.source.empty()) continue;
        std::string file = staging + "/" + entry.path, dir = dirName(file);
        struct stat before;  // the directory keeps its time from the payload
        if (stat(dir.c_str(), &before) != 0) return mkdistFail("cannot read %s", dir, strerror(errno));
        if (copyInto(entry.source, file, mode) != 0) return 1;
        struct timespec times[2] = {payload.newest, payload.newest},
                        dirTimes[2] = {before.st_atim, before.st_mtim};
        if (utimensat(AT_FDCWD, file.c_str(), times, 0) != 0 ||
            utimensat(AT_FDCWD, dir.c_str(), dirTimes, 0) != 0)
            return mkdistFail("cannot set the time of %s", file, strerror(errno));
    }
    return 0;
}

// Streams tar's output through zlib (no name and no time in the gzip header) into the file.
int compressInto(const std::vector<std::string>& tar, const std::string& partial) {
    pid_t pid = 0;
    int in = startProgramReader(tar, &pid);
    if (in < 0) return 1;
    gzFile gz = gzopen(partial.c_str(), "wb9");
    static char block[1 << 16];
    bool writeError = gz == nullptr;
    for (;;) {
        ssize_t n = read(in, block, sizeof(block));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!writeError && gzwrite(gz, block, (unsigned)n) != (int)n) writeError = true;
    }
    close(in);
    int status = waitProgram(pid, tar);
    if (gz != nullptr && gzclose(gz) != Z_OK) writeError = true;
    if (writeError) mkdistFail("cannot write %s", partial);
    return writeError || status != 0 ? 1 : 0;
}

}  // namespace

int writePackage(const Payload& payload, const std::vector<GeneratedMember>& generated, long long epoch,
                 const std::string& packagePath) {
    std::string work;
    if (makeWorkDirectory(&work) != 0) return 1;
    std::string staging = work + "/tree", members = work + "/members", partial = packagePath + ".part";
    std::vector<std::string> tar = reproducibleTarCommand(staging, members, epoch);

    int result = 1;
    if (mkdir(staging.c_str(), 0755) != 0) {
        mkdistFail("cannot create %s", staging, strerror(errno));
    } else if (runProgram({"cp", "-pPR", payload.root + "/.", staging}) == 0 &&
               stageAdded(payload, staging, kAddedFileMode) == 0 &&
               stageGenerated(staging, generated, payload.newest) == 0 &&
               writeWholeFile(members, memberList(payload, generated), 0600) == 0 &&
               compressInto(tar, partial) == 0 && chmod(partial.c_str(), 0644) == 0) {
        if (rename(partial.c_str(), packagePath.c_str()) == 0)
            result = 0;
        else
            mkdistFail("cannot rename the package to %s", packagePath, strerror(errno));
    }
    if (result != 0) unlink(partial.c_str());
    removeTree(work);
    return result;
}
