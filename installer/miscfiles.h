// The generated configuration files of an installation.
#pragma once
#include <cstdint>

// The lines of corv.ini, each written with a line feed behind it.
enum { kEnvironmentIniLines = 12 };
extern const char* const kEnvironmentIni[kEnvironmentIniLines];

// Merges the shipped alias file, makes the project file, writes corv.ini, copies the state file
// to rescue.stu and timestamps the installation. 0, or 1 when a sub-step failed.
int32_t updateMiscFiles();
// Moves "$alias.crv" to "alias.crv", or appends it to an alias file not merged before. 0 or 1.
int32_t updateAliasFile();
// Creates an empty "uproject.crv" (mode 0666) unless there is one. Always 0.
int32_t createProjectFile();
// Writes corv.ini into the bin directory. 0, or 1 when it cannot be created.
int32_t createEnvironmentIni();
