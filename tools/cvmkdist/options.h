// The command line of cvmkdist.
#pragma once
#include <string>

struct MkdistOptions {
    std::string payload, package, out, installer, messages, license, checker, selfExtracting;
    bool listOnly = false;
    bool allowIncomplete = false;
    bool allowGroupWrite = false;   // pack files and directories that their group may write
    bool checkerInPayload = false;  // --checker given: the checker also goes into the payload
};

// Fills options from the arguments. Returns 0, 1 after a message on standard error, or 2
// after the help text on standard output (the caller then ends with status 0).
int parseMkdistOptions(int argc, char** argv, MkdistOptions* options);
// The cvcheck that stands beside this cvmkdist (the build puts both in one directory), or "" when
// there is none: the checker every distribution ships unless --checker names another.
std::string checkerBesideProgram();
