// Status-code texts from the compiled message file shipped beside the program.
#pragma once
#include <cstdint>

void setMessageFile(const char* directory, const char* fileName);
// Text of a status code with the argument markers filled in; valid until the next call.
const char* getMessage(int32_t code);
void setMessageArg(uint32_t slot, const char* text);
void setMessageOverride(int32_t code, const char* text);
void reloadMessageFile();
// Directory of the running program (links resolved, trailing "/") into out (512 bytes);
// returns its length.
int32_t getProgramDirectory(char* out, const char* argv0);
