// The distribution package: the payload tree and the files the builder generates for it, as
// one gzip-compressed tar archive.
#pragma once
#include <string>
#include <vector>

#include "tools/cvmkdist/payload.h"

// A file made at build time and packed at the top of the package, in front of the payload
// (the file list; any further list that the installation checks goes beside it).
struct GeneratedMember {
    std::string name;
    std::string content;
};

// Writes the package to packagePath (mode 0644). The generated members come first, in the order
// given, with the payload's newest modification time; then the payload's entries sorted by
// name, directories before their contents. Members carry owner 0 and, with an epoch (not -1),
// no time later than it. The payload itself is never written: the tree is packed from a copy.
int writePackage(const Payload& payload, const std::vector<GeneratedMember>& generated, long long epoch,
                 const std::string& packagePath);
