// Generic reader for INI-style configuration files: whole-file read, section lookup and
// entry-by-entry scanning of one section.
#include "installer/inireader.h"

#include <cctype>

#include "runtime/filehandle.h"

// The text is read like any whole file; a final Ctrl-Z, which the read leaves out of the
// length, is cut off the text as well.
int32_t readWholeFile(const char* path, char** text, int32_t* length) {
    int32_t status = fileReadAll(path, text, length, 0, 0);
    if (status == 0) (*text)[*length] = '\0';
    return status;
}

static bool isLineEnd(char c) {
    return c == '\n' || c == '\r';
}
static bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

static int32_t skipLineEnds(const char* text, int32_t pos) {
    while (isLineEnd(text[pos])) pos++;
    return pos;
}

static int32_t skipBlanks(const char* text, int32_t pos) {
    while (isBlank(text[pos])) pos++;
    return pos;
}

// Position of the line end (or the terminating NUL) of the line containing pos.
static int32_t skipToLineEnd(const char* text, int32_t pos) {
    while (text[pos] != '\0' && !isLineEnd(text[pos])) pos++;
    return pos;
}

static bool sameIgnoringCase(const char* a, const char* b) {
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        if (tolower(static_cast<unsigned char>(*a)) != tolower(static_cast<unsigned char>(*b))) return false;
    }
    return *a == *b;
}

int32_t findIniSection(const char* text, const char* name) {
    char header[kIniKeySize];
    int32_t pos = 0;
    for (;;) {
        pos = skipLineEnds(text, pos);
        if (text[pos] == '\0') return -1;
        int32_t at = skipBlanks(text, pos);
        if (text[at] == '[') {
            // The name runs to the next "]" on the line; an unclosed name runs to the line end.
            int32_t kept = 0;
            for (at++; text[at] != '\0' && text[at] != ']' && !isLineEnd(text[at]); at++) {
                if (kept < kIniKeySize - 1) header[kept++] = text[at];
            }
            header[kept] = '\0';
            int32_t next = skipLineEnds(text, skipToLineEnd(text, at));
            if (sameIgnoringCase(header, name)) return next;
            pos = next;
        } else {
            pos = skipToLineEnd(text, at);
        }
    }
}

int32_t nextIniEntry(const char* text, int32_t* pos, char* key, char* value, int32_t valueSize,
                     int32_t upperCase) {
    int32_t at = *pos;
    for (;;) {
        at = skipLineEnds(text, at);
        if (text[at] == '\0') {
            *pos = at;
            return -1;
        }
        int32_t first = skipBlanks(text, at);
        if (text[first] == '[') {
            // The next section begins; stay in front of it.
            *pos = at;
            return -1;
        }
        if (text[first] == ';' || isLineEnd(text[first]) || text[first] == '\0') {
            // Comment, or a line holding nothing but blanks.
            at = skipToLineEnd(text, first);
            continue;
        }
        at = first;
        break;
    }

    int32_t kept = 0;
    bool keyCut = false;
    for (; text[at] != '\0' && text[at] != '=' && !isLineEnd(text[at]); at++) {
        if (kept == kIniKeySize - 1) {
            keyCut = true;
            break;
        }
        char c = text[at];
        key[kept++] = upperCase ? static_cast<char>(toupper(static_cast<unsigned char>(c))) : c;
    }
    key[kept] = '\0';

    kept = 0;
    if (!keyCut && text[at] == '=') {
        for (at++; text[at] != '\0' && !isLineEnd(text[at]); at++) {
            if (kept >= valueSize - 1) break;
            value[kept++] = text[at];
        }
    }
    if (valueSize > 0) value[kept] = '\0';

    // Whatever did not fit is dropped with the rest of the line.
    *pos = skipLineEnds(text, skipToLineEnd(text, at));
    return 0;
}
