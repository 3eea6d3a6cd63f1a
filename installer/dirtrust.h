// An installation directory that root may install into. What root unpacks and then runs (the
// macro translator in bin/) must not be changeable by anyone else between the check and the run,
// as OpenSSH's StrictModes refuses a key file that another user could change. Nor may the package
// be unpacked over the system's own directories.
#pragma once
#include <cstdint>

// As root: 0 when installDir (ends in "/"; it may not exist yet) and every existing directory on
// its path, and its existing bin, macros and bitmaps directories, are owned by root and cannot
// be written by other users, and installDir is not one of the system's own directories; else 1
// after one message naming the directory and what to do. Not as root: always 0.
int32_t checkInstallDirectoryTrust(const char* installDir);
