// The two files a plug-in installation leaves in the Eclipse installation: the link file
// "links/com.corvane.eclipse.plugin.link" and the launch script "eclipse-cv".
#pragma once
#include <string>

#include "tools/cvcheck/installation.h"

struct EclipseFile {
    std::string path;  // absolute
    int dirFd = -1;    // the directory holding it
    std::string leaf;
    bool exists = false;
    bool ours = false;  // made by this plug-in installation
};

struct EclipseFiles {
    std::string location;  // the Eclipse location (holds .eclipseproduct), ending in "/"
    int fd = -1;
    EclipseFile link, script;
};

// Finds the Eclipse installation in dir or, as the installer does, in dir/eclipse/, and decides
// which of its two files belong to the plug-in installation: the link file when its path names
// the plug-in root, the launch script when it puts the plug-in's bin directory first on the
// library path. 0, or 1 with the reason in *why.
int findEclipseFiles(const char* dir, const Installation& installation, EclipseFiles* files,
                     std::string* why);
void closeEclipseFiles(EclipseFiles* files);
