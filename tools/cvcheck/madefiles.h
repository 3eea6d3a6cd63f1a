// What an installation makes or changes itself after it has verified the unpacked files, named
// relative to the installation directory (the core plug-in directory in plug-in mode).
#pragma once
#include <string>
#include <unordered_set>

enum MadeKind {
    kMadeNone,
    kMadeLink,          // bin/cvt, the link to cvtw
    kMadeIni,           // bin/corv.ini, written anew by every installation
    kMadeAlias,         // alias.crv: the shipped $alias.crv moved there, or appended to the user's
    kMadeShippedAlias,  // $alias.crv, merged into alias.crv and deleted
    kMadeRescue,        // rescue.stu, a copy of corv.stu
    kMadeProject,       // uproject.crv, made empty where there is none
    kMadeMacro,         // macros/NAME.ex, compiled from a listed macros/NAME.e
    kMadeTagFile,       // below tagfiles/, written by the editor's first start
    kMadeList,          // the file lists, the SHA-256 and mode lists, the record of what was made
    kMadeBackup,        // below old/, the backups of old configuration
};

// The kind of path; listed holds the listed names (relative to the same directory).
MadeKind madeKind(const std::string& path, const std::unordered_set<std::string>& listed);
// True for the kinds whose listed files the installation changes after checking them.
bool changedAfterVerification(MadeKind kind);
// "distribfilelist." followed by the 14 digits of YYYYMMDDhhmmss.
bool isDatedList(const std::string& name);
// corv.ini as the installation writes it.
std::string environmentIniText();
