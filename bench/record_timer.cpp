// record_timer: runs the installer's closing step alone, the record of what the installation made
// (installer/maderecord.h), over a tree that is already installed, to measure what it adds to an
// installation.
//
//   record_timer INSTALLDIR
//
// INSTALLDIR holds an installation with its dated list. The mark is taken first, as the
// installation takes it once it holds the lock; its wait for the clock is not timed. The step's
// duration goes to standard error as "record_us N".
#include <cstdio>
#include <ctime>

#include "installer/fileutil.h"
#include "installer/maderecord.h"
#include "installer/state.h"
#include "runtime/path.h"
#include "bench/clock.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: record_timer INSTALLDIR\n");
        return 2;
    }
    resetInstallState();
    strCopyBounded(gState.installDir, argv[1], kPathSize);
    appendSlash(gState.installDir);
    markInstallationStart();
    long long start = nowMicros();
    int32_t result = recordMadeFiles();
    fprintf(stderr, "record_us %lld\n", nowMicros() - start);
    return result;
}
