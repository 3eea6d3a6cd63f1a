// What cvcheck verify found, as text lines or as one JSON document.
#pragma once
#include <cstddef>
#include <string>
#include <vector>

#include "tools/cvcheck/filecheck.h"
#include "tools/cvcheck/installation.h"

struct VerifyReport {
    const Installation* installation;
    std::vector<const ListedFile*> checked;
    std::vector<FileCheck> results;     // one per checked file
    std::vector<FileCheck> dirResults;  // one per directory of installation->dirs
    size_t leftOut;                     // files that the installation changes itself
    size_t nothingToCheck;              // listed with size and byte sum 0 and no digest
};

// The exit status the findings call for: 0, 1, or 2 when files could only not be read.
int verifyStatus(const VerifyReport& report);
void printVerifyText(const VerifyReport& report);
void printVerifyJson(const VerifyReport& report);
// What to do about the findings, one sentence; "" when nothing differs.
std::string verifyAdvice(const VerifyReport& report);
// The installation cannot be checked: the reason and what to do ("" when there is no advice) on
// standard error, and with json the document.
void printCannotCheck(const char* dir, const std::string& why, const std::string& advice, bool json);
