// The self-extracting distribution: the shell script of tools/cvmkdist/selfextract.sh (built in as
// kSelfExtractScript) with its values filled in, followed by the distribution directory as an
// uncompressed tar archive (the package in it is compressed already).
#pragma once
#include <cstdint>
#include <string>

extern const char kSelfExtractScript[];

// Refuses a file that would lie inside the distribution directory, and makes its directory.
int prepareSelfExtracting(const std::string& file, const std::string& distDir);
// Writes file (mode 0755) from every regular file of distDir, sorted by name, and file.sha256
// beside it. The archive's members have owner 0 and, with an epoch (not -1), no time later
// than it, so the same directory gives the same bytes.
int writeSelfExtracting(const std::string& distDir, const std::string& file, long long epoch);
