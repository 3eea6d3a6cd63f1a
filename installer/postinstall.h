// The closing steps: the first start of the editor (or the Eclipse launch script) and the
// completion notes.
#pragma once
#include <cstdint>

// Plug-in mode: writes the launch script. Otherwise starts the editor once in the background
// to build its tag files, or explains why it cannot. Always 0.
int32_t runPostInstall();
void printCompletionNotes();
