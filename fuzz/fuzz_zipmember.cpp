// The ZIP member reader: a member name from the front of the input, reads and seeks from its
// back, the archive in between, with zlib's uncompress registered as the decompressor.
#include <fuzzer/FuzzedDataProvider.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/scratch.h"
#include "runtime/filehandle.h"
#include "runtime/pool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fileSetArchiveDecompressor(uncompress);
    FuzzedDataProvider in(data, size);
    std::string path = scratchDir() + "a.zip/" + in.ConsumeRandomLengthString(300);
    std::vector<uint8_t> ops = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 40));
    std::vector<uint8_t> archive = in.ConsumeRemainingBytes<uint8_t>();
    writeScratch("a.zip", archive.data(), archive.size());
    // A member that opens exists and reads whole (a directory entry only exists).
    int32_t exists = fileArchiveMemberExists(path.c_str()), length = 0;
    char* whole = nullptr;
    int32_t readAll = fileReadAll(path.c_str(), &whole, &length, 1, 0);
    int32_t handle = fileOpen(path.c_str(), 0);
    if (exists != 0 && exists != 1) abort();
    if ((handle >= 0) != (readAll == 0)) abort();
    if (handle >= 0 && !exists) abort();
    if (handle < 0) return 0;
    // Each op is 5 bytes: what (read, seek from start, current or end), then a 32-bit amount.
    int64_t position = 0;
    for (size_t at = 0; at + 5 <= ops.size(); at += 5) {
        int32_t amount, whence = ops[at] % 4 - 1;
        memcpy(&amount, &ops[at + 1], 4);
        if (whence < 0) {
            char buffer[512];
            uint32_t count = static_cast<uint32_t>(amount) % (sizeof buffer + 1);
            int64_t expected =
                position >= 0 && position < length ? std::min<int64_t>(count, length - position) : 0;
            int32_t got = fileRead(handle, buffer, count);
            if (got != expected) abort();
            if (got > 0 && memcmp(buffer, whole + position, got) != 0) abort();
            position += got;
        } else {
            position = (whence == 0 ? 0 : whence == 1 ? position : length) + int64_t(amount);
            if (fileSeek(handle, amount, whence) != static_cast<int32_t>(position)) abort();
        }
    }
    if (fileClose(handle, 0) != 0) abort();
    if (whole[length] != '\0') abort();
    libFree(whole);
    return 0;
}
