// The SHA-256 list of a distribution: "distribsha256", packed beside "distribfilelist", names
// every listed file with its SHA-256 digest in the format of coreutils' sha256sum (names relative
// to the installation directory, in the file list's sorted order). The installer unpacks it like
// any other file; cvcheck checks with it, since a byte sum misses two swapped bytes.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "tools/common/sha256.h"

inline constexpr char kSha256ListName[] = "distribsha256";

struct Sha256Entry {
    std::string name;
    char hex[kSha256HexSize];
};

// Builds the list of the files names (relative to root) into list. 0, or 1 after
// "<program>: <why>" on standard error.
int buildSha256List(const char* program, const std::string& root, const std::vector<std::string>& names,
                    std::string* list);
// The same over (name, file) pairs: each name's digest is taken from its file.
int buildSha256ListOf(const char* program, std::vector<std::pair<std::string, std::string>> files,
                      std::string* list);
// One line without its line feed, as sha256sum writes it (a leading "\" marks a name with "\\"
// and "\n" escapes). 0, or 1 when the line is not of that form.
int parseSha256Line(const std::string& line, Sha256Entry* entry);
// All lines of a list; 0, or the number of the first line that is not of that form.
size_t parseSha256List(const std::string& text, std::vector<Sha256Entry>* entries);
