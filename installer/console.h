// Terminal output and questions shared by every step.
#pragma once
#include <cstdint>
#include <cstdio>

// The line of 61 asterisks that frames the banner, boxes and the completion notes.
inline constexpr char kStarLine[] = "*************************************************************";

// Where questions read their answers; null means stdin. Tests point it elsewhere.
extern FILE* gConsoleIn;

// ">>> " trace line, only when verbose is on; the format supplies its own "\n".
void printVerbose(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "Corvane Install: %s\n"
int32_t printMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));
// "\n***\n%s\n***\n"
int32_t printBoxed(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Word-wraps text at 60 columns and prints it boxed.
int32_t printWrapped(const char* text);
// Status line padded or cut to 72 characters, ended by "\r" and flushed.
void printProgress(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Yes/no question: 0 with *answer set, 1 at end of input (answer unchanged).
int32_t askYesNo(const char* prompt, int32_t* answer, int32_t defaultAnswer);
// Directory question (format shows the current value through its one %s); 0, or 1 at end of input.
int32_t promptDirectory(const char* format, char* directory);
// Free-text question (format shows the current value through its one %s); 0, or 1 at end of input.
int32_t promptLine(const char* format, char* answer);

void trimLine(char* text);
void toLowerInPlace(char* text);
// Runs a shell command and captures at most size bytes of its output into buffer
// (which holds size + 1 bytes); 0, or 1 when the pipe fails or nothing was read.
int32_t runCommandCapture(const char* command, char* buffer, int32_t size);
// The n-th (1-based) field of text split at sep, in a static buffer; null when missing.
const char* fieldOf(const char* text, int32_t n, char sep);
