// Device nodes, FIFOs and sockets have no place in an editor installation. tar, run as root,
// creates whatever the package holds: a block device node with mode 0666 would make a raw disk
// writable by every user, and a FIFO would make whoever reads it wait for ever.
#pragma once
#include <ctime>

#include <cstdint>

// Removes the device nodes, FIFOs and sockets in dir (ends in "/") whose status changed at or after
// since, the time unpacking began: those the package brought. What was there before is left alone.
// Each is reported; 0 when there was none, 1 after the reports.
int32_t removeSpecialFiles(const char* dir, const struct timespec& since);
