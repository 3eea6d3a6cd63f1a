// The distribution file list "distribfilelist" that the installer verifies the installed tree
// against: one line "path size sum" for every regular file of the payload, sorted by path.
#pragma once
#include <string>
#include <vector>

#include "tools/cvmkdist/payload.h"

extern const char kFileListName[];

// Builds the list. A file that the installer could not verify (larger than 2147483647 bytes,
// a byte sum above that, a line longer than 511 characters) or that cannot be read is added
// to problems instead. Returns the list.
std::string buildFileList(const Payload& payload, std::vector<std::string>* problems);
