// Reads members of ZIP (and JAR) archives: end record, central directory, local header, and the
// member's bytes, stored or deflated. Every length taken from the archive is checked against the
// block or the file it points into before it is used.
#include "runtime/zipreader.h"

#include "runtime/filehandle.h"
#include "runtime/status.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

const int32_t kTailBlock = 4096;
const int32_t kEndRecordSize = 22;
const int32_t kCentralHeaderSize = 46;
const int32_t kLocalHeaderSize = 30;
const uint32_t kEndSignature = 0x06054b50;
const uint32_t kLocalSignature = 0x04034b50;
// Deflate cannot expand a byte into more than 1032; a larger claim is a corrupt header.
const int64_t kMaxDeflateRatio = 1032;

uint16_t get16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t get32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

struct ZipEntry {
    const unsigned char* name;
    uint32_t nameLength;
    uint16_t method;
    uint32_t compressedSize;
    uint32_t size;
    uint32_t localOffset;
    uint32_t hash;
    int32_t next;  // next entry in the same hash bucket, -1 at the end
};

struct ZipDirectory {
    XXFH_POSIX file;
    int64_t fileSize = 0;
    unsigned char* block = nullptr;
    int32_t blockLength = 0;
    ZipEntry* entries = nullptr;
    int32_t count = 0;
    int32_t* buckets = nullptr;
    uint32_t bucketCount = 0;

    ~ZipDirectory() {
        if (file.fd >= 0) file.close(-1);
        free(block);
        free(entries);
        free(buckets);
    }
};

// Reads exactly n bytes unless the file ends first; the count read or a negative code.
int32_t readFully(XXFH_POSIX& file, void* buffer, int32_t n) {
    int32_t done = 0;
    while (done < n) {
        int32_t got = file.read(static_cast<unsigned char*>(buffer) + done, static_cast<uint32_t>(n - done));
        if (got < 0) return got;
        if (got == 0) break;
        done += got;
    }
    return done;
}

int32_t seekTo(XXFH_POSIX& file, int64_t offset) {
    int32_t rc = file.seek(static_cast<int32_t>(offset), 0);
    return rc < 0 ? rc : 0;
}

// Finds the end record in the last 4096 bytes. Offset 0 of the block is not examined.
int32_t readEndRecord(ZipDirectory& dir, unsigned char* record) {
    int32_t end = dir.file.seek(0, 2);
    if (end < 0) return end;
    dir.fileSize = end;
    int64_t start = end > kTailBlock ? end - kTailBlock : 0;
    int32_t rc = seekTo(dir.file, start);
    if (rc < 0) return rc;
    unsigned char tail[kTailBlock];
    int32_t got = readFully(dir.file, tail, kTailBlock);
    if (got < 0) return got;
    for (int32_t i = got - kEndRecordSize; i >= 1; --i) {
        if (get32(tail + i) == kEndSignature) {
            memcpy(record, tail + i, kEndRecordSize);
            return 0;
        }
    }
    return kNotAnArchive;
}

int32_t loadDirectory(const char* archive, ZipDirectory& dir) {
    int32_t rc = dir.file.open(archive, 0);
    if (rc < 0) return rc;
    unsigned char record[kEndRecordSize];
    rc = readEndRecord(dir, record);
    if (rc < 0) return rc;

    int32_t count = get16(record + 8);
    int64_t offset = get32(record + 16);
    int64_t length = dir.fileSize - offset - kEndRecordSize;
    if (offset > dir.fileSize || length < 0 || static_cast<int64_t>(count) * kCentralHeaderSize > length)
        return kCorruptDirectory;

    dir.block = static_cast<unsigned char*>(malloc(static_cast<size_t>(length) + 1));
    dir.entries = static_cast<ZipEntry*>(malloc(sizeof(ZipEntry) * (static_cast<size_t>(count) + 1)));
    dir.bucketCount = 16;
    while (dir.bucketCount < static_cast<uint32_t>(count)) dir.bucketCount *= 2;
    dir.buckets = static_cast<int32_t*>(malloc(sizeof(int32_t) * dir.bucketCount));
    if (!dir.block || !dir.entries || !dir.buckets) return kOutOfMemory;
    for (uint32_t b = 0; b < dir.bucketCount; ++b) dir.buckets[b] = -1;

    rc = seekTo(dir.file, offset);
    if (rc < 0) return rc;
    int32_t got = readFully(dir.file, dir.block, static_cast<int32_t>(length));
    if (got < 0) return got;
    dir.blockLength = got;

    // Entries follow each other at 46 + name + extra bytes; an entry's comment is not skipped.
    int64_t at = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (at + kCentralHeaderSize > dir.blockLength) return kCorruptDirectory;
        const unsigned char* h = dir.block + at;
        uint32_t nameLength = get16(h + 28);
        uint32_t extraLength = get16(h + 30);
        if (at + kCentralHeaderSize + nameLength + extraLength > dir.blockLength) return kCorruptDirectory;
        ZipEntry& e = dir.entries[i];
        e.name = h + kCentralHeaderSize;
        e.nameLength = nameLength;
        e.method = get16(h + 10);
        e.compressedSize = get32(h + 20);
        e.size = get32(h + 24);
        e.localOffset = get32(h + 42);
        e.hash = zipNameHash(reinterpret_cast<const char*>(e.name), nameLength);
        uint32_t b = e.hash & (dir.bucketCount - 1);
        e.next = dir.buckets[b];
        dir.buckets[b] = i;
        dir.count = i + 1;
        at += kCentralHeaderSize + nameLength + extraLength;
    }
    return 0;
}

bool sameName(const ZipEntry& e, const char* name, uint32_t length, bool exact) {
    if (e.nameLength != length) return false;
    if (exact) return memcmp(e.name, name, length) == 0;
    for (uint32_t i = 0; i < length; ++i)
        if (tolower(e.name[i]) != tolower(static_cast<unsigned char>(name[i]))) return false;
    return true;
}

// Names are matched without regard to case; an exact match wins over one that differs in case.
const ZipEntry* findEntry(const ZipDirectory& dir, const char* name, uint32_t length) {
    uint32_t hash = zipNameHash(name, length);
    for (int pass = 0; pass < 2; ++pass) {
        for (int32_t i = dir.buckets[hash & (dir.bucketCount - 1)]; i >= 0; i = dir.entries[i].next) {
            const ZipEntry& e = dir.entries[i];
            if (e.hash == hash && sameName(e, name, length, pass == 0)) return &e;
        }
    }
    return nullptr;
}

int32_t readStored(ZipDirectory& dir, const ZipEntry& e, unsigned char** data, uint32_t* length) {
    if (e.compressedSize != e.size) return kBadMethod;
    unsigned char* bytes = static_cast<unsigned char*>(malloc(static_cast<size_t>(e.size) + 1));
    if (!bytes) return kOutOfMemory;
    int32_t got = readFully(dir.file, bytes, static_cast<int32_t>(e.size));
    if (got < 0 || static_cast<uint32_t>(got) != e.size) {
        free(bytes);
        return got < 0 ? got : kReadFailed;
    }
    bytes[e.size] = 0;
    *data = bytes;
    *length = e.size;
    return 0;
}

// The raw deflate data gets a zlib stream header in front so that a routine of the form of
// zlib's uncompress takes it. There is no adler32 trailer behind it, so such a routine reports
// an incomplete stream even when it produced every byte; the produced length decides.
int32_t readDeflated(ZipDirectory& dir, const ZipEntry& e, ZipDecompressor decompress, unsigned char** data,
                     uint32_t* length) {
    if (!decompress) return kArchiveAccessOff;
    if (static_cast<int64_t>(e.size) > (static_cast<int64_t>(e.compressedSize) + 1) * kMaxDeflateRatio)
        return kBadMethod;
    int32_t sourceLength = static_cast<int32_t>(e.compressedSize) + 2;
    unsigned char* source = static_cast<unsigned char*>(malloc(static_cast<size_t>(sourceLength)));
    if (!source) return kOutOfMemory;
    source[0] = 0x78;
    source[1] = 0x9C;
    int32_t got = readFully(dir.file, source + 2, static_cast<int32_t>(e.compressedSize));
    if (got < 0 || static_cast<uint32_t>(got) != e.compressedSize) {
        free(source);
        return got < 0 ? got : kReadFailed;
    }
    unsigned char* bytes = static_cast<unsigned char*>(malloc(static_cast<size_t>(e.size) + 3));
    if (!bytes) {
        free(source);
        return kOutOfMemory;
    }
    unsigned long produced = static_cast<unsigned long>(e.size) + 2;
    decompress(bytes, &produced, source, static_cast<unsigned long>(sourceLength));
    free(source);
    if (produced != e.size) {
        free(bytes);
        return kBadMethod;
    }
    bytes[e.size] = 0;
    *data = bytes;
    *length = e.size;
    return 0;
}

}  // namespace

uint32_t zipNameHash(const char* name, uint32_t length) {
    uint32_t h = 0;
    for (uint32_t i = 0; i < length; ++i) {
        h = (h << 4) + static_cast<uint32_t>(tolower(static_cast<unsigned char>(name[i])));
        uint32_t g = h & 0xf0000000u;
        if (g) h = h ^ (g >> 24) ^ g;
    }
    return h;
}

int32_t zipHasMember(const char* archive, const char* member) {
    ZipDirectory dir;
    int32_t rc = loadDirectory(archive, dir);
    if (rc < 0) return rc;
    uint32_t length = static_cast<uint32_t>(strlen(member));
    if (findEntry(dir, member, length)) return 1;
    // A directory may only be recorded as "name/".
    char slashed[512];
    if (length + 2 > sizeof slashed) return 0;
    memcpy(slashed, member, length);
    slashed[length] = '/';
    slashed[length + 1] = 0;
    return findEntry(dir, slashed, length + 1) ? 1 : 0;
}

int32_t zipReadMember(const char* archive, const char* member, ZipDecompressor decompress,
                      unsigned char** data, uint32_t* length) {
    *data = nullptr;
    *length = 0;
    ZipDirectory dir;
    int32_t rc = loadDirectory(archive, dir);
    if (rc < 0) return rc;
    const ZipEntry* e = findEntry(dir, member, static_cast<uint32_t>(strlen(member)));
    if (!e) return kFileNotFound;

    // Local header: 30 fixed bytes, then its own name and extra field, then the data.
    if (static_cast<int64_t>(e->localOffset) + kLocalHeaderSize > dir.fileSize) return kCorruptDirectory;
    rc = seekTo(dir.file, e->localOffset);
    if (rc < 0) return rc;
    unsigned char local[kLocalHeaderSize];
    int32_t got = readFully(dir.file, local, kLocalHeaderSize);
    if (got < 0) return got;
    if (got != kLocalHeaderSize || get32(local) != kLocalSignature) return kCorruptDirectory;
    int64_t dataOffset =
        static_cast<int64_t>(e->localOffset) + kLocalHeaderSize + get16(local + 26) + get16(local + 28);
    if (dataOffset + e->compressedSize > dir.fileSize) return kReadFailed;
    if (e->size > 0x7ffffff0u) return kOutOfMemory;
    rc = seekTo(dir.file, dataOffset);
    if (rc < 0) return rc;

    if (e->method == 0) return readStored(dir, *e, data, length);
    if (e->method == 8) return readDeflated(dir, *e, decompress, data, length);
    return kBadMethod;
}
