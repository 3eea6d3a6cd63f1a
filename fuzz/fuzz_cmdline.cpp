// The command-line parser on argument vectors cut from the input at NUL bytes.
#include <cstring>
#include <string>
#include <vector>

#include "installer/cmdline.h"
#include "installer/state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args(1);
    for (size_t i = 0; i < size && args.size() <= 64; i++) {
        if (data[i] == '\0')
            args.emplace_back();
        else
            args.back() += static_cast<char>(data[i]);
    }
    std::vector<char*> argv(args.size() + 1);  // ends in a null pointer
    for (size_t i = 0; i < args.size(); i++) argv[i] = args[i].data();

    resetInstallState();
    gEulaBypassMarker[strlen(gEulaBypassMarker) - 1] = size % 2 ? '1' : '0';
    int32_t rc = scanCommandLine(static_cast<int>(args.size()), argv.data());
    if (rc != 0 && rc != 1) abort();
    const InstallAnswers& a = gState.answers;
    for (const char* text :
         {static_cast<const char*>(gState.osTypeOverride), a.destinationDir, a.backupDir, a.eclipseDir})
        if (memchr(text, '\0', kPathSize) == nullptr) abort();
    for (int32_t flag :
         {gState.skipVerification, gState.skipDiskSpaceCheck, gState.verbose, gState.cleanupAfterInstall})
        if (flag != 0 && flag != 1) abort();
    for (int32_t triState : {a.acceptEula, a.postInstall})
        if (triState < -1 || triState > 1) abort();
    if (!(size % 2) && a.acceptEula != -1) abort();  // not honoured without the build switch
    return 0;
}
