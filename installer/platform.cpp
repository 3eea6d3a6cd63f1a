// Operating-system detection through "uname" (or the "-o" override) and the choice of the
// distribution package that lies in the distribution directory.
#include "installer/platform.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "installer/console.h"
#include "installer/state.h"
#include "runtime/path.h"

namespace {

// Every command below answers with one short line; 512 bytes hold any of them.
enum { kCaptureSize = 512 };

// Returned when a release query fails after the system type was recognised.
enum { kReleaseQueryFailed = 9999 };

const char* const kOsDisplayNames[] = {
    "unknown", "Linux",         "OS/390",         "AIX",  "HP-UX",        "SunOS",
    "Solaris", "Intel Solaris", "SCO OpenServer", "IRIX", "Digital Unix",
};

struct OverrideKey {
    const char* key;
    int32_t osType;
};

const OverrideKey kOverrideKeys[] = {
    {"linux", kOsLinux},
    {"os390", kOsOs390},
    {"aix", kOsAix},
    {"hpux", kOsHpux},
    {"sunos", kOsSunos},
    {"solaris", kOsSolaris},
    {"isolaris", kOsIntelSolaris},
    {"sco", kOsSco},
    {"irix", kOsIrix},
    {"osf1", kOsDigitalUnix},
};

// Copies field n of text (a missing field gives an empty text) into out.
void copyField(char* out, int32_t size, const char* text, int32_t n, char sep) {
    const char* field = fieldOf(text, n, sep);
    strCopyBounded(out, field ? field : "", size);
}

// out = field a + "." + field b, as the dotted releases of several systems are kept.
void joinFields(char* out, int32_t size, const char* text, int32_t a, int32_t b, char sep) {
    char second[kCaptureSize + 1];
    copyField(out, size, text, a, sep);
    copyField(second, sizeof(second), text, b, sep);
    strAppendBounded(out, ".", size);
    strAppendBounded(out, second, size);
}

void markReleaseUnknown() {
    strCopyBounded(gState.osVersion, "0", sizeof(gState.osVersion));
    strCopyBounded(gState.osRelease, "0", sizeof(gState.osRelease));
}

int32_t detectFromOverride() {
    char key[kPathSize];
    copyField(key, sizeof(key), gState.osTypeOverride, 1, '-');
    toLowerInPlace(key);
    for (const OverrideKey& entry : kOverrideKeys) {
        if (strcmp(entry.key, key) != 0) continue;
        gState.osType = entry.osType;
        copyField(gState.osVersion, sizeof(gState.osVersion), gState.osTypeOverride, 2, '-');
        copyField(gState.osRelease, sizeof(gState.osRelease), gState.osTypeOverride, 3, '-');
        return 0;
    }
    return 20;
}

int32_t detectSunos() {
    char release[kCaptureSize + 1];
    if (runCommandCapture("uname -r", release, kCaptureSize) != 0) return 8;
    copyField(gState.osVersion, sizeof(gState.osVersion), release, 1, '.');
    if (strcmp(gState.osVersion, "4") == 0) {
        gState.osType = kOsSunos;
        joinFields(gState.osRelease, sizeof(gState.osRelease), release, 2, 3, '.');
        return 0;
    }
    char all[kCaptureSize + 1];
    if (runCommandCapture("uname -a", all, kCaptureSize) != 0) return 8;
    int intel = strstr(all, "386") != nullptr || strstr(all, "i86") != nullptr;
    gState.osType = intel ? kOsIntelSolaris : kOsSolaris;
    copyField(gState.osRelease, sizeof(gState.osRelease), release, 2, '.');
    return 0;
}

}  // namespace

const char* osDisplayName(int32_t osType) {
    const int32_t count = static_cast<int32_t>(sizeof(kOsDisplayNames) / sizeof(kOsDisplayNames[0]));
    if (osType < 0 || osType >= count) return kOsDisplayNames[0];
    return kOsDisplayNames[osType];
}

int32_t detectPlatform() {
    if (gState.osTypeOverride[0] != '\0') return detectFromOverride();

    char name[kCaptureSize + 1];
    if (runCommandCapture("uname", name, kCaptureSize) != 0) return 1;
    toLowerInPlace(name);

    char release[kCaptureSize + 1];
    char* version = gState.osVersion;
    char* rel = gState.osRelease;
    const int32_t vsize = sizeof(gState.osVersion);
    const int32_t rsize = sizeof(gState.osRelease);

    if (strcmp(name, "linux") == 0) {
        gState.osType = kOsLinux;
        if (runCommandCapture("uname -r", release, kCaptureSize) != 0) {
            markReleaseUnknown();
            return kReleaseQueryFailed;
        }
        copyField(version, vsize, release, 1, '.');
        joinFields(rel, rsize, release, 2, 3, '.');
    } else if (strcmp(name, "os/390") == 0) {
        gState.osType = kOsOs390;
        char level[kCaptureSize + 1];
        if (runCommandCapture("uname -v", level, kCaptureSize) != 0 ||
            runCommandCapture("uname -r", release, kCaptureSize) != 0) {
            markReleaseUnknown();
            return kReleaseQueryFailed;
        }
        strCopyBounded(version, level, vsize);
        strCopyBounded(rel, release, rsize);
    } else if (strcmp(name, "aix") == 0) {
        gState.osType = kOsAix;
        char level[kCaptureSize + 1];
        if (runCommandCapture("uname -v", level, kCaptureSize) != 0) return 5;
        strCopyBounded(version, level, vsize);
        if (runCommandCapture("uname -r", release, kCaptureSize) != 0) return 6;
        strCopyBounded(rel, release, rsize);
    } else if (strcmp(name, "hp-ux") == 0) {
        gState.osType = kOsHpux;
        if (runCommandCapture("uname -r", release, kCaptureSize) != 0) {
            markReleaseUnknown();
            return kReleaseQueryFailed;
        }
        copyField(version, vsize, release, 2, '.');
        copyField(rel, rsize, release, 3, '.');
    } else if (strcmp(name, "sunos") == 0) {
        return detectSunos();
    } else if (strcmp(name, "sco_sv") == 0) {
        gState.osType = kOsSco;
        // The release query of this system is "name -r", not "uname -r".
        if (runCommandCapture("name -r", release, kCaptureSize) != 0) {
            markReleaseUnknown();
            return kReleaseQueryFailed;
        }
        copyField(version, vsize, release, 1, '.');
        copyField(rel, rsize, release, 2, '.');
    } else if (strcmp(name, "osf1") == 0) {
        gState.osType = kOsDigitalUnix;
        if (runCommandCapture("uname -r", release, kCaptureSize) != 0) {
            markReleaseUnknown();
            return kReleaseQueryFailed;
        }
        char major[kCaptureSize + 1];
        copyField(major, sizeof(major), release, 1, '.');
        strCopyBounded(version, major[0] == 'V' ? major + 1 : major, vsize);
        copyField(rel, rsize, release, 2, '.');
    } else if (strcmp(name, "irix") == 0) {
        gState.osType = kOsIrix;
        if (runCommandCapture("uname -r", release, kCaptureSize) != 0) {
            markReleaseUnknown();
            return kReleaseQueryFailed;
        }
        copyField(version, vsize, release, 1, '.');
        copyField(rel, rsize, release, 2, '.');
    } else {
        return 12;
    }
    return 0;
}

int32_t choosePackage() {
    // Probe order matters: the first name found wins.
    static const char* const kCandidates[] = {"cvpackd", "cvpackepd", "cvpacku", "cvpackep", "cvpack"};
    const size_t dirLength = strlen(gDistribDir);
    const char* slash = dirLength > 0 && gDistribDir[dirLength - 1] == '/' ? "" : "/";

    gState.pluginMode = 0;
    for (const char* candidate : kCandidates) {
        char probe[kPathSize];
        int n = snprintf(probe, sizeof(probe), "%s%s%s", gDistribDir, slash, candidate);
        // A name that does not fit would be a different file: it cannot be the package.
        if (n < 0 || n >= static_cast<int>(sizeof(probe))) continue;
        struct stat info;
        if (stat(probe, &info) != 0) continue;
        if (strcmp(candidate, "cvpackepd") == 0 || strcmp(candidate, "cvpackep") == 0) gState.pluginMode = 1;
        strCopyBounded(distribName, candidate, kPathSize);
        return 0;
    }
    printMessage("Missing distribution file.");
    printMessage("Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in %s.", gDistribDir);
    printMessage("Make sure the files are in lowercase.");
    return 1;
}
