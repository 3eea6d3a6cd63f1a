// Bounded strings and path operations on fixed-size NUL-terminated buffers.
#pragma once
#include <cstdint>

// Copies src into dst (size bytes), cutting silently; size <= 0 still stores dst[0] = 0.
void strCopyBounded(char* dst, const char* src, int32_t size);
// Appends src to dst (size bytes in all), cutting silently; see path.cpp for the exact edge rules.
void strAppendBounded(char* dst, const char* src, int32_t size);

// Last character of path, or a blank (32) for an empty path.
int32_t pathLastChar(const char* path);
// Length of the directory part including its final "/" or "\\"; 0 when there is none.
int32_t pathDirLength(const char* path);
// Extension of the last name (from its last dot, dot included), cut to size - 1 characters.
void pathExtension(const char* path, char* out, int32_t size);
// Edits path in place: 'P' name, 'N' directory, 'E' drop extension, 'B' base name, 'D' drop drive.
void pathPart(char* path, char what);

// Current directory without trailing "/" into out (512 bytes); physical when logical is 0.
int32_t getCurrentDirectory(char* out, int32_t ignored, int32_t logical);
// chdir with the cached logical/physical directories kept up to date; 0 or a status code.
int32_t changeDirectory(const char* path);
// Absolute form of in, directory links resolved, into out (512 bytes).
int32_t pathAbsolute(char* out, const char* in);
// Absolute form with all links resolved (noFollow 0), or collapsed "."/".." only (noFollow != 0).
int32_t pathResolve(char* out, const char* in, int32_t noFollow);
// Finds an executable along a ':'-separated list (the variable listName, "PATH" when null;
// with flag 0x80 listName is the list itself). 0 with the full path in out, -2 when not found.
int32_t pathSearch(char* out, const char* name, const char* listName, int32_t flags, int32_t outSize);
// 1 when the path names something that exists (archive members and directories included).
int32_t entryExists(const char* path);
// Removes one empty directory; 0 or a mapped status code.
int32_t removeDirectory(const char* path);
// Value of an environment variable from a snapshot taken at first use, or null.
const char* envGet(const char* name);
