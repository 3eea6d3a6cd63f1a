// The verification step's file-list parser: arbitrary bytes as "distribfilelist" of an
// installation directory that holds a few real files for the records to match.
#include <sys/stat.h>

#include <filesystem>

#include "fuzz/scratch.h"
#include "installer/state.h"
#include "installer/verify.h"
#include "runtime/path.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // bin/cv: 10 bytes, byte sum 704; "a b.txt": 3 bytes, 294; "empty": 0 bytes.
    std::filesystem::create_directories(scratchDir() + "inst/bin");
    writeScratch("inst/bin/cv", reinterpret_cast<const uint8_t*>("#!/bin/sh\n"), 10);
    writeScratch("inst/a b.txt", reinterpret_cast<const uint8_t*>("abc"), 3);
    writeScratch("inst/empty", nullptr, 0);
    // What a hostile package leaves: a link out of the directory and a FIFO. Neither may be read.
    if (symlink("/", (scratchDir() + "inst/up").c_str()) != 0) abort();
    if (mkfifo((scratchDir() + "inst/pipe").c_str(), 0600) != 0) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string listPath = writeScratch("inst/distribfilelist", data, size);
    strCopyBounded(gState.installDir, (scratchDir() + "inst/").c_str(), kPathSize);
    int32_t rc = verifyDistribution();
    if (rc != 0 && rc != -1) abort();
    if (access(listPath.c_str(), F_OK) == 0) abort();  // checked lists are renamed
    // The renamed lists carry the time of the check; drop them so that they do not pile up.
    for (const auto& entry : std::filesystem::directory_iterator(gState.installDir))
        if (entry.path().filename().string().rfind("distribfilelist.", 0) == 0)
            std::filesystem::remove(entry);
    return 0;
}
