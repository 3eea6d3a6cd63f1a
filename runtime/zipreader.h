// ZIP archive reading for the archive-member handle class (internal to the file layer).
#pragma once
#include <cstdint>

typedef int (*ZipDecompressor)(unsigned char* dest, unsigned long* destLen, const unsigned char* source,
                               unsigned long sourceLen);

// Hash of a member name, case-insensitive; used to find directory entries.
uint32_t zipNameHash(const char* name, uint32_t length);

// 1 when the archive holds the member (or the member as a directory entry, "name/"), 0 when it
// does not, or the negative status code of reading the archive's central directory.
int32_t zipHasMember(const char* archive, const char* member);

// Reads the member whole into a fresh malloc block with a NUL byte behind the member's bytes.
// On success *data owns the block (release with free) and *length is the member's size.
int32_t zipReadMember(const char* archive, const char* member, ZipDecompressor decompress,
                      unsigned char** data, uint32_t* length);
