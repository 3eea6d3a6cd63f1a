// Handle table and the XXFH classes for plain files and archive members; whole-file reads.
#include "runtime/filehandle.h"

#include "runtime/path.h"
#include "runtime/pool.h"
#include "runtime/zipreader.h"
#include "runtime/status.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int32_t kPathSize = 512;

const uint32_t kKindPlain = 1;
const uint32_t kKindMember = 5;

const int32_t kTableStep = 100;
const int32_t kReaderLockRange = 2000;

ZipDecompressor gDecompressor = nullptr;

struct HandleEntry {
    uint32_t kind;
    XXFH* object;
    int32_t nextFree;  // next entry of the free list, -1 at its end
    uint32_t inUse;
};

HandleEntry* gTable = nullptr;
int32_t gCount = 0;
int32_t gCapacity = 0;
int32_t gFreeHead = -1;

// The table starts with the three standard descriptors bound to handles 0, 1 and 2.
bool initTable() {
    if (gTable) return true;
    HandleEntry* table = static_cast<HandleEntry*>(calloc(kTableStep, sizeof(HandleEntry)));
    if (!table) return false;
    for (int i = 0; i < 3; ++i) {
        XXFH_POSIX* object = new (std::nothrow) XXFH_POSIX(i);
        if (!object) {
            for (int j = 0; j < i; ++j) delete table[j].object;
            free(table);
            return false;
        }
        table[i].kind = kKindPlain;
        table[i].object = object;
        table[i].nextFree = -1;
        table[i].inUse = 1;
    }
    gTable = table;
    gCapacity = kTableStep;
    gCount = 3;
    return true;
}

XXFH* lookup(int32_t handle) {
    if (!initTable() || handle < 0 || handle >= gCount || !gTable[handle].inUse) return nullptr;
    return gTable[handle].object;
}

// Takes an entry: the last one closed first, else a new one at the end (growing the table).
int32_t takeEntry() {
    if (gFreeHead >= 0) {
        int32_t handle = gFreeHead;
        gFreeHead = gTable[handle].nextFree;
        return handle;
    }
    if (gCount == gCapacity) {
        if (gCapacity > INT32_MAX - kTableStep) return kOutOfMemory;
        int32_t capacity = gCapacity + kTableStep;
        HandleEntry* grown =
            static_cast<HandleEntry*>(realloc(gTable, sizeof(HandleEntry) * static_cast<size_t>(capacity)));
        if (!grown) return kOutOfMemory;
        memset(grown + gCapacity, 0, sizeof(HandleEntry) * kTableStep);
        gTable = grown;
        gCapacity = capacity;
    }
    return gCount++;
}

// Splits a path at the first ".jar/" or ".zip/" whose prefix is an existing file. 1 with the
// archive and member filled in, 0 when the path names no archive member, or a negative code
// when the prefix cannot be examined.
int32_t splitArchivePath(const char* path, char* archive, char* member) {
    const char* from = path;
    for (;;) {
        const char* jar = strstr(from, ".jar/");
        const char* zip = strstr(from, ".zip/");
        const char* marker = !jar ? zip : !zip ? jar : (jar < zip ? jar : zip);
        if (!marker) return 0;
        size_t cut = static_cast<size_t>(marker - path) + 4;
        if (cut >= static_cast<size_t>(kPathSize)) return 0;
        memcpy(archive, path, cut);
        archive[cut] = 0;
        struct stat st;
        if (stat(archive, &st) == 0) {
            if (S_ISREG(st.st_mode)) {
                strCopyBounded(member, marker + 5, kPathSize);
                return 1;
            }
        } else if (errno != ENOENT && errno != ENOTDIR) {
            return fileMapErrno(errno, kOpenFailed);
        }
        from = marker + 5;
    }
}

int openFlags(int32_t mode, mode_t* permissions) {
    switch (mode) {
        case 0:
            *permissions = 0;
            return O_RDONLY;
        case 1: {
            // The group and other write bits are asked for as far as the umask lets them through.
            mode_t mask = umask(0);
            umask(mask);
            *permissions = 0644 | (0066 & ~mask);
            return O_RDWR | O_CREAT | O_TRUNC;
        }
        case 2:
            *permissions = 0644;
            return O_RDWR | O_CREAT | O_TRUNC;
        case 3:
            *permissions = 0644;
            return O_RDWR;
        case 4:
            *permissions = 0;
            return O_WRONLY;
        case 5:
            *permissions = 0666;
            return O_RDWR | O_CREAT | O_EXCL;
        default:
            return -1;
    }
}

// A missing file in a missing directory is reported as a missing path.
int32_t missingFileCode(const char* path) {
    int32_t dirLength = pathDirLength(path);
    if (dirLength > 0 && dirLength < kPathSize) {
        char dir[kPathSize];
        strCopyBounded(dir, path, dirLength + 1);
        if (!entryExists(dir)) return kPathNotFound;
    }
    return kFileNotFound;
}

}  // namespace

int32_t fileMapErrno(int err, int32_t defaultCode) {
    switch (err) {
        case 0:
            return 0;
        case ENOENT:
            return kFileNotFound;
        case ENOTDIR:
            return kPathNotFound;
        case ENFILE:
        case EMFILE:
            return kTooManyOpenFiles;
        case EACCES:
        case ETXTBSY:
            return kAccessDenied;
        case ENOMEM:
            return kOutOfMemory;
        case EIO:
            return kIoError;
        case ENOSPC:
            return kDeviceFull;
        case EINVAL:
            return kInvalidParameter;
        default:
            return defaultCode;
    }
}

int32_t fileLockReaderByte(int fd) {
    int32_t taken = -1;
    for (int32_t offset = 0; offset < kReaderLockRange; ++offset) {
        if (lseek(fd, offset, SEEK_SET) < 0) break;
        if (lockf(fd, F_TLOCK, 1) == 0) {
            taken = offset;
            break;
        }
        // Only a byte held by another reader is worth passing over; any other failure (a
        // descriptor not open for writing gives EBADF) would repeat at every offset.
        if (errno != EACCES && errno != EAGAIN) break;
    }
    lseek(fd, 0, SEEK_SET);
    return taken;
}

void fileSetArchiveDecompressor(ZipDecompressor fn) {
    gDecompressor = fn;
}

int32_t fileArchiveMemberExists(const char* path) {
    if (!gDecompressor) return -1;
    char archive[kPathSize];
    char member[kPathSize];
    int32_t rc = splitArchivePath(path, archive, member);
    if (rc == 0) return -1;
    if (rc < 0) return 0;
    return zipHasMember(archive, member) > 0 ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------
// Handle-based operations.

int32_t fileOpen(const char* path, int32_t mode) {
    if (!path) return kInvalidParameter;
    if (!initTable()) return kOutOfMemory;

    uint32_t kind = kKindPlain;
    char archive[kPathSize];
    char member[kPathSize];
    // A member path is recognised whether or not archive access is on; with access off the
    // member open below refuses it, rather than the text being taken as a plain path.
    {
        int32_t rc = splitArchivePath(path, archive, member);
        if (rc < 0) return rc;
        if (rc == 1) kind = kKindMember;
    }
    // Paths starting with "/%%0/" would go to the URL class, which this build does not have.

    XXFH* object;
    int32_t rc;
    if (kind == kKindMember) {
        XXFH_JAR* jar = new (std::nothrow) XXFH_JAR();
        if (!jar) return kOutOfMemory;
        rc = jar->openMember(archive, member, mode);
        object = jar;
    } else {
        object = new (std::nothrow) XXFH_POSIX();
        if (!object) return kOutOfMemory;
        rc = object->open(path, mode);
    }
    if (rc < 0) {
        delete object;
        return rc;
    }
    strCopyBounded(object->path, path, kPathSize);

    int32_t handle = takeEntry();
    if (handle < 0) {
        object->close(-1);
        delete object;
        return handle;
    }
    gTable[handle].kind = kind;
    gTable[handle].object = object;
    gTable[handle].nextFree = -1;
    gTable[handle].inUse = 1;
    return handle;
}

int32_t fileWrite(int32_t handle, const void* buffer, uint32_t count) {
    XXFH* object = lookup(handle);
    return object ? object->write(buffer, count) : kWriteFailed;
}

int32_t fileRead(int32_t handle, void* buffer, uint32_t count) {
    XXFH* object = lookup(handle);
    return object ? object->read(buffer, count) : kReadFailed;
}

int32_t fileSeek(int32_t handle, int32_t offset, int32_t whence) {
    XXFH* object = lookup(handle);
    return object ? object->seek(offset, whence) : kReadFailed;
}

int32_t fileClose(int32_t handle, int32_t flags) {
    if (handle < 3) return kCloseFailed;
    XXFH* object = lookup(handle);
    if (!object) return kCloseFailed;
    int32_t rc = object->close(flags);
    delete object;
    HandleEntry& entry = gTable[handle];
    entry.kind = 0;
    entry.object = nullptr;
    entry.inUse = 0;
    entry.nextFree = gFreeHead;
    gFreeHead = handle;
    return rc;
}

int32_t fileTruncate(int32_t handle) {
    XXFH* object = lookup(handle);
    return object ? object->truncate() : kWriteFailed;
}

int32_t fileFlush(int32_t handle) {
    XXFH* object = lookup(handle);
    return object ? object->flush() : kWriteFailed;
}

int32_t fileReadAll(const char* path, char** buffer, int32_t* length, int32_t keepEof, int32_t reuse) {
    *buffer = nullptr;
    *length = 0;
    int32_t handle = fileOpen(path, 0);
    if (handle < 0) return handle;
    int32_t size = fileSeek(handle, 0, 2);
    if (size < 0) {
        fileClose(handle, -1);
        return size;
    }
    char* bytes = size < INT32_MAX ? static_cast<char*>(libAlloc(size + 1)) : nullptr;
    if (!bytes) {
        fileClose(handle, -1);
        return kOutOfMemory;
    }
    int32_t rc = fileSeek(handle, 0, 0);
    int32_t total = 0;
    while (rc >= 0 && total < size) {
        int32_t got = fileRead(handle, bytes + total, static_cast<uint32_t>(size - total));
        if (got <= 0) {
            rc = got;
            break;
        }
        total += got;
    }
    if (rc < 0) {
        libFree(bytes);
        fileClose(handle, -1);
        return rc;
    }
    bytes[total] = 0;
    // A trailing Ctrl-Z is the old end-of-file mark; it stays in the buffer but not in the length.
    *length = (!keepEof && total > 0 && bytes[total - 1] == 26) ? total - 1 : total;
    *buffer = bytes;
    fileClose(handle, -1);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// XXFH: the base class.

XXFH::XXFH() {
    path[0] = 0;
}
XXFH::~XXFH() {}
int32_t XXFH::control1() {
    return 0;
}
int32_t XXFH::control2() {
    return 0;
}

// ---------------------------------------------------------------------------------------------
// XXFH_POSIX: a plain file on a POSIX descriptor.

XXFH_POSIX::XXFH_POSIX(int fd) : fd(fd) {}

int32_t XXFH_POSIX::open(const char* path, int32_t mode) {
    mode_t permissions = 0;
    int flags = openFlags(mode, &permissions);
    if (flags < 0) return kInvalidParameter;
    int descriptor;
    do descriptor = ::open(path, flags | O_CLOEXEC, permissions);
    while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        int err = errno;
        if (err == ENOENT) return missingFileCode(path);
        return fileMapErrno(err, kOpenFailed);
    }
    if (this->path != path) strCopyBounded(this->path, path, kPathSize);
    fd = descriptor;
    // Each reader holds a byte of its own so that a writer can tell readers are there. On a
    // read-only descriptor no lock can be had; that is no error.
    if (mode == 0) fileLockReaderByte(fd);
    return fd;
}

int32_t XXFH_POSIX::write(const void* buffer, uint32_t count) {
    if (count > static_cast<uint32_t>(INT32_MAX)) count = INT32_MAX;
    const char* p = static_cast<const char*>(buffer);
    uint32_t done = 0;
    while (done < count) {
        ssize_t n = ::write(fd, p + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (done > 0) break;
            return fileMapErrno(errno, kWriteFailed);
        }
        if (n == 0) break;
        done += static_cast<uint32_t>(n);
    }
    return static_cast<int32_t>(done);
}

int32_t XXFH_POSIX::read(void* buffer, uint32_t count) {
    if (count > static_cast<uint32_t>(INT32_MAX)) count = INT32_MAX;
    ssize_t n;
    do n = ::read(fd, buffer, count);
    while (n < 0 && errno == EINTR);
    if (n < 0) return fileMapErrno(errno, kReadFailed);
    return static_cast<int32_t>(n);
}

int32_t XXFH_POSIX::seek(int32_t offset, int32_t whence) {
    int how = whence == 0 ? SEEK_SET : whence == 1 ? SEEK_CUR : whence == 2 ? SEEK_END : -1;
    if (how < 0) return kInvalidParameter;
    off_t position = lseek(fd, offset, how);
    if (position < 0) return fileMapErrno(errno, kReadFailed);
    if (position > INT32_MAX) return kReadFailed;
    return static_cast<int32_t>(position);
}

int32_t XXFH_POSIX::close(int32_t flags) {
    if (fd < 0) return kCloseFailed;
    int rc = ::close(fd);
    fd = -1;
    return rc == 0 ? 0 : kCloseFailed;
}

int32_t XXFH_POSIX::truncate() {
    off_t position = lseek(fd, 0, SEEK_CUR);
    if (position < 0 || ftruncate(fd, position) != 0) return fileMapErrno(errno, kWriteFailed);
    return 0;
}

int32_t XXFH_POSIX::flush() {
    if (fsync(fd) != 0) return fileMapErrno(errno, kWriteFailed);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// XXFH_JAR: a member of a ZIP archive, held whole in memory.

XXFH_JAR::XXFH_JAR() : data(nullptr), length(0), position(0) {}

XXFH_JAR::~XXFH_JAR() {
    free(data);
}

int32_t XXFH_JAR::openMember(const char* archive, const char* member, int32_t mode) {
    if (mode != 0 || !gDecompressor) return kArchiveAccessOff;
    free(data);
    data = nullptr;
    length = 0;
    position = 0;
    int32_t rc = zipReadMember(archive, member, gDecompressor, &data, &length);
    if (rc < 0) return rc;
    strCopyBounded(path, archive, kPathSize);
    strAppendBounded(path, "/", kPathSize);
    strAppendBounded(path, member, kPathSize);
    return 0;
}

int32_t XXFH_JAR::open(const char* path, int32_t mode) {
    if (mode != 0 || !gDecompressor) return kArchiveAccessOff;
    char archive[kPathSize];
    char member[kPathSize];
    int32_t rc = splitArchivePath(path, archive, member);
    if (rc < 0) return rc;
    if (rc == 0) return kFileNotFound;
    return openMember(archive, member, mode);
}

int32_t XXFH_JAR::write(const void* buffer, uint32_t count) {
    return kArchiveAccessOff;
}

// Reads from the current position; a position outside the member (seek does not check it)
// yields no bytes.
int32_t XXFH_JAR::read(void* buffer, uint32_t count) {
    if (!data || position < 0 || position >= static_cast<int64_t>(length)) return 0;
    uint32_t available = static_cast<uint32_t>(static_cast<int64_t>(length) - position);
    uint32_t n = count < available ? count : available;
    memcpy(buffer, data + position, n);
    position += n;
    return static_cast<int32_t>(n);
}

int32_t XXFH_JAR::seek(int32_t offset, int32_t whence) {
    if (whence == 0)
        position = offset;
    else if (whence == 1)
        position += offset;
    else
        position = static_cast<int64_t>(length) + offset;
    return static_cast<int32_t>(position);
}

int32_t XXFH_JAR::close(int32_t flags) {
    free(data);
    data = nullptr;
    length = 0;
    position = 0;
    return 0;
}

int32_t XXFH_JAR::truncate() {
    return 1;
}
int32_t XXFH_JAR::flush() {
    return 1;
}
