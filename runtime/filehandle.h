// Handle-based file access over the XXFH class family.
#pragma once
#include <cstdint>

int32_t fileOpen(const char* path, int32_t mode);
int32_t fileWrite(int32_t handle, const void* buffer, uint32_t count);
int32_t fileRead(int32_t handle, void* buffer, uint32_t count);
int32_t fileSeek(int32_t handle, int32_t offset, int32_t whence);
int32_t fileClose(int32_t handle, int32_t flags);
int32_t fileTruncate(int32_t handle);
int32_t fileFlush(int32_t handle);
// Reads a whole file into a fresh NUL-terminated block; the caller releases it with libFree.
int32_t fileReadAll(const char* path, char** buffer, int32_t* length, int32_t keepEof, int32_t reuse);
// Registers the routine that inflates archive members (zlib's uncompress fits);
// null switches archive access off.
void fileSetArchiveDecompressor(int (*fn)(unsigned char* dest, unsigned long* destLen,
                                          const unsigned char* source, unsigned long sourceLen));

// Maps an errno value to a status code; unknown values give defaultCode.
int32_t fileMapErrno(int err, int32_t defaultCode);
// Tries to take one byte of fd for this reader (non-blocking exclusive lockf at offsets 0..1999,
// first one that is free), then seeks back to 0. Returns the offset taken, or -1 when none was
// (always so on a descriptor that is not open for writing).
int32_t fileLockReaderByte(int fd);
// For a path that names an archive member (with archive access on): 1 when the archive holds
// the member, 0 when it does not. -1 when the path does not name an archive member.
int32_t fileArchiveMemberExists(const char* path);

class XXFH {
public:
    XXFH();
    virtual ~XXFH();
    virtual int32_t open(const char* path, int32_t mode) = 0;
    virtual int32_t write(const void* buffer, uint32_t count) = 0;
    virtual int32_t read(void* buffer, uint32_t count) = 0;
    virtual int32_t seek(int32_t offset, int32_t whence) = 0;
    virtual int32_t close(int32_t flags) = 0;
    virtual int32_t truncate() = 0;
    virtual int32_t flush() = 0;
    virtual int32_t control1();
    virtual int32_t control2();

    char path[512];
};

class XXFH_POSIX : public XXFH {
public:
    explicit XXFH_POSIX(int fd = -1);
    int32_t open(const char* path, int32_t mode) override;
    int32_t write(const void* buffer, uint32_t count) override;
    int32_t read(void* buffer, uint32_t count) override;
    int32_t seek(int32_t offset, int32_t whence) override;
    int32_t close(int32_t flags) override;
    int32_t truncate() override;
    int32_t flush() override;

    int fd;
};

class XXFH_JAR : public XXFH {
public:
    XXFH_JAR();
    ~XXFH_JAR() override;
    // Opens member `member` of the ZIP archive `archive` (mode must be 0).
    int32_t openMember(const char* archive, const char* member, int32_t mode);
    int32_t open(const char* path, int32_t mode) override;
    int32_t write(const void* buffer, uint32_t count) override;
    int32_t read(void* buffer, uint32_t count) override;
    int32_t seek(int32_t offset, int32_t whence) override;
    int32_t close(int32_t flags) override;
    int32_t truncate() override;
    int32_t flush() override;

    unsigned char* data;
    uint32_t length;
    int64_t position;
};
