// Macro compilation. The translator "cvtw" in the bin directory turns a source "name.e" in the
// macros directory into "name.ex" beside it; it takes either the first source's full path, "-L"
// and further bare names from the same directory, or a single full path.
#include "installer/macros.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "installer/confine.h"
#include "installer/console.h"
#include "installer/fileutil.h"
#include "installer/shellcmd.h"
#include "installer/state.h"
#include "installer/timestamps.h"
#include "runtime/path.h"

namespace {

enum { kCommandSize = 8 * kPathSize };

// Calls fn for every line of text (length bytes): lines end at a line feed, and text behind
// the last line feed is a last line of its own. Each line is handed over NUL-terminated.
template <typename Fn>
void forEachLine(char* text, size_t length, Fn fn) {
    size_t start = 0;
    while (start < length) {
        char* lineEnd = static_cast<char*>(memchr(text + start, '\n', length - start));
        size_t end = lineEnd != nullptr ? static_cast<size_t>(lineEnd - text) : length;
        char saved = text[end];
        text[end] = '\0';
        fn(text + start);
        text[end] = saved;
        start = end + 1;
    }
}

// Touches the compiled form of a macro; the format is the log line for it.
void touchCompiled(const char* logFormat, const char* name) {
    char compiled[kPathSize];
    strCopyBounded(compiled, name, kPathSize);
    strAppendBounded(compiled, "x", kPathSize);
    printVerbose(logFormat, gState.macrosDir, compiled);
    touchFile(gState.macrosDir, compiled);
}

// The batch command for the list text; 1 when it does not fit the buffer.
int32_t buildBatchCommand(char* list, size_t length, char* command, int32_t size) {
    int32_t failed = formatShellCommand(command, size, "%scvtw", gState.binDir);
    bool first = true;
    forEachLine(list, length, [&](const char* name) {
        if (first) {
            failed |= appendShellCommand(command, size, " %s%s -L", gState.macrosDir, name);
            first = false;
        } else {
            failed |= appendShellCommand(command, size, " %s", name);
        }
    });
    return failed != 0 ? 1 : 0;
}

}  // namespace

int32_t compileMacroList(const char* listPath, int32_t listSize) {
    printf("Compiling macros. Please wait...\n");
    size_t length = listSize > 0 ? static_cast<size_t>(listSize) : 0;
    char* list = static_cast<char*>(malloc(length + 1));
    if (list == nullptr) {
        printMessage("Cannot allocate memory for macros file list %s.", listPath);
        return 1;
    }
    // The list is read where it lies in the installation, never through a link that leads out.
    int fd = openConfined(gState.installDir, listPath, O_RDONLY, 0);
    if (fd < 0) {
        free(list);
        if (fd != kConfineRefusedFd) printMessage("Cannot open macros list file %s.", listPath);
        return 1;
    }
    ssize_t count = read(fd, list, length);
    close(fd);
    if (count < static_cast<ssize_t>(length)) {
        free(list);
        printMessage("Cannot macros file list %s.", listPath);
        return 1;
    }
    list[length] = '\0';

    // Every name can grow by its quotes; the paths in front come on top.
    const int32_t size = static_cast<int32_t>(6 * length) + kCommandSize;
    std::vector<char> command(static_cast<size_t>(size));
    if (buildBatchCommand(list, length, command.data(), size) != 0) {
        free(list);
        printMessage("Cannot build the macro compilation command for %s.", listPath);
        return 1;
    }
    printVerbose("Compiling macros: command=%s\n", command.data());
    int status = runShell(command.data());
    printProgress("%s", "");
    if (status != 0) {
        printVerbose("Compiling macros failed: status=%d\n", status);
        free(list);
        return 1;
    }
    forEachLine(list, length, [](const char* name) {
        // An empty line names no macro, so there is no compiled form to touch.
        if (name[0] != '\0') touchCompiled("Touching compiled macro: dir=%s file=%s\n", name);
    });
    free(list);
    return 0;
}

int32_t compileAllMacros() {
    printf("Compiling all macros. Please wait...\n");
    DIR* dir = opendir(gState.macrosDir);
    if (dir == nullptr) {
        printMessage("Cannot open macros directory %s.", gState.macrosDir);
        return 1;
    }
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        const char* dot = strrchr(name, '.');
        if (dot == nullptr || strcmp(dot, ".e") != 0) continue;
        printProgress("   Compiling %s", name);
        char command[kCommandSize];
        if (formatShellCommand(command, sizeof(command), "\"%scvtw\" \"%s%s\" >/dev/null 2>/dev/null",
                               gState.binDir, gState.macrosDir, name) != 0) {
            continue;
        }
        printVerbose("Compiling one macro: command=%s\n", command);
        // A macro that does not compile keeps its old compiled form, if any, untouched.
        if (runShell(command) == 0) touchCompiled("Touching compiled macro: dir=%s, file=%s\n", name);
    }
    closedir(dir);
    return 0;
}

int32_t compileMacros() {
    char listPath[kPathSize];
    strCopyBounded(listPath, gState.installDir, kPathSize);
    strAppendBounded(listPath, "cmacros.lst", kPathSize);
    printVerbose("Checking macro list: macroListFile=%s\n", listPath);
    // The translator writes the compiled macros where it is told to, and is run from the bin
    // directory: neither may lie behind a link that leads out of the installation.
    if (checkConfined(gState.installDir, gState.macrosDir, true) != 0 ||
        checkConfined(gState.installDir, gState.binDir, true) != 0) {
        return 1;
    }
    struct stat info;
    if (stat(listPath, &info) == 0 && compileMacroList(listPath, static_cast<int32_t>(info.st_size)) == 0)
        return 0;
    return compileAllMacros();
}
