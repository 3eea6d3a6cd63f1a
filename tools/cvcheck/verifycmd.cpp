// The verify command: which listed files are checked, and how.
#include "tools/cvcheck/verifycmd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "tools/cvcheck/filecheck.h"
#include "tools/cvcheck/installation.h"
#include "tools/cvcheck/verifyreport.h"

int runVerify(const char* dir, bool json) {
    Installation inst;
    std::string why;
    struct stat info;
    if (openInstallation(dir, &inst, &why) == 0 &&
        fstatat(inst.installFd, "bin/cvt", &info, AT_SYMLINK_NOFOLLOW) != 0)
        why = "no " + inst.install + "bin/cvt, which the installation makes once its verification has passed";
    if (!why.empty()) {
        closeInstallation(&inst);
        printCannotCheck(dir, why, json);
        return 2;
    }
    VerifyReport report{&inst, {}, {}, 0, 0};
    for (const ListedFile& file : inst.files) {
        if (file.superseded || changedAfterVerification(file.made))
            report.leftOut++;
        else if (!file.hasDigest && file.size == 0 && file.checksum == 0)
            report.nothingToCheck++;  // the installer skips such a line too
        else
            report.checked.push_back(&file);
    }
    report.results = checkFiles(inst, report.checked);
    if (json)
        printVerifyJson(report);
    else
        printVerifyText(report);
    closeInstallation(&inst);
    return verifyStatus(report);
}
