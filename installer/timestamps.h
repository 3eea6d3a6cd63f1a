// Timestamps of installed files.
#pragma once
#include <cstdint>

// Creates directory/name empty when missing, else sets its times to now. 0, or 1 when the
// times could not be set.
int32_t touchFile(const char* directory, const char* name);
// Touches the entries of directory named exactName or ending in extension1 or extension2
// (each may be null or empty). 0, or 1 when the directory cannot be read.
int32_t timestampFiles(const char* directory, const char* extension1, const char* extension2,
                       const char* exactName);
// Touches the macro sources, the state file and the compiled resources. 0 or 1.
int32_t timestampInstallation();
