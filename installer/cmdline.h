// Command-line options.
#pragma once
#include <cstdint>

// Fills the switches and presets of gState; "-h"/"-?" print the usage text and exit(0).
uint32_t parseCommandLine(int argc, char** argv);
void printUsage();
