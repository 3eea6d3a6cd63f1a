// Sizes and byte sums of the payload's files, in the form the installer's verification reads.
#include "tools/cvmkdist/filelist.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "installer/bytesum.h"

const char kFileListName[] = "distribfilelist";

namespace {

// The installer reads list lines of at most 511 characters including the line feed, and
// sizes and sums as signed 32-bit numbers.
const size_t kMaxListLine = 511;
const uint64_t kMaxListedValue = 2147483647u;

// Size and byte sum of a file, the same sum the installer computes over the installed copy.
std::string sizeAndSum(const std::string& file, uint64_t* size, uint32_t* sum) {
    int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::string("cannot be opened: ") + strerror(errno);
    static unsigned char block[1 << 17];
    *size = 0;
    *sum = 0;
    for (;;) {
        ssize_t n = read(fd, block, sizeof(block));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            std::string why = std::string("cannot be read: ") + strerror(errno);
            close(fd);
            return why;
        }
        if (n == 0) break;
        *sum += byteSum(block, (size_t)n);
        *size += (uint64_t)n;
    }
    close(fd);
    return "";
}

}  // namespace

std::string buildFileList(const Payload& payload, std::vector<std::string>* problems) {
    std::vector<const PayloadEntry*> files;
    for (const PayloadEntry& entry : payload.entries)
        if (entry.kind == 'f') files.push_back(&entry);
    std::sort(files.begin(), files.end(),
              [](const PayloadEntry* a, const PayloadEntry* b) { return a->path < b->path; });
    std::string list;
    for (const PayloadEntry* file : files) {
        uint64_t size = 0;
        uint32_t sum = 0;
        std::string why = sizeAndSum(entrySource(payload, *file), &size, &sum);
        if (why.empty() && size > kMaxListedValue)
            why = "larger than 2147483647 bytes; the installer could not verify it";
        if (why.empty() && sum > kMaxListedValue)
            why = "byte sum " + std::to_string(sum) + " above 2147483647; the installer could not verify it";
        std::string line = file->path + " " + std::to_string(size) + " " + std::to_string(sum) + "\n";
        if (why.empty() && line.size() > kMaxListLine)
            why = "path too long for a file-list line of 511 characters";
        if (!why.empty()) {
            problems->push_back(file->path + ": " + why);
            continue;
        }
        list += line;
    }
    return list;
}
