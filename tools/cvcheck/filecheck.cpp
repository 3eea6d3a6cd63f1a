// File checks. The byte sum is the installer's own (installer/bytesum.h), taken block by block:
// a wrapping 32-bit sum of the blocks' sums is the sum of the whole file. Blocks of 128 KiB stay
// in the processor's cache between the read and the sum, as cat's do between read and write.
#include "tools/cvcheck/filecheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "installer/bytesum.h"
#include "tools/cvcheck/safedir.h"
#include "tools/common/modelist.h"
#include "tools/common/sha256.h"

namespace {

enum { kBlockSize = 1 << 17, kFilesPerTake = 8, kMaxThreads = 8 };

// Byte sum and length of what can be read from fd; -1 with errno set on a read error.
long long sumDescriptor(int fd, uint32_t* sum) {
    thread_local unsigned char block[kBlockSize];
    long long total = 0;
    *sum = 0;
    for (;;) {
        ssize_t n = read(fd, block, sizeof(block));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) return total;
        *sum += byteSum(block, static_cast<size_t>(n));
        total += n;
    }
}

FileCheck failed(Drift drift, CheckMethod method, int error) {
    return FileCheck{drift, method, -1, error};
}

}  // namespace

CheckMethod checkMethod(const ListedFile& file) {
    if (file.hasDigest) return kBySha256;
    return file.checksum != 0 ? kByByteSum : kBySize;
}

FileCheck checkFileAt(int dirFd, const char* leaf, const ListedFile& file) {
    const CheckMethod method = checkMethod(file);
    // A directory on the way that is a symbolic link (or no directory) holds nothing listed.
    if (dirFd < 0)
        return failed(errno == ENOENT ? kMissing : errno == EACCES ? kUnreadable : kContent, method, errno);
    struct stat info;
    if (fstatat(dirFd, leaf, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return failed(errno == ENOENT || errno == ENOTDIR ? kMissing : kUnreadable, method, errno);
    if (!S_ISREG(info.st_mode)) return failed(kContent, method, S_ISLNK(info.st_mode) ? ELOOP : 0);
    FileCheck found{kSame, method, info.st_size, 0};
    found.modeChanged = file.mode >= 0 && modeDiffers(static_cast<mode_t>(file.mode), info.st_mode);
    found.ownerChanged = file.ownerRoot && info.st_uid != 0;
    found.mode = info.st_mode & 07777;
    found.owner = info.st_uid;
    // A file named only by the SHA-256 list has no listed size.
    if (file.size >= 0 && static_cast<long long>(info.st_size) != file.size) {
        found.drift = kSize;
        return found;
    }
    if (method == kBySize) return found;
    int fd = openat(dirFd, leaf, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        found.drift = kUnreadable;
        found.error = errno;
        return found;
    }
    bool same = false;
    int error = 0;
    if (method == kBySha256) {
        char hex[kSha256HexSize];
        if (sha256Descriptor(fd, hex) != 0) error = errno;
        same = error == 0 && memcmp(hex, file.digest, kSha256HexSize) == 0;
    } else {
        uint32_t sum = 0;
        long long length = sumDescriptor(fd, &sum);
        if (length < 0) error = errno;
        same = length == file.size && sum == static_cast<uint32_t>(file.checksum);
    }
    close(fd);
    found.drift = error != 0 ? kUnreadable : same ? kSame : kContent;
    found.error = error;
    return found;
}

FileCheck checkDirectoryAt(int baseFd, const ListedFile& dir) {
    FileCheck found{kSame, kBySize, 0, 0};
    int fd = openDirBelow(baseFd, dir.location);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        if (fd >= 0) close(fd);
        return found;
    }
    close(fd);
    found.modeChanged = dir.mode >= 0 && modeDiffers(static_cast<mode_t>(dir.mode), info.st_mode);
    found.ownerChanged = dir.ownerRoot && info.st_uid != 0;
    found.mode = info.st_mode & 07777;
    found.owner = info.st_uid;
    return found;
}

bool differs(const FileCheck& check) {
    return check.drift == kMissing || check.drift == kSize || check.drift == kContent || check.modeChanged ||
           check.ownerChanged;
}

std::vector<FileCheck> checkFiles(const Installation& inst, const std::vector<const ListedFile*>& files) {
    std::vector<FileCheck> results(files.size());
    std::atomic<size_t> next{0};
    // Each thread takes a few files in list order at a time, so its directory stays open.
    auto work = [&]() {
        DirCursor install(inst.installFd), layout(inst.layoutFd);
        for (size_t start; (start = next.fetch_add(kFilesPerTake)) < files.size();) {
            for (size_t i = start; i < std::min(files.size(), start + kFilesPerTake); i++) {
                std::string leaf;
                DirCursor& cursor = files[i]->base == kBaseLayout ? layout : install;
                int dirFd = cursor.dirOf(files[i]->location, &leaf);
                results[i] = checkFileAt(dirFd, leaf.c_str(), *files[i]);
            }
        }
    };
    size_t threads = std::min<size_t>(
        {std::max(1u, std::thread::hardware_concurrency()), kMaxThreads, files.size() / kFilesPerTake + 1});
    std::vector<std::thread> helpers;
    for (size_t i = 1; i < threads; i++) helpers.emplace_back(work);
    work();
    for (std::thread& helper : helpers) helper.join();
    return results;
}

const char* driftName(Drift drift) {
    static const char* const kNames[] = {"same", "missing", "size", "content", "unreadable"};
    return kNames[drift];
}

const char* methodName(CheckMethod method) {
    static const char* const kNames[] = {"size", "bytesum", "sha256"};
    return kNames[method];
}
