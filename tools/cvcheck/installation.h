// An installation as the installer leaves it: the newest dated file list, the SHA-256 list when
// the package had one, and where each listed file lies once the installation is done.
#pragma once
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "tools/cvcheck/madefiles.h"
#include "tools/common/sha256.h"

// The directory a listed file's location is relative to: the installation directory, or in
// plug-in mode the plug-in layout directory "<root>/eclipse/" (for names listed below "eclipse/").
enum FileBase { kBaseInstall, kBaseLayout };

struct ListedFile {
    std::string name;      // as listed
    FileBase base;         // where the installation put it
    std::string location;  // relative to that directory
    int32_t size;          // as the installer reads the list; -1: named only by the SHA-256 list
    int32_t checksum;      // byte sum, 0: not checked
    bool hasDigest;        // named in the SHA-256 list
    char digest[kSha256HexSize];
    MadeKind made;           // the installation's own kind of the location (kMadeNone for most)
    bool superseded;         // a later listed file was placed on the same location
    int mode = -1;           // permission bits from the mode list; -1: not listed there
    bool ownerRoot = false;  // a root installation, and the mode list says the file is root's
};

struct Installation {
    std::string dir;      // the directory given, resolved, ending in "/"
    std::string install;  // the installation directory (holds the lists), ending in "/"
    std::string layout;   // plug-in mode: the plug-in layout directory, ending in "/"
    std::string root;     // plug-in mode: the plug-in root, ending in "/"
    bool plugin = false;
    int dirFd = -1, installFd = -1, layoutFd = -1;
    std::string listName;    // the newest dated list, in the installation directory
    std::string listSha256;  // its SHA-256: the same release has the same list
    bool sha256List = false;
    bool modeList = false;
    bool rootInstallation = false;  // the list belongs to root: the installer ran as root
    // The package's own list (distribfilelist) is still there: the installation never got as far
    // as its verification (killed while unpacking, or installed with -s).
    bool unfinished = false;
    size_t listRecords = 0;  // records of the list with something to check
    std::vector<ListedFile> files;
    // The package's directories that the mode list names (name and location without the "/").
    std::vector<ListedFile> dirs;
    // What the installation recorded as made while installing (the product's own files such as
    // the macro translator's log), relative to the installation directory; directories end in "/".
    std::unordered_set<std::string> made;
};

// The name a plug-in directory of the package (installer/eclipse.h) has after the layout step.
std::string versionedName(const char* name);
// Opens the installation in dir (an installation directory, or a plug-in root or its core
// plug-in directory) and reads its lists. An unfinished installation is refused (with
// installation->unfinished set) unless packageList asks to go by the package's own list; with
// packageList a finished one is refused. 0, or 1 with the reason in *why.
int openInstallation(const char* dir, Installation* installation, std::string* why, bool packageList = false);
void closeInstallation(Installation* installation);
// "" when no installer holds the installation directory's lock (installer/instlock.h), else the
// reason to give: an unfinished installation may be one that is still running.
std::string runningInstallation(const Installation& installation);
// What to do about an unfinished installation: finish it, or remove it by the package's own list.
std::string unfinishedAdvice(const Installation& installation);
// Descriptor and path of the directory a base stands for.
int baseFd(const Installation& installation, FileBase base);
const std::string& basePath(const Installation& installation, FileBase base);
// Where a listed file lies, as an absolute path.
std::string installedPath(const Installation& installation, const ListedFile& file);
// True when a listed file's location lies in the directory given.
bool insideDir(const Installation& installation, const ListedFile& file);
