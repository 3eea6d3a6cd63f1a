// The editor as an Eclipse plug-in: the Eclipse location, the plug-in layout and its launch script.
#pragma once
#include <cstdint>

// Asks for the Eclipse (or WebSphere Studio) installation until one is recognised. 0, or 1
// when the user gives up or input ends.
int32_t queryEclipseLocation();
// Moves the unpacked plug-in tree to its versioned directories in the plug-in layout directory
// and registers it through a link file in the Eclipse location. 0 or 1.
int32_t layOutEclipsePlugin();
// Writes "eclipse-cv" into the Eclipse location (after asking before replacing one). Always 0.
int32_t writeEclipseLaunchScript();
