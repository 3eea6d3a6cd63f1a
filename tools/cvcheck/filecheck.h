// Checking installed files against their listed size and byte sum or SHA-256 digest.
#pragma once
#include <string>
#include <vector>

#include "tools/cvcheck/installation.h"

enum Drift { kSame, kMissing, kSize, kContent, kUnreadable };
enum CheckMethod { kBySize, kByByteSum, kBySha256 };

struct FileCheck {
    Drift drift;
    CheckMethod method;
    long long actualSize;       // with kSize
    int error;                  // errno with kUnreadable; with kContent ELOOP for a link and 0 for
                                // something else where a regular file was listed, ENOTDIR for a
                                // directory on the way that is a link or no directory
    bool modeChanged = false;   // against the mode list (tools/common/modelist.h)
    bool ownerChanged = false;  // a root installation's file that root no longer owns
    unsigned mode = 0;          // the installed permission bits, with modeChanged
    unsigned owner = 0;         // the installed owner's uid, with ownerChanged
};

// The strongest check the lists allow for a file: its digest, its byte sum, or its size alone.
CheckMethod checkMethod(const ListedFile& file);
// Checks the file leaf in the directory dirFd, never following a symbolic link.
FileCheck checkFileAt(int dirFd, const char* leaf, const ListedFile& file);
// Checks every file at its installed location, on as many threads as there are processors;
// the results come in the order of files.
std::vector<FileCheck> checkFiles(const Installation& installation,
                                  const std::vector<const ListedFile*>& files);
// The mode and owner of a listed directory (its location below the base directory baseFd); a
// directory that is gone or no directory is left to the checks of the files in it (kSame).
FileCheck checkDirectoryAt(int baseFd, const ListedFile& dir);
// True when the file differs in any way: its content or size, its mode or its owner.
bool differs(const FileCheck& check);
// "missing", "size", "content" or "unreadable"; "same" for kSame.
const char* driftName(Drift drift);
// "size", "bytesum" or "sha256".
const char* methodName(CheckMethod method);
