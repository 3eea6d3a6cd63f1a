// The record of what an installation made besides the package's own files: what the installer and
// the product's own steps (the macro translator's log, for one) leave in the installation
// directory. cvcheck remove --purge takes these away with the package and keeps everything else
// that it finds there: what was there before the installation, or came later from elsewhere.
#pragma once
#include <cstdint>

// In the installation directory: one name a line, relative to it, a directory's ending in "/".
inline constexpr char kMadeRecordName[] = "distribmade";

// Notes the time from which the run makes things in the installation directory (once it holds the
// directory's lock, before the backup and the unpacking).
void markInstallationStart();
// At the end of a successful installation: records every entry of the installation directory that
// the package does not list and that was born after the mark, with the entries of an earlier
// record that are still there. A file system that keeps no birth times gets nothing new recorded
// (cvcheck then keeps such files and names them). 0, or 1 after a message; the installation does
// not fail on it.
int32_t recordMadeFiles();
