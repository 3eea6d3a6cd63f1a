// The editor as an Eclipse plug-in.
#pragma once
#include <cstdint>

// Moves the unpacked plug-in tree to its versioned directories and registers it with Eclipse.
int32_t layOutEclipsePlugin();
// Writes the "eclipse-cv" launch script into the Eclipse location. Always 0.
int32_t writeEclipseLaunchScript();
