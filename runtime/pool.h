// Sized memory blocks, growable buffers and the pooled allocator.
#pragma once
#include <cstdint>

// Blocks with a 32-bit header (requested size + 8) in the 4 bytes before the returned,
// suitably aligned pointer.
void* memAlloc(uint32_t n);
void memFree(void* p);
void* memRealloc(void* p, uint32_t n);

// Library-level blocks: small and medium sizes come from pools, large ones from the system.
void* libAlloc(int32_t n);
void libFree(void* p);
void* libRealloc(void* p, int32_t n);
// While set, libFree ignores every release (used while the process shuts down).
void libSetShuttingDown(bool on);

// Capacity of a sized block, read from its header.
uint32_t memCapacity(const void* p);

// Appends count bytes (or reserves them when data is null) to a growable sized block.
// Returns 0, or -8 with buffer and length unchanged when it cannot grow.
int32_t bufAppend(char** buffer, int32_t* length, const void* data, int32_t count);

// Pool of mixed-size chunks carved out of big blocks.
class POMAllocator {
public:
    typedef void* (*AllocHook)(uint32_t size);
    typedef void (*ReleaseHook)(void* p);
    typedef void* (*ReallocHook)(void* p, uint32_t size);

    POMAllocator(uint32_t maxPooled, uint32_t blockSize, AllocHook allocHook = nullptr,
                 ReleaseHook releaseHook = nullptr, ReallocHook reallocHook = nullptr);
    ~POMAllocator();
    POMAllocator(const POMAllocator&) = delete;
    POMAllocator& operator=(const POMAllocator&) = delete;

    void* allocate(uint32_t n);
    int32_t release(void* p);
    void* reallocate(void* p, uint32_t n);
    void printStatistics();

    uint32_t maxPooledSize() const { return maxPooled_; }
    uint32_t blockSize() const { return blockSize_; }
    uint32_t blocksAllocated() const { return blocksAllocated_; }

private:
    struct Impl;
    Impl* impl_;
    uint32_t maxPooled_;
    uint32_t blockSize_;
    uint32_t blocksAllocated_;
    AllocHook allocHook_;
    ReleaseHook releaseHook_;
    ReallocHook reallocHook_;
};
