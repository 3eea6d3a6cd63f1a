// Environment checks: tools on PATH, the X server, free disk space.
#pragma once
#include <cstdint>

int32_t checkTools();
int32_t probeXServer();
int32_t checkXServer();
void estimateDiskSpace(int32_t* baseMB, int32_t* totalMB);
int32_t checkDiskSpace();
int32_t slowDiskSpaceCheck(int32_t neededMB);
