// Checking the unpacked tree against the distribution's file list.
#pragma once
#include <cstdint>

// Checks every file named in installDir/distribfilelist for size and byte sum, then moves the
// list to a name carrying the local time. 0 when all matched, -1 otherwise (reported here).
int32_t verifyDistribution();
// Byte sum of a file of the given size, or 0xFFFFFFFF after reporting why it could not be read.
uint32_t fileChecksum(const char* path, int32_t size);
