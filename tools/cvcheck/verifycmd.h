// cvcheck verify: re-checks an installation against its dated file list.
#pragma once

// Checks every listed file that the installation does not change itself; prints one line per
// file that differs and a summary, or one JSON document with json. Returns the exit status: 0
// nothing differs, 1 something does, 2 the installation cannot be checked.
int runVerify(const char* dir, bool json);
