// The monotonic clock in microseconds, for the bench programs that time one step alone.
#pragma once
#include <ctime>

inline long long nowMicros() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
