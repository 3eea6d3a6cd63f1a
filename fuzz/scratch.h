// Per-process scratch directory for the targets that read their input from a file.
#pragma once
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

// Made on first use under $TMPDIR, else in memory (/dev/shm) where there is one, else /tmp;
// removed with everything in it at exit. Ends in "/".
inline const std::string& scratchDir() {
    static std::string dir;
    if (dir.empty()) {
        const char* base = getenv("TMPDIR");
        if (base == nullptr || *base == '\0') base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = std::string(base) + "/cvfuzz.XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) abort();
        dir = pattern + "/";
        atexit([] { std::filesystem::remove_all(scratchDir()); });
    }
    return dir;
}

// Writes the bytes to name inside the scratch directory and answers the full path.
inline std::string writeScratch(const char* name, const uint8_t* data, size_t size) {
    std::string path = scratchDir() + name;
    // A fresh file each time: truncating one that has data makes ext4 flush it on close.
    unlink(path.c_str());
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr || fwrite(data, 1, size, file) != size || fclose(file) != 0) abort();
    return path;
}
