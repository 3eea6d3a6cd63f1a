// Status codes answered by the runtime library; getMessage turns them into texts.
#pragma once
#include <cstdint>

enum : int32_t {
    kFileNotFound = -2,
    kPathNotFound = -3,
    kTooManyOpenFiles = -4,
    kAccessDenied = -5,
    kOutOfMemory = -8,
    kNotExecutable = -18,
    kIoError = -23,
    kOpenFailed = -32,
    kReadFailed = -33,
    kWriteFailed = -34,
    kCloseFailed = -35,
    kDeviceFull = -36,
    kInvalidParameter = -52,
    kArchiveAccessOff = -2113,
    kBadPoolPointer = -3073,
    kNotAnArchive = -4134,
    kBadMethod = -4136,
    kCorruptDirectory = -4137,
};
