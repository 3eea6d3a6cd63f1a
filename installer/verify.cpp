// Verification of the unpacked distribution. Each line of the file list names a file relative
// to the installation directory, its size and the sum of its bytes; the fields are taken from
// the right, so names may hold blanks.
#include "installer/verify.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "installer/bytesum.h"
#include "installer/confine.h"
#include "installer/console.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

// One buffer serves every checksum; it grows to the largest file seen and is never shrunk.
unsigned char* gChecksumBuffer = nullptr;
int32_t gChecksumCapacity = 0;

// Decimal text as a signed 32-bit number: out-of-range values saturate, anything that is not a
// number reads as 0.
int32_t toInt32(const char* text) {
    long long value = strtoll(text, nullptr, 10);
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// Splits a line (line end already cut off) in place: checksum behind the last blank, size
// behind the blank before it, the path in front. Missing fields stay 0.
void parseRecord(char* line, ListRecord* record) {
    record->path = line;
    record->size = 0;
    record->checksum = 0;
    char* blank = strrchr(line, ' ');
    if (blank == nullptr) return;
    *blank = '\0';
    record->checksum = toInt32(blank + 1);
    blank = strrchr(line, ' ');
    if (blank == nullptr) return;
    *blank = '\0';
    record->size = toInt32(blank + 1);
}

// Byte sum of the file open on fd (closed here; -1: it could not be opened) of the given size,
// or 0xFFFFFFFF after reporting why it could not be read.
uint32_t checksumOf(int fd, const char* path, int32_t size) {
    if (size > gChecksumCapacity) {
        // The old contents are not needed, but realloc keeps the pages already touched where it
        // can (a large block is moved by remapping it): growing the buffer file by file then
        // faults in the largest file's size once, not again at every larger file.
        long long wanted = static_cast<long long>(size) + 100;
        void* grown = wanted <= INT32_MAX ? realloc(gChecksumBuffer, static_cast<size_t>(wanted)) : nullptr;
        if (grown == nullptr) free(gChecksumBuffer);
        gChecksumBuffer = static_cast<unsigned char*>(grown);
        gChecksumCapacity = gChecksumBuffer != nullptr ? static_cast<int32_t>(wanted) : 0;
        if (gChecksumBuffer == nullptr) {
            if (fd >= 0) close(fd);
            printMessage("Cannot allocation memory to check %s.", path);
            return 0xFFFFFFFFu;
        }
    }
    if (fd < 0) {
        printMessage("Cannot open file %s", path);
        return 0xFFFFFFFFu;
    }
    ssize_t count =
        gChecksumCapacity > 0 ? read(fd, gChecksumBuffer, static_cast<size_t>(gChecksumCapacity)) : 0;
    close(fd);
    if (count != size) {
        printMessage("Cannot read %s. Expected %d but only got %d.", path, size, static_cast<int>(count));
        return 0xFFFFFFFFu;
    }
    return byteSum(gChecksumBuffer, static_cast<size_t>(count));
}

}  // namespace

// A listed name must stay below the installation directory: no ".." component.
bool listNameLeavesDir(const char* path) {
    for (const char* p = path; (p = strstr(p, "..")) != nullptr; p += 2) {
        bool startsComponent = p == path || p[-1] == '/';
        bool endsComponent = p[2] == '\0' || p[2] == '/';
        if (startsComponent && endsComponent) return true;
    }
    return false;
}

int32_t readListRecord(FILE* list, char* line, ListRecord* record) {
    if (fgets(line, kListLineSize, list) == nullptr) return 0;
    auto length = static_cast<int32_t>(strlen(line));
    char* lineEnd = strchr(line, '\n');
    if (lineEnd != nullptr) *lineEnd = '\0';
    parseRecord(line, record);
    return length;
}

namespace {

// Whether the user may read and write the file open on fd: asked of the descriptor where the
// kernel can (faccessat2 with AT_EMPTY_PATH, Linux 5.8), else of the name.
bool readWriteAllowed(int fd, const char* fullPath) {
    static bool byName = false;
    if (!byName) {
        long result = syscall(SYS_faccessat2, fd, "", R_OK | W_OK, AT_EMPTY_PATH);
        if (result == 0) return true;
        if (errno != ENOSYS && errno != EINVAL) return false;
        byName = true;
    }
    return access(fullPath, R_OK | W_OK) == 0;
}

// Opens the listed file as flags say: beneath the installation directory in one system call, or,
// where the kernel leaves the name to be judged (a link that leads out, an absolute link, no
// openat2), after the kernel has resolved it to a place inside (leaves: set when it is outside).
int openListed(const char* rel, const char* fullPath, const char* installReal, int flags, bool* leaves) {
    *leaves = false;
    int fd = openBeneathRoot(gState.installDir, rel, flags, 0);
    if (fd >= 0 || !confineWalkDecides(errno)) return fd;
    char real[PATH_MAX];
    if (realpath(fullPath, real) != nullptr && !isBelowRoot(installReal, real)) {
        *leaves = true;
        return -1;
    }
    return open(fullPath, flags | O_CLOEXEC);
}

// Checks one record; 0 when it matches, 1 after reporting the mismatch. installReal is the
// canonical installation directory.
int32_t checkRecord(const ListRecord& record, const char* installReal) {
    char fullPath[kPathSize];
    int n = snprintf(fullPath, sizeof(fullPath), "%s%s", gState.installDir, record.path);
    if (n < 0 || n >= static_cast<int>(sizeof(fullPath))) {
        printMessage("Error detected in %s%s. The name is too long.", gState.installDir, record.path);
        return 1;
    }
    // A name can also leave through a link that the package brought ("up" -> "/"): where the kernel
    // resolves it to counts, not how it is spelt. The file is opened once and looked at and read
    // through that descriptor; opened for reading only when its bytes are to be summed. Opening
    // never waits for a writer nor takes a terminal, and the device nodes and FIFOs that the
    // package brought are gone by now (the sweep after unpacking).
    bool leaves = listNameLeavesDir(record.path);
    const int flags = record.checksum == 0 ? O_PATH : O_RDONLY | O_NONBLOCK | O_NOCTTY;
    int fd = leaves ? -1 : openListed(record.path, fullPath, installReal, flags, &leaves);
    // What cannot be opened for reading (a socket, a file without read permission) is still
    // looked at; its sum then fails as reading it fails.
    const bool readable = fd >= 0 && flags != O_PATH;
    if (fd < 0 && !leaves && flags != O_PATH)
        fd = openListed(record.path, fullPath, installReal, O_PATH, &leaves);
    if (leaves) {
        printMessage("Error detected in %s. The name leaves the installation directory.", fullPath);
        return 1;
    }
    if (fd < 0 || !readWriteAllowed(fd, fullPath)) {
        if (fd >= 0) close(fd);
        printMessage("Insufficient access to %s. Read/Write access is required.", fullPath);
        return 1;
    }
    struct stat info;
    if (fstat(fd, &info) != 0) {
        close(fd);
        printMessage("Cannot get stat information on %s.", fullPath);
        return 1;
    }
    // Reading a FIFO would wait for ever and reading a device would read the device.
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) {
        close(fd);
        printMessage("Error detected in %s. It is a FIFO or a device, not a regular file.", fullPath);
        return 1;
    }
    if (static_cast<long long>(record.size) != static_cast<long long>(info.st_size)) {
        close(fd);
        printMessage("Error detected in %s. Mismatched size: expected=%d actual=%d", fullPath, record.size,
                     static_cast<int>(info.st_size));
        return 1;
    }
    if (record.checksum == 0) {
        close(fd);
        return 0;
    }
    if (!readable) {
        close(fd);
        fd = -1;
    }
    uint32_t actual = checksumOf(fd, fullPath, record.size);
    if (actual != static_cast<uint32_t>(record.checksum)) {
        printMessage("Error detected in %s. Mismatched checksum: expected=%u actual=%u", fullPath,
                     static_cast<uint32_t>(record.checksum), actual);
        return 1;
    }
    return 0;
}

}  // namespace

uint32_t fileChecksum(const char* path, int32_t size) {
    // Never waits for a writer, never takes a terminal, whatever the name turns out to be.
    return checksumOf(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC), path, size);
}

int32_t verifyDistribution() {
    printf("Checking distribution files. Please wait...\n");
    char listPath[kPathSize];
    strCopyBounded(listPath, gState.installDir, kPathSize);
    strAppendBounded(listPath, kFileListName, kPathSize);
    // The list is read where it lies in the installation, not through a link that leads out of it.
    int listFd = openConfined(gState.installDir, listPath, O_RDONLY, 0);
    if (listFd == kConfineRefusedFd) return -1;
    FILE* list = listFd >= 0 ? fdopen(listFd, "r") : nullptr;
    if (list == nullptr) {
        if (listFd >= 0) close(listFd);
        printMessage("Unable to open distribution file %s", listPath);
        return -1;
    }
    struct stat info;
    if (fstat(fileno(list), &info) != 0) {
        fclose(list);
        printMessage("Cannot get size of distribution file list %s.", listPath);
        return -1;
    }
    const uint32_t totalBytes = static_cast<uint32_t>(info.st_size);
    char installReal[PATH_MAX];
    if (realpath(gState.installDir, installReal) == nullptr)
        strCopyBounded(installReal, gState.installDir, PATH_MAX);

    // The list is kept under a name that says when it was checked.
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char archiveName[kPathSize + 32];
    snprintf(archiveName, sizeof(archiveName), "%s.%04d%02d%02d%02d%02d%02d", listPath, local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);

    uint32_t lastPercent = 99999;
    uint32_t bytesRead = 0;
    int32_t result = 0;
    int32_t checked = 0;
    char line[kListLineSize];
    ListRecord record;
    for (int32_t length; (length = readListRecord(list, line, &record)) > 0;) {
        bytesRead += static_cast<uint32_t>(length);
        uint32_t percent = totalBytes > 0 ? bytesRead * 100u / totalBytes : 100u;
        if (percent != lastPercent) {
            lastPercent = percent;
            printProgress("   %d%%", static_cast<int>(percent));
        }
        if (record.size == 0 && record.checksum == 0) continue;
        if (checkRecord(record, installReal) != 0) {
            result = -1;
            break;
        }
        checked++;
    }
    // A distribution lists its own files; a list that names none is what a full disk or a cut
    // transfer leaves behind, and checking nothing must not pass for a check.
    if (result == 0 && checked == 0) {
        printMessage("Error detected in %s. It names no file to check.", listPath);
        result = -1;
    }
    if (result == 0) printProgress("%s", "");
    fclose(list);
    rename(listPath, archiveName);
    return result;
}
