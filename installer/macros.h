// Compiling the editor's macros with the distribution's macro translator.
#pragma once
#include <cstdint>

// Compiles the macros of cmacros.lst in one batch, or every macro one by one when there is no
// list or the batch fails. 0, or 1 when the macros directory cannot be read.
int32_t compileMacros();
// Compiles the macros named in the list file (listSize bytes long) with one translator run and
// touches their compiled forms. 0, or 1 on any failure.
int32_t compileMacroList(const char* listPath, int32_t listSize);
// Compiles every ".e" file of the macros directory by itself. 0, or 1 when it cannot be read.
int32_t compileAllMacros();
