// Ownership of the installed tree.
#pragma once
#include <cstdint>

// When run by the super-user: gives the installation directory to user 0 and the real group.
// Returns the status of the last command, or the real user id when it is not 0.
int32_t updateOwnership();
