// Command-line options.
#pragma once
#include <cstdint>

// Fills the switches and presets of gState; "-h"/"-?" print the usage text and exit(0).
uint32_t parseCommandLine(int argc, char** argv);
// The parse itself: 1 at the first "-h"/"-?" (arguments behind it not examined), else 0.
int32_t scanCommandLine(int argc, char** argv);
void printUsage();
