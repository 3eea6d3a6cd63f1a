// Generic reader for INI-style configuration files.
#pragma once
#include <cstdint>

enum { kIniKeySize = 1024 };

// Reads a whole file (final Ctrl-Z dropped) into a NUL-terminated block released with libFree.
// 0, or a negative status code with nothing allocated.
int32_t readWholeFile(const char* path, char** text, int32_t* length);
// Position just behind the header line of the first section called name (case-insensitive), or -1.
int32_t findIniSection(const char* text, const char* name);
// Next "key=value" entry of the section from *pos; key gets at most 1023 characters
// (upper-cased when upperCase is set), value at most valueSize - 1. 0, or -1 at the section end.
int32_t nextIniEntry(const char* text, int32_t* pos, char* key, char* value, int32_t valueSize,
                     int32_t upperCase);
