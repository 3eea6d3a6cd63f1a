// The installation directory and its bin, macros and bitmaps subdirectories.
#pragma once
#include <cstdint>

int32_t queryInstallDirectory();
