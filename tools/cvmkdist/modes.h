// What cvmkdist records about the payload beyond the bytes of its files: the mode list that cvcheck
// verify compares installed modes and owners with, and the checker that goes into the payload so
// that every installation carries the tool that checks it.
#pragma once
#include <string>

#include "tools/cvmkdist/payload.h"

// Where the checker stands in the installation directory.
inline constexpr char kCheckerPath[] = "bin/cvcheck";
// The mode a file added from elsewhere (the checker) is packed with.
inline constexpr mode_t kAddedFileMode = 0755;

// Adds the checker to the payload as bin/cvcheck, replacing (with a warning) one the payload holds.
void addChecker(const std::string& checker, Payload* payload);
// Copies the checker once into a new private directory (*work, which the caller removes) and adds
// that copy, so that the bytes the lists describe are the bytes that are packed (a program that is
// shipped changed, stripped say, is changed here). A checker that is no regular file is left to
// the check of the side files. 1 after a message.
int addCheckerCopy(const std::string& checker, std::string* work, Payload* payload);
// The mode list (tools/common/modelist.h) of the payload's regular files and directories, as the
// package will carry them: every member owned by root. 1 after a message when a mode cannot be read.
int buildModeList(const Payload& payload, std::string* list);
