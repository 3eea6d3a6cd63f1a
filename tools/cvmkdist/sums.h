// SHA-256 sums in the format of coreutils' sha256sum, which users check with "sha256sum -c".
#pragma once
#include <string>

extern const char kSumsName[];  // "SHA256SUMS"

// Writes DIR/SHA256SUMS over every regular file in DIR, sorted by name, but itself. Signatures
// of an earlier list (SHA256SUMS.sig, .asc, .gpg) no longer match and are removed, with a note.
// Anything else than a regular file is left out with a warning.
int writeSha256Sums(const std::string& dir);
// Writes FILE.sha256: the one line for FILE, named without its directory.
int writeSha256Beside(const std::string& file);
