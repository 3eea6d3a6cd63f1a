// The process-wide installation record shared by every step.
#pragma once
#include <cstdint>

enum { kPathSize = 512, kDistribDirSize = 1024 };
// Version of the plug-in directories made in plug-in mode.
enum { kPluginMajor = 10, kPluginMinor = 0, kPluginMicro = 0 };

// Preset answers: tri-states hold -1 (not given), 0 (no) or 1 (yes).
struct InstallAnswers {
    int32_t acceptEula;
    char destinationDir[kPathSize];
    char backupDir[kPathSize];
    char eclipseDir[kPathSize];
    int32_t addProgramIcon;
    int32_t addToPath;
    int32_t associateWithTornado;
    int32_t installCygwin;
    int32_t installJdk;
    int32_t checkForRunningEditor;
    int32_t postInstall;
};

struct InstallState {
    // switches from the command line
    int32_t skipVerification;
    int32_t skipDiskSpaceCheck;
    int32_t verbose;
    int32_t cleanupAfterInstall;
    char osTypeOverride[kPathSize];

    InstallAnswers answers;

    // facts found by the steps
    char productVersion[16];
    int32_t osType;
    char osVersion[32];
    char osRelease[32];
    int32_t pluginMode;
    int32_t xServerAvailable;
    int32_t useZcat;
    char installDir[kPathSize];
    char binDir[kPathSize];
    char macrosDir[kPathSize];
    char bitmapsDir[kPathSize];
    char eclipseLocation[kPathSize];
    char eclipsePluginTarget[kPathSize];
    char answersFileName[kPathSize];
};

extern InstallState gState;
// The distribution directory (ends in "/") and the chosen package's file name; kept as
// globals of their own because the verbose traces print them under these names.
extern char gDistribDir[kDistribDirSize];
extern char distribName[kPathSize];

// Puts every field back to its start value ("/opt/corvane/" and friends, tri-states -1).
void resetInstallState();
// Sets every answer to "not given" and empties the preset paths.
void resetInstallAnswers(InstallAnswers* answers);

// Build-time switch that decides whether an agreement accepted in advance is honoured.
// Read afresh on every call from the marker text in writable data.
int32_t eulaBypassEnabled();
extern char gEulaBypassMarker[];
