// Generated configuration: the user's alias file, the project file, the environment INI file
// and the rescue copy of the state file.
#include "installer/miscfiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/state.h"
#include "installer/timestamps.h"
#include "runtime/path.h"

// The environment INI file; "%CVROOT%" is expanded by the editor when it starts.
const char* const kEnvironmentIni[kEnvironmentIniLines] = {
    "; This INI file is intended to contain Corvane environment",
    "; variables.",
    ";",
    "[Environment]",
    "CORVPATH=%CVROOT%bin/:%CVROOT%:%CVROOT%macros/:%CVROOT%bitmaps/",
    "CORVMACROS=%CVROOT%macros/",
    "CORVINCLUDE=%CVROOT%macros/",
    "CORVMISC=%CVROOT%",
    "CORVBIN=%CVROOT%bin/",
    "CORVBITMAPS=%CVROOT%bitmaps/",
    "; Set CORVXNOBLINK to 1 to stop blinking cursor and reduce network traffic.",
    ";CORVXNOBLINK=1",
};

namespace {

// A line of the user's alias file that begins with this has come from an earlier merge. Only
// these six characters of "\nfunctioncomment" are compared.
const char kMergeMark[] = "\nfunct";

// Renames by hard link and unlink, keeping the old name when the new one cannot be made.
int32_t moveByLink(const char* from, const char* to) {
    if (link(from, to) != 0) return 1;
    if (unlink(from) != 0) {
        unlink(to);
        return 1;
    }
    return 0;
}

// Appends the whole of file to the open descriptor fd of target. A file that cannot be read
// ends the installer: the alias file would be left half merged otherwise.
void appendWholeFile(const char* file, int fd, const char* target) {
    // Read where it lies in the installation: a link out is refused, not appended.
    int in = openConfined(gState.installDir, file, O_RDONLY, 0);
    if (in == kConfineRefusedFd) return;
    if (in < 0) {
        printMessage("Cannot open %s", file);
        exit(1);
    }
    struct stat info;
    size_t length = fstat(in, &info) == 0 ? static_cast<size_t>(info.st_size) : 0;
    char* content = static_cast<char*>(malloc(length > 0 ? length : 1));
    if (content == nullptr) {
        printMessage("Cannot allocate memory to read file %s.", file);
        exit(1);
    }
    if (read(in, content, length) != static_cast<ssize_t>(length)) {
        printMessage("Cannot read file %s.", file);
        exit(1);
    }
    close(in);
    if (write(fd, content, length) != static_cast<ssize_t>(length))
        printMessage("Cannot write file %s. Please check disk space.", target);
    free(content);
}

// Reads the whole open file behind a leading line feed, so that its first line starts a line
// like all the others. Null when it cannot be allocated or read whole.
char* readBehindLineFeed(int fd, size_t* length) {
    struct stat info;
    if (fstat(fd, &info) != 0) return nullptr;
    *length = static_cast<size_t>(info.st_size) + 1;
    char* content = static_cast<char*>(malloc(*length));
    if (content == nullptr) return nullptr;
    content[0] = '\n';
    if (read(fd, content + 1, *length - 1) != static_cast<ssize_t>(*length - 1)) {
        free(content);
        return nullptr;
    }
    return content;
}

}  // namespace

int32_t updateAliasFile() {
    printVerbose("Updating alias.crv:\n");
    char alias[kPathSize];
    char shipped[kPathSize];
    formatPath(alias, "%salias.crv", gState.installDir);
    formatPath(shipped, "%s$alias.crv", gState.installDir);

    if (!pathExists(alias)) {
        // The shipped file becomes the user's alias file: a link that leads out would hand every
        // user what it points at.
        if (checkConfined(gState.installDir, shipped, true) != 0) {
            unlink(shipped);
            return 1;
        }
        moveByLink(shipped, alias);
        return 0;
    }
    // The user's alias file is extended in place, and only where it lies in the installation.
    int fd = openConfined(gState.installDir, alias, O_RDWR, 0);
    if (fd == kConfineRefusedFd) return 1;
    if (fd >= 0) {
        size_t length = 0;
        char* content = readBehindLineFeed(fd, &length);
        if (content == nullptr) {
            close(fd);
            return 1;
        }
        bool merged = memmem(content, length, kMergeMark, sizeof(kMergeMark) - 1) != nullptr;
        free(content);
        if (!merged) {
            lseek(fd, 0, SEEK_END);
            printVerbose("Appending $alias.crv to alias.crv\n");
            appendWholeFile(shipped, fd, alias);
        }
        close(fd);
    }
    unlink(shipped);
    return 0;
}

int32_t createProjectFile() {
    char project[kPathSize];
    formatPath(project, "%suproject.crv", gState.installDir);
    printVerbose("Creating uproject.crv: file=%s\n", project);
    if (pathExists(project)) return 0;
    int fd = openConfined(gState.installDir, project, O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return 0;
    fchmod(fd, 0666);
    close(fd);
    return 0;
}

int32_t createEnvironmentIni() {
    char ini[kPathSize];
    formatPath(ini, "%scorv.ini", gState.binDir);
    printVerbose("Creating corv.ini: file=%s\n", ini);
    int fd = openConfined(gState.installDir, ini, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    FILE* out = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (out == nullptr) {
        if (fd >= 0) close(fd);
        return 1;
    }
    for (const char* line : kEnvironmentIni) fprintf(out, "%s\n", line);
    fchmod(fd, 0644);
    // A full disk shows when the buffered lines are written out at the close.
    return fclose(out) != 0 ? 1 : 0;
}

int32_t updateMiscFiles() {
    printf("Updating misc files. Please wait...\n");
    if (updateAliasFile() != 0) {
        printMessage("Cannot update %salias.crv.", gState.installDir);
        return 1;
    }
    createProjectFile();
    if (createEnvironmentIni() != 0) {
        printMessage("Cannot create %scorv.ini.", gState.binDir);
        return 1;
    }
    char state[kPathSize];
    char rescue[kPathSize];
    formatPath(state, "%scorv.stu", gState.installDir);
    formatPath(rescue, "%srescue.stu", gState.installDir);
    if (copyFileWithin(state, rescue, gState.installDir) != 0) return 1;
    timestampInstallation();
    return 0;
}
