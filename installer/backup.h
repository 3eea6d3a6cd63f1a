// Backup of the old global configuration files of an earlier installation.
#pragma once
#include <cstdint>

// 1 as soon as one of the configuration files exists in the installation, else 0.
int32_t findFilesToBackUp();
// Copies the configuration files found into a backup directory (preset, or asked for).
// Returns the status of the last copy or test; the installation goes on whatever it is.
int32_t backUpOldConfiguration();
