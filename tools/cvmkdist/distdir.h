// The files that stand beside the package in a distribution directory: the installer, its
// message file and the licence text, each given by an option and copied under a fixed name.
#pragma once
#include <string>
#include <vector>

#include "tools/cvmkdist/options.h"

// Checks the side files: each one given must be a regular file (else 1 after a message); each
// required one not given is added to missing as "what (--option FILE)".
int checkSideFiles(const MkdistOptions& options, std::vector<std::string>* missing);
// Copies every side file given into the distribution directory.
int copySideFiles(const MkdistOptions& options);
