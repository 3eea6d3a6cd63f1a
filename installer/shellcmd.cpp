// Building and running shell commands. File names are inserted so that the shell always
// sees them as one word holding exactly the given text, whatever characters they contain.
#include "installer/shellcmd.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Output under construction; a command that does not fit marks it overflowed.
struct CommandText {
    char* out;
    int32_t size;
    int32_t pos;
    bool overflow;
};

void putChar(CommandText* text, char c) {
    if (text->pos + 1 >= text->size) {
        text->overflow = true;
        return;
    }
    text->out[text->pos++] = c;
}

void putText(CommandText* text, const char* s) {
    while (*s != '\0' && !text->overflow) putChar(text, *s++);
}

// Characters that mean nothing special to the shell anywhere in a word.
bool isOrdinary(char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
    return strchr("_./-+,:=@%", c) != nullptr && c != '\0';
}

bool allOrdinary(const char* s) {
    for (; *s != '\0'; s++) {
        if (!isOrdinary(*s)) return false;
    }
    return true;
}

// Puts s in single quotes; a single quote inside becomes '\'' (close, escaped quote, reopen).
void putSingleQuoted(CommandText* text, const char* s) {
    putChar(text, '\'');
    for (; *s != '\0' && !text->overflow; s++) {
        if (*s == '\'') {
            putText(text, "'\\''");
        } else {
            putChar(text, *s);
        }
    }
    putChar(text, '\'');
}

// The span out[start] .. out[pos - 1] was written with its opening quote at out[start] and
// without a closing one. Either closes it as written or, when the composed text would mean
// something else to the shell inside that kind of quote, rewrites it in place as one
// single-quoted word. The rewrite only ever grows the text, so it runs from right to left.
void finishSpan(CommandText* text, int32_t start, char quote) {
    if (text->overflow) return;
    const char* content = text->out + start + 1;
    int32_t length = text->pos - start - 1;
    bool safe = true;
    int32_t singleQuotes = 0;
    for (int32_t i = 0; i < length; i++) {
        char c = content[i];
        if (c == '\'') singleQuotes++;
        if (quote == '"' && (c == '"' || c == '$' || c == '`' || c == '\\' || c == '\n')) safe = false;
        if (quote == '\'' && c == '\'') safe = false;
    }
    if (safe) {
        putChar(text, quote);
        return;
    }
    int32_t newLength = length + 2 + 3 * singleQuotes;
    if (start + newLength + 1 > text->size) {
        text->overflow = true;
        return;
    }
    int32_t dst = start + newLength - 1;
    text->out[dst--] = '\'';
    for (int32_t i = length - 1; i >= 0; i--) {
        char c = text->out[start + 1 + i];
        if (c == '\'') {
            text->out[dst--] = '\'';
            text->out[dst--] = '\'';
            text->out[dst--] = '\\';
            text->out[dst--] = '\'';
        } else {
            text->out[dst--] = c;
        }
    }
    text->out[start] = '\'';
    text->pos = start + newLength;
}

// Formats behind the first `start` characters of out; the two public entries differ only there.
int32_t formatAt(char* out, int32_t size, int32_t start, const char* format, va_list* args) {
    if (out == nullptr || size <= 0 || start >= size) return 1;
    CommandText text = {out, size, start, false};

    char spanQuote = '\0';  // quote character of the span of the format we are in, if any
    int32_t spanStart = 0;
    const char* f = format;
    while (*f != '\0' && !text.overflow) {
        char c = *f;
        if (c == '%' && f[1] == '%') {
            putChar(&text, '%');
            f += 2;
        } else if (c == '%' && f[1] == 's') {
            const char* arg = va_arg(*args, const char*);
            if (arg == nullptr) arg = "";
            // Inside a quoted span the text is checked with the whole span when it closes.
            if (spanQuote != '\0' || allOrdinary(arg)) {
                putText(&text, arg);
            } else {
                putSingleQuoted(&text, arg);
            }
            f += 2;
        } else if (c == '%' && f[1] == 'd') {
            // Numbers are made of ordinary characters wherever they stand.
            char number[16];
            snprintf(number, sizeof(number), "%d", va_arg(*args, int));
            putText(&text, number);
            f += 2;
        } else if (spanQuote != '\0' && c == spanQuote) {
            finishSpan(&text, spanStart, spanQuote);
            spanQuote = '\0';
            f++;
        } else if (spanQuote == '\0' && (c == '"' || c == '\'')) {
            spanQuote = c;
            spanStart = text.pos;
            putChar(&text, c);
            f++;
        } else if (spanQuote == '\0' && c == '\\' && f[1] != '\0') {
            // An escaped character of the format itself stays escaped (and opens no span).
            putChar(&text, c);
            putChar(&text, f[1]);
            f += 2;
        } else {
            putChar(&text, c);
            f++;
        }
    }
    // A span the format never closes is still closed, so the shell sees one word.
    if (spanQuote != '\0') finishSpan(&text, spanStart, spanQuote);

    if (text.overflow) {
        out[0] = '\0';
        return 1;
    }
    out[text.pos] = '\0';
    return 0;
}

}  // namespace

int32_t formatShellCommand(char* out, int32_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t result = formatAt(out, size, 0, format, &args);
    va_end(args);
    return result;
}

int32_t appendShellCommand(char* out, int32_t size, const char* format, ...) {
    if (out == nullptr || size <= 0) return 1;
    va_list args;
    va_start(args, format);
    int32_t result =
        formatAt(out, size, static_cast<int32_t>(strnlen(out, static_cast<size_t>(size))), format, &args);
    va_end(args);
    return result;
}

int32_t runShell(const char* command) {
    // Our own buffered output has to appear before whatever the command prints.
    fflush(stdout);
    return system(command);
}

FILE* openShellPipe(const char* command, const char* mode) {
    fflush(stdout);
    return popen(command, mode);
}

int32_t closeShellPipe(FILE* pipe) {
    return pclose(pipe);
}
