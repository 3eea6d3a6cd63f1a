// The editor's second program name, and removal of the distribution after the installation.
#pragma once
#include <cstdint>

// Makes bin/cvt a symbolic link to "cvtw" (run from the installation directory). 0 or 1.
int32_t createLinks();
// With "-cleanup": removes the distribution directory.
void cleanupDistribution();
