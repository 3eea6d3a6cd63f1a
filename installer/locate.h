// Finding the directory that holds the installer and its distribution.
#pragma once
#include <cstdint>

// Fills out (1024 bytes, ends in "/"); may change the current directory. 0 or non-zero.
int32_t findDistributionDir(const char* programName, char* out);
// Changes into the directory part of program (which holds a "/"); out gets the new absolute
// current directory with "/" (1024 bytes). 0, or 1 on failure.
int32_t changeToProgramDir(const char* program, char* out);
// Searches a bare name along PATH; outDir (512 bytes) gets the directory with "/". 0 or 1.
int32_t searchProgramInPath(const char* name, char* outDir);
// Copies path up to and including its last "/" into out (size bytes).
void dirPartOf(const char* path, char* out, int32_t size);
