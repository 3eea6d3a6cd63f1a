// The editor as an Eclipse plug-in: the Eclipse location, the plug-in layout and its launch script.
#pragma once
#include <cstdint>

// Plug-in directories below "eclipse/" as unpacked; the layout step gives each the plug-in
// version behind its name ("_10.0.0").
enum { kPluginDirCount = 3 };
extern const char* const kPluginDirs[kPluginDirCount];
// The link file in the Eclipse location's "links" directory, and the launch script there.
inline constexpr char kEclipseLinkFile[] = "com.corvane.eclipse.plugin.link";
inline constexpr char kLaunchScript[] = "eclipse-cv";

// Asks for the Eclipse (or WebSphere Studio) installation until one is recognised. 0, or 1
// when the user gives up or input ends.
int32_t queryEclipseLocation();
// Moves the unpacked plug-in tree to its versioned directories in the plug-in layout directory
// and registers it through a link file in the Eclipse location. 0 or 1.
int32_t layOutEclipsePlugin();
// Writes "eclipse-cv" into the Eclipse location (after asking before replacing one). Always 0.
int32_t writeEclipseLaunchScript();
