// The verify command: which listed files are checked, and how.
#include "tools/cvcheck/verifycmd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "tools/common/sha256list.h"
#include "tools/cvcheck/filecheck.h"
#include "tools/cvcheck/installation.h"
#include "tools/cvcheck/verifyreport.h"

namespace {

// Why there is nothing to check against, or "": a list without a record to check is what a full
// disk or a damaged file leaves, and "0 files differ" would claim what was never looked at.
std::string nothingToCheckAgainst(const Installation& inst) {
    if (inst.listRecords != 0) return "";
    size_t digests = 0;
    for (const ListedFile& file : inst.files) digests += file.hasDigest ? 1 : 0;
    if (digests != 0) {
        fprintf(stderr, "cvcheck: %s%s names no file to check; checking the %zu files that %s names\n",
                inst.install.c_str(), inst.listName.c_str(), digests, kSha256ListName);
        return "";
    }
    return inst.install + inst.listName +
           " names no file to check (it is empty, or none of its lines is a file " +
           "record), and there is no " + kSha256ListName + " to check with instead";
}

}  // namespace

int runVerify(const char* dir, bool json) {
    Installation inst;
    std::string why, advice;
    struct stat info;
    if (openInstallation(dir, &inst, &why) == 0) {
        why = nothingToCheckAgainst(inst);
        if (!why.empty()) advice = "install the release again into " + inst.install + " to check it";
    }
    if (why.empty() && fstatat(inst.installFd, "bin/cvt", &info, AT_SYMLINK_NOFOLLOW) != 0) {
        why = "no " + inst.install + "bin/cvt, which the installation makes once its verification has passed";
        advice = "run the installer again into " + inst.install + " to finish the installation";
    }
    if (inst.unfinished) advice = unfinishedAdvice(inst);
    if (inst.unfinished && !runningInstallation(inst).empty()) {
        why = runningInstallation(inst);
        advice = "check it once it has ended";
    }
    if (!why.empty()) {
        closeInstallation(&inst);
        printCannotCheck(dir, why, advice, json);
        return 2;
    }
    VerifyReport report{&inst, {}, {}, {}, 0, 0};
    for (const ListedFile& file : inst.files) {
        if (file.superseded || changedAfterVerification(file.made))
            report.leftOut++;
        else if (!file.hasDigest && file.size == 0 && file.checksum == 0)
            report.nothingToCheck++;  // the installer skips such a line too
        else
            report.checked.push_back(&file);
    }
    report.results = checkFiles(inst, report.checked);
    for (const ListedFile& dir : inst.dirs)
        report.dirResults.push_back(checkDirectoryAt(baseFd(inst, dir.base), dir));
    if (json)
        printVerifyJson(report);
    else
        printVerifyText(report);
    closeInstallation(&inst);
    return verifyStatus(report);
}
