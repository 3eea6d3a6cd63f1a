// Timestamps of installed files.
#pragma once
#include <cstdint>

// Creates directory/name empty when missing, else sets its times to now. The file is reached from
// the installation directory without following a link out of it. 0, or 1 when the times could not
// be set or the file was refused.
int32_t touchFile(const char* directory, const char* name);
// Touches the entries of directory named exactName or ending in extension1 or extension2
// (each may be null or empty). 0, or 1 when the directory cannot be read or is reached through a
// link out of the installation directory.
int32_t timestampFiles(const char* directory, const char* extension1, const char* extension2,
                       const char* exactName);
// Touches the macro sources, the state file and the compiled resources. 0 or 1.
int32_t timestampInstallation();
