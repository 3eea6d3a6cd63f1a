// Verification of the unpacked distribution. Each line of the file list names a file relative
// to the installation directory, its size and the sum of its bytes; the fields are taken from
// the right, so names may hold blanks.
#include "installer/verify.h"

#include <fcntl.h>
#include <sys/stat.h>
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
    // resolves it to counts, not how it is spelt.
    char real[PATH_MAX];
    if (listNameLeavesDir(record.path) ||
        (realpath(fullPath, real) != nullptr && !isBelowRoot(installReal, real))) {
        printMessage("Error detected in %s. The name leaves the installation directory.", fullPath);
        return 1;
    }
    if (access(fullPath, R_OK | W_OK) != 0) {
        printMessage("Insufficient access to %s. Read/Write access is required.", fullPath);
        return 1;
    }
    struct stat info;
    if (stat(fullPath, &info) != 0) {
        printMessage("Cannot get stat information on %s.", fullPath);
        return 1;
    }
    // Reading a FIFO would wait for ever and reading a device would read the device.
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) {
        printMessage("Error detected in %s. It is a FIFO or a device, not a regular file.", fullPath);
        return 1;
    }
    if (static_cast<long long>(record.size) != static_cast<long long>(info.st_size)) {
        printMessage("Error detected in %s. Mismatched size: expected=%d actual=%d", fullPath, record.size,
                     static_cast<int>(info.st_size));
        return 1;
    }
    if (record.checksum == 0) return 0;
    uint32_t actual = fileChecksum(fullPath, record.size);
    if (actual != static_cast<uint32_t>(record.checksum)) {
        printMessage("Error detected in %s. Mismatched checksum: expected=%u actual=%u", fullPath,
                     static_cast<uint32_t>(record.checksum), actual);
        return 1;
    }
    return 0;
}

}  // namespace

uint32_t fileChecksum(const char* path, int32_t size) {
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
            printMessage("Cannot allocation memory to check %s.", path);
            return 0xFFFFFFFFu;
        }
    }
    // Never waits for a writer, never takes a terminal, whatever the name turns out to be.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
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

int32_t verifyDistribution() {
    printf("Checking distribution files. Please wait...\n");
    char listPath[kPathSize];
    strCopyBounded(listPath, gState.installDir, kPathSize);
    strAppendBounded(listPath, kFileListName, kPathSize);
    FILE* list = fopen(listPath, "r");
    if (list == nullptr) {
        printMessage("Unable to open distribution file %s", listPath);
        return -1;
    }
    struct stat info;
    if (stat(listPath, &info) != 0) {
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
    }
    if (result == 0) printProgress("%s", "");
    fclose(list);
    rename(listPath, archiveName);
    return result;
}
