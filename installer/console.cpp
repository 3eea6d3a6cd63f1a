// Terminal output and questions. Every formatting primitive has its own static buffer so that
// the text one of them produced can be handed to another.
#include "installer/console.h"

#include <cctype>
#include <cstdarg>
#include <cstring>

#include "installer/shellcmd.h"
#include "installer/state.h"
#include "runtime/path.h"

FILE* gConsoleIn = nullptr;

namespace {

enum { kMessageSize = 10240, kLineSize = 512, kYesNoLineSize = 511, kProgressWidth = 72 };

char gVerboseText[kMessageSize];
char gMessageText[kMessageSize];
char gBoxedText[kMessageSize];
char gWrapText[kMessageSize];
char gProgressLine[kProgressWidth + 1];
char gField[kLineSize];

FILE* consoleInput() {
    return gConsoleIn != nullptr ? gConsoleIn : stdin;
}

// Longest line, counted from its start, that may stand before a break.
const int32_t kWrapColumn = 60;
const char* const kBreakCharacters = " \n;,.?!";

void removeBlanksAt(char* text, size_t at) {
    size_t end = at;
    while (text[end] == ' ') end++;
    if (end > at) memmove(text + at, text + end, strlen(text + end) + 1);
}

}  // namespace

void printVerbose(const char* format, ...) {
    if (!gState.verbose) return;
    va_list args;
    va_start(args, format);
    vsnprintf(gVerboseText, sizeof(gVerboseText), format, args);
    va_end(args);
    printf(">>> %s", gVerboseText);
}

int32_t printMessage(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(gMessageText, sizeof(gMessageText), format, args);
    va_end(args);
    return printf("Corvane Install: %s\n", gMessageText);
}

int32_t printBoxed(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(gBoxedText, sizeof(gBoxedText), format, args);
    va_end(args);
    return printf("\n***\n%s\n***\n", gBoxedText);
}

// Breaks the text into lines of at most 60 characters plus a trailing punctuation mark.
// Lines are broken at the last break character that still fits; a blank there turns into the
// line feed, a punctuation mark keeps its place and gets a line feed behind it. Blanks that
// would start the next line are dropped. A word without any break character is never split.
// The last character of the text is never used as a break: there is nothing to wrap behind it.
int32_t printWrapped(const char* text) {
    char* buf = gWrapText;
    strCopyBounded(buf, text, kMessageSize);

    size_t lineStart = 0;
    size_t searchFrom = 0;
    long lastFit = -1;  // last break character within the column limit of this line
    for (;;) {
        char* found = strpbrk(buf + searchFrom, kBreakCharacters);
        if (found == nullptr) break;
        size_t at = static_cast<size_t>(found - buf);
        bool isLast = buf[at + 1] == '\0';
        bool tooFar = at - lineStart > static_cast<size_t>(kWrapColumn);

        if (!tooFar) {
            if (isLast) break;
            if (buf[at] == '\n') {
                lineStart = searchFrom = at + 1;
                lastFit = -1;
            } else {
                lastFit = static_cast<long>(at);
                searchFrom = at + 1;
            }
            continue;
        }

        // The line runs past the limit: break it.
        size_t breakAt;
        if (lastFit >= 0) {
            breakAt = static_cast<size_t>(lastFit);
        } else if (isLast) {
            break;
        } else {
            breakAt = at;
        }
        if (buf[breakAt] == '\n') {
            lineStart = breakAt + 1;
        } else if (buf[breakAt] == ' ') {
            buf[breakAt] = '\n';
            removeBlanksAt(buf, breakAt + 1);
            lineStart = breakAt + 1;
        } else {
            size_t length = strlen(buf);
            if (length >= kMessageSize - 1) break;  // no room for another line feed
            memmove(buf + breakAt + 2, buf + breakAt + 1, length - breakAt);
            buf[breakAt + 1] = '\n';
            removeBlanksAt(buf, breakAt + 2);
            lineStart = breakAt + 2;
        }
        searchFrom = lineStart;
        lastFit = -1;
    }
    return printBoxed("%s", buf);
}

void printProgress(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(gProgressLine, sizeof(gProgressLine), format, args);
    va_end(args);
    size_t length = strlen(gProgressLine);
    while (length < kProgressWidth) gProgressLine[length++] = ' ';
    gProgressLine[kProgressWidth] = '\0';
    printf("%s\r", gProgressLine);
    fflush(stdout);
}

int32_t askYesNo(const char* prompt, int32_t* answer, int32_t defaultAnswer) {
    char line[kYesNoLineSize];
    for (;;) {
        fputs(prompt, stdout);
        fflush(stdout);
        if (fgets(line, sizeof(line), consoleInput()) == nullptr) return 1;
        if (strcmp(line, "\n") == 0) {
            *answer = defaultAnswer;
            return 0;
        }
        int first = toupper(static_cast<unsigned char>(line[0]));
        if (first == 'Y') {
            *answer = 1;
            return 0;
        }
        if (first == 'N') {
            *answer = 0;
            return 0;
        }
        printf("Please enter 'Y' or 'N'.\n");
    }
}

int32_t promptDirectory(const char* format, char* directory) {
    char line[kLineSize];
    printf(format, directory);
    fflush(stdout);
    if (fgets(line, sizeof(line), consoleInput()) == nullptr) return 1;
    if (strcmp(line, "\n") != 0) {
        // The last character is taken to be the line end, even when a full buffer cut the
        // line before it.
        strCopyBounded(directory, line, kPathSize);
        size_t length = strlen(directory);
        if (length > 0) directory[length - 1] = '\0';
    }
    size_t length = strlen(directory);
    if (length > 0 && directory[length - 1] != '/') strAppendBounded(directory, "/", kPathSize);
    return 0;
}

int32_t promptLine(const char* format, char* answer) {
    char line[kLineSize];
    printf(format, answer);
    fflush(stdout);
    if (fgets(line, sizeof(line), consoleInput()) == nullptr) return 1;
    trimLine(line);
    strCopyBounded(answer, line, kPathSize);
    return 0;
}

void trimLine(char* text) {
    size_t length = strlen(text);
    if (length == 0) return;
    if (text[length - 1] != '\n' && text[length - 1] != '\r') return;
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) length--;
    text[length] = '\0';
}

void toLowerInPlace(char* text) {
    for (; *text != '\0'; text++) *text = static_cast<char>(tolower(static_cast<unsigned char>(*text)));
}

int32_t runCommandCapture(const char* command, char* buffer, int32_t size) {
    if (size <= 0) return 1;
    FILE* pipe = openShellPipe(command, "r");
    if (pipe == nullptr) return 1;
    size_t count = fread(buffer, 1, static_cast<size_t>(size), pipe);
    // An empty result leaves the pipe open; the caller gives up on the command anyway.
    if (count == 0) return 1;
    buffer[count] = '\0';
    closeShellPipe(pipe);
    trimLine(buffer);
    return 0;
}

const char* fieldOf(const char* text, int32_t n, char sep) {
    if (text == nullptr || n < 1) return nullptr;
    const char* start = text;
    for (int32_t i = 1; i < n; i++) {
        const char* next = strchr(start, sep);
        if (next == nullptr || sep == '\0') return nullptr;
        start = next + 1;
    }
    const char* end = sep != '\0' ? strchr(start, sep) : nullptr;
    size_t length = end != nullptr ? static_cast<size_t>(end - start) : strlen(start);
    if (length > kLineSize - 1) length = kLineSize - 1;
    memcpy(gField, start, length);
    gField[length] = '\0';
    return gField;
}
