// verify_timer: runs the installer's verification pass alone over a tree that is already
// unpacked, the way the installation runs it after tar has finished.
//
//   verify_timer INSTALLDIR
//
// INSTALLDIR holds the unpacked package with its distribfilelist. The pass prints its usual
// messages and progress on standard output; its own duration goes to standard error as
// "verify_us N". The pass moves the list to a time-stamped name; it is moved back afterwards,
// so the same tree can be checked again.
#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "installer/state.h"
#include "installer/verify.h"
#include "runtime/path.h"
#include "bench/clock.h"

namespace {

// The list's time-stamped name back to "distribfilelist"; 0 when there was one to move.
int restoreList(const std::string& dir) {
    DIR* listing = opendir(dir.c_str());
    if (listing == nullptr) return 1;
    int result = 1;
    while (struct dirent* entry = readdir(listing)) {
        if (strncmp(entry->d_name, "distribfilelist.", 16) != 0) continue;
        result = rename((dir + entry->d_name).c_str(), (dir + "distribfilelist").c_str()) == 0 ? 0 : 1;
        break;
    }
    closedir(listing);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: verify_timer INSTALLDIR\n");
        return 2;
    }
    std::string dir = argv[1];
    if (dir.empty() || dir.back() != '/') dir += '/';
    resetInstallState();
    strCopyBounded(gState.installDir, dir.c_str(), kPathSize);
    long long start = nowMicros();
    int32_t result = verifyDistribution();
    long long elapsed = nowMicros() - start;
    fflush(stdout);
    fprintf(stderr, "verify_us %lld\n", elapsed);
    if (restoreList(dir) != 0) fprintf(stderr, "verify_timer: the file list was not found afterwards\n");
    return result == 0 ? 0 : 1;
}
