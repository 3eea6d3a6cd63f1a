// SHA-256 digests for the release tools, computed by OpenSSL's libcrypto.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

enum { kSha256HexSize = 65 };  // 64 lower-case hex digits and the NUL

// Digest of size bytes at data, as lower-case hex.
void sha256Hex(const void* data, size_t size, char hex[kSha256HexSize]);
// Digest of the file's contents, read from an open descriptor (which stays open). Returns 0, or
// -1 with errno set when the file cannot be read. Safe to call from several threads at once.
int32_t sha256Descriptor(int fd, char hex[kSha256HexSize]);
// The same for a file opened by path (following symbolic links).
int32_t sha256File(const char* path, char hex[kSha256HexSize]);
// One line in the format of coreutils' sha256sum ("<hex>  <name>\n"); names holding a line
// break or a backslash are escaped with a leading "\" as sha256sum does.
std::string sha256SumLine(const char* hex, const std::string& name);
