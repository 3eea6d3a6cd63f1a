// Unpacking the distribution package into the installation directory.
#pragma once
#include <cstdint>

// Unpacks gDistribDir/distribName into installDir, verifies it (unless "-s"), hands it to
// the super-user when run as root and, in plug-in mode, lays out the plug-in. 0 or 1.
int32_t unpackDistribution();
// Streams the gzip-compressed tar archive through zlib into "tar" in the current directory.
// members names one member to extract (null: all); with listFile, tar lists the members into
// that file instead of extracting. 0, or 1 when tar could not be started.
int32_t extractArchive(const char* archivePath, const char* members, const char* listFile);
