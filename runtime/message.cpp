// Status-code texts from the compiled message file shipped beside the program.
//
// File layout (32-bit little-endian words): magic 4386, textBase, then entries of
// (code, textOffset) up to one whose textOffset is negative, then the NUL-terminated texts;
// a text lies at textBase + textOffset. The file is read lazily and kept in memory; the text
// table indexed by -code points into that copy.
#include "runtime/message.h"

#include <cstdio>
#include <cstring>

#include "runtime/filehandle.h"
#include "runtime/path.h"
#include "runtime/pool.h"

namespace {

const uint32_t kMagic = 4386;
const int32_t kLowestCode = -100000;  // anything below is a damaged entry, not a status code
const int kSlots = 10;
const int kTextSize = 512;

char gPath[kTextSize];
bool gLoadPending = true;
char* gFile = nullptr;
const char** gTable = nullptr;  // sized block, grown through bufAppend
int32_t gTableBytes = 0;        // used bytes of gTable (element count * pointer size)
char gArgs[kSlots][kTextSize];
int32_t gOverrideCode = 1;
char gOverrideText[kTextSize];
char* gResult = nullptr;
int32_t gResultLength = 0;
char gError[100];

int32_t tableCount() {
    return gTableBytes / int32_t(sizeof(char*));
}

int32_t readInt(const char* at) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(at);
    return int32_t(uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24);
}

const char* errorText(const char* format) {
    // A long path is cut: the text has to fit the 100-byte buffer.
    int written = std::snprintf(gError, sizeof gError, format, gPath);
    if (written < 0) gError[0] = 0;
    return gError;
}

// Stores text under index; the table grows with null slots as needed. An entry that cannot
// get room is dropped.
void storeText(int32_t index, const char* text) {
    int32_t count = tableCount();
    if (index >= count) {
        int32_t missing = (index + 1 - count) * int32_t(sizeof(char*));
        char* block = reinterpret_cast<char*>(gTable);
        int32_t used = gTableBytes;
        if (bufAppend(&block, &used, nullptr, missing) != 0) return;
        gTable = reinterpret_cast<const char**>(block);
        gTableBytes = used;
        for (int32_t i = count; i <= index; i++) gTable[i] = nullptr;
    }
    gTable[index] = text;
}

// Reads the message file. Returns null on success, else the error text to answer.
const char* loadFile() {
    libFree(gFile);
    gFile = nullptr;
    gTableBytes = 0;
    int32_t length = 0;
    if (fileReadAll(gPath, &gFile, &length, 0, 0) != 0 || !gFile) {
        gFile = nullptr;
        return errorText("Unable to open message file '%s' not found");
    }
    gLoadPending = false;
    if (length < 4 || uint32_t(readInt(gFile)) != kMagic) return errorText("Message file '%s' not valid");
    if (length < 8) return nullptr;
    int64_t textBase = readInt(gFile + 4);
    // Entries that do not lie wholly inside the file, or whose text would start outside it,
    // are dropped. fileReadAll puts a NUL behind the bytes, so a text starting inside the file
    // ends there at the latest.
    for (int64_t at = 8; at + 8 <= length; at += 8) {
        int32_t code = readInt(gFile + at);
        int32_t textOffset = readInt(gFile + at + 4);
        if (textOffset < 0) break;
        if (code > 0 || code < kLowestCode) continue;
        int64_t text = textBase + textOffset;
        if (text < 0 || text >= length) continue;
        storeText(-code, gFile + text);
    }
    return nullptr;
}

bool append(const char* data, size_t count) {
    return bufAppend(&gResult, &gResultLength, data, int32_t(count)) == 0;
}

// Composes text with its markers replaced into the result buffer.
const char* compose(const char* text) {
    static const char kTooLarge[] = "%s<index> index too large";
    gResultLength = 0;
    const char* rest = text;
    bool ok = true;
    for (const char* mark = std::strchr(rest, '%'); ok && mark; mark = std::strchr(rest, '%')) {
        ok = append(rest, size_t(mark - rest));
        char next = mark[1];
        if (next == '%') {
            ok = ok && append("%", 1);
            rest = mark + 2;
        } else if (next == 's') {
            char index = mark[2];
            if (index >= '0' && index <= '9') {
                const char* arg = gArgs[index - '0'];
                ok = ok && append(arg, std::strlen(arg));
                rest = mark + 3;
            } else {
                ok = ok && append(kTooLarge, sizeof kTooLarge - 1);
                rest = index ? mark + 3 : mark + 2;
            }
        } else {
            ok = ok && append("%", 1);
            rest = mark + 1;
        }
    }
    ok = ok && append(rest, std::strlen(rest)) && append("", 1);
    // Without memory for the result the text is answered as it stands.
    return ok ? gResult : text;
}

}  // namespace

void setMessageFile(const char* directory, const char* fileName) {
    strCopyBounded(gPath, directory ? directory : "", kTextSize);
    strAppendBounded(gPath, fileName ? fileName : "", kTextSize);
}

const char* getMessage(int32_t code) {
    if (code == gOverrideCode && code < 0) return gOverrideText;
    int64_t index = code > 0 ? 0 : -int64_t(code);
    if (gLoadPending) {
        const char* error = loadFile();
        if (error) return error;
    }
    int32_t count = tableCount();
    const char* text = nullptr;
    if (index < count) text = gTable[index];
    if (!text && count > 0) text = gTable[0];
    if (!text) return errorText("Message file '%s' empty");
    return compose(text);
}

void setMessageArg(uint32_t slot, const char* text) {
    if (slot >= uint32_t(kSlots)) return;
    strCopyBounded(gArgs[slot], text ? text : "(null)", kTextSize);
}

void setMessageOverride(int32_t code, const char* text) {
    gOverrideCode = code;
    strCopyBounded(gOverrideText, text ? text : "", kTextSize);
}

void reloadMessageFile() {
    gLoadPending = true;
}

int32_t getProgramDirectory(char* out, const char* argv0) {
    char found[kTextSize];
    const char* program = argv0 ? argv0 : "";
    if (pathDirLength(program) == 0 && pathSearch(found, program, nullptr, 0, kTextSize) == 0)
        program = found;
    if (pathResolve(out, program, 0) != 0) strCopyBounded(out, program, kTextSize);
    char* slash = std::strrchr(out, '/');
    if (slash)
        slash[1] = 0;
    else
        out[0] = 0;
    return int32_t(std::strlen(out));
}
