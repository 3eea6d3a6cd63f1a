// File copy and directory utilities; failures are reported here through printMessage.
#pragma once
#include <cstdint>

void appendSlash(char* path);  // path buffer of 512 bytes
void stripTrailingSlash(char* path);
void cutToParentDir(char* path);
int32_t pathExists(const char* path);
int32_t getFileMode(const char* path, uint32_t* mode);
int32_t isReadableFile(const char* path);
int32_t canWritePath(const char* path);
int32_t copyFile(const char* source, const char* destination);
// copyFile whose destination is reached from root without a link that leads out of it (confine.h);
// a refused destination is reported as such. A null root is copyFile.
int32_t copyFileWithin(const char* source, const char* destination, const char* root);
int32_t makeDirectory(const char* path, uint32_t mode);
int32_t makeDirectoryTree(const char* path);
int32_t ensureDirectory(const char* path, int32_t ask);
// Formats into a path buffer of 512 bytes; 1 (and an empty buffer) when the result would not
// fit. A cut path would name some other file, so callers refuse it instead of using it.
int32_t formatPath(char* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
