// Device nodes, FIFOs and sockets have no place in an editor installation. tar, run as root,
// creates whatever the package holds: a block device node with mode 0666 would make a raw disk
// writable by every user, and a FIFO would make whoever reads it wait for ever.
#pragma once
#include <ctime>

#include <cstdint>

// The time before unpacking that tells what unpacking made. Everything already there has a status
// change time at or before it; on return, the clocks the kernel stamps files with have passed it,
// so that whatever is made from now on carries a later time (waits at most one clock tick).
void markBeforeUnpacking(struct timespec* mark);
// Removes the device nodes, FIFOs and sockets in dir (ends in "/") whose status changed after
// since, the mark taken before unpacking: those the package brought. As root, it also takes the
// write permission of other users from the package's files and directories. What was there before
// is left alone.
// Each removal, and a permission that could not be taken, is reported; 0 when there was none, 1
// after the reports.
int32_t removeSpecialFiles(const char* dir, const struct timespec& since);
