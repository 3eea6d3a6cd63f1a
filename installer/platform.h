// Operating-system detection and the choice of the distribution package.
#pragma once
#include <cstdint>

enum OsType {
    kOsUnknown = 0,
    kOsLinux = 1,
    kOsOs390 = 2,
    kOsAix = 3,
    kOsHpux = 4,
    kOsSunos = 5,
    kOsSolaris = 6,
    kOsIntelSolaris = 7,
    kOsSco = 8,
    kOsIrix = 9,
    kOsDigitalUnix = 10
};

int32_t detectPlatform();
int32_t choosePackage();
// Display name of an operating-system code ("unknown" for 0 and out-of-range codes).
const char* osDisplayName(int32_t osType);
