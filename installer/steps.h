// Steps of the installation chain that live in their own modules.
#pragma once
#include <cstdint>

int32_t queryEclipseLocation();
