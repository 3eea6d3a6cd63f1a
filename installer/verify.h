// Checking the unpacked tree against the distribution's file list.
#pragma once
#include <cstdint>
#include <cstdio>

// The list as unpacked; verification moves it to this name + "." + YYYYMMDDhhmmss.
inline constexpr char kFileListName[] = "distribfilelist";
// A list line is read in pieces of at most this many bytes (511 characters and the NUL).
enum { kListLineSize = 512 };

// One line of the file list: the path as listed (relative to the installation directory), the
// size and the byte sum (0: not checked). Size and byte sum both 0: nothing to check.
struct ListRecord {
    const char* path;
    int32_t size;
    int32_t checksum;
};

// Reads the next line of the list into line (kListLineSize bytes) and splits it into record,
// whose path points into line. Returns the number of bytes taken from the list (with the line
// feed), 0 at its end. Longer lines come in pieces and are mis-parsed, as the list format says.
int32_t readListRecord(FILE* list, char* line, ListRecord* record);
// True when a listed name has a ".." component and so would name something outside.
bool listNameLeavesDir(const char* path);

// Checks every file named in installDir/distribfilelist for size and byte sum, then moves the
// list to a name carrying the local time. 0 when all matched, -1 otherwise (reported here).
int32_t verifyDistribution();
// Byte sum of a file of the given size, or 0xFFFFFFFF after reporting why it could not be read.
uint32_t fileChecksum(const char* path, int32_t size);
