// SHA-256 through libcrypto's EVP interface; nothing of the digest is written here.
#include "tools/common/sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

void toHex(const unsigned char* digest, unsigned int length, char hex[kSha256HexSize]) {
    static const char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < length && i < 32; i++) {
        hex[2 * i] = kDigits[digest[i] >> 4];
        hex[2 * i + 1] = kDigits[digest[i] & 15];
    }
    hex[64] = '\0';
}

}  // namespace

void sha256Hex(const void* data, size_t size, char hex[kSha256HexSize]) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data, size, digest, &length, EVP_sha256(), nullptr);
    toHex(digest, length, hex);
}

int32_t sha256Descriptor(int fd, char hex[kSha256HexSize]) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr || EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context);
        errno = ENOMEM;
        return -1;
    }
    // One block per thread: the checker digests files on several threads at once.
    thread_local unsigned char block[1 << 17];
    for (;;) {
        ssize_t n = read(fd, block, sizeof(block));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int saved = errno;
            EVP_MD_CTX_free(context);
            errno = saved;
            return -1;
        }
        if (n == 0) break;
        EVP_DigestUpdate(context, block, (size_t)n);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context, digest, &length);
    EVP_MD_CTX_free(context);
    toHex(digest, length, hex);
    return 0;
}

int32_t sha256File(const char* path, char hex[kSha256HexSize]) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    int32_t result = sha256Descriptor(fd, hex);
    int saved = errno;
    close(fd);
    errno = saved;
    return result;
}

std::string sha256SumLine(const char* hex, const std::string& name) {
    std::string escaped;
    bool escape = false;
    for (char c : name) {
        if (c == '\\') {
            escaped += "\\\\";
            escape = true;
        } else if (c == '\n') {
            escaped += "\\n";
            escape = true;
        } else {
            escaped += c;
        }
    }
    return (escape ? "\\" : "") + std::string(hex) + "  " + escaped + "\n";
}
