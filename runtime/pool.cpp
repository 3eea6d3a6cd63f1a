// Sized memory blocks, growable buffers and the pooled allocator.
//
// Sized blocks (memAlloc) keep a 32-bit header with the requested size + 8 in the four bytes
// in front of the caller's pointer. The pointer itself stays aligned for any type: the system
// block starts kBlockPrefix bytes earlier and the header sits at the end of that prefix.
//
// Library blocks (libAlloc) use the same header convention. Small and medium ones are carved
// out of two POMAllocator pools, large ones come from the system; see libAlloc below.
#include "runtime/pool.h"
#include "runtime/status.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

const uint32_t kBlockPrefix = alignof(std::max_align_t) < 16 ? 16 : alignof(std::max_align_t);

inline uint32_t readWord(const void* at) {
    uint32_t v;
    std::memcpy(&v, at, 4);
    return v;
}

inline void writeWord(void* at, uint32_t v) {
    std::memcpy(at, &v, 4);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Installer-level sized blocks.

void* memAlloc(uint32_t n) {
    if (n > 0xFFFFFFFFu - 8) return nullptr;
    unsigned char* base = static_cast<unsigned char*>(std::malloc(size_t(n) + kBlockPrefix));
    if (!base) return nullptr;
    unsigned char* p = base + kBlockPrefix;
    writeWord(p - 4, n + 8);
    return p;
}

void memFree(void* p) {
    if (!p) return;
    std::free(static_cast<unsigned char*>(p) - kBlockPrefix);
}

void* memRealloc(void* p, uint32_t n) {
    if (!p) return memAlloc(n);
    if (n > 0xFFFFFFFFu - 8) return nullptr;
    unsigned char* base = static_cast<unsigned char*>(p) - kBlockPrefix;
    unsigned char* grown = static_cast<unsigned char*>(std::realloc(base, size_t(n) + kBlockPrefix));
    if (!grown) return nullptr;
    unsigned char* q = grown + kBlockPrefix;
    writeWord(q - 4, n + 8);
    return q;
}

uint32_t memCapacity(const void* p) {
    if (!p) return 0;
    uint32_t header = readWord(static_cast<const unsigned char*>(p) - 4);
    return header < 8 ? 0 : header - 8;
}

int32_t bufAppend(char** buffer, int32_t* length, const void* data, int32_t count) {
    if (count < 0 || *length < 0) return kOutOfMemory;
    int64_t used = *length;
    int64_t needed = used + count;
    if (needed > 0x7FFFFFFF) return kOutOfMemory;
    if (needed > int64_t(memCapacity(*buffer))) {
        int64_t grown = 2 * used;
        if (used + count + 8 > grown) grown = used + count + 8;
        if (grown > 0x7FFFFFFF) return kOutOfMemory;
        void* q = memRealloc(*buffer, uint32_t(grown));
        if (!q) return kOutOfMemory;
        *buffer = static_cast<char*>(q);
    }
    if (data && count > 0 && *buffer) std::memcpy(*buffer + used, data, size_t(count));
    *length = int32_t(needed);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// POMAllocator
//
// Big block layout: 8 bytes of links (two 32-bit block numbers: previous, next; 0 = none),
// then chunks tiling the rest of the block. Block numbers are 1-based indices into a side
// table of block addresses, which keeps the link area at 8 bytes on every platform.
//
// Chunk header (8 bytes): word 0 = size << 2 | flags (bit 0 pooled, bit 1 free);
// word 1 = offset of the chunk in its block (low 16 bits) and offset of the chunk before it
// (high 16 bits, 0 for the first chunk); zero for unpooled chunks. The size counts the
// caller's bytes only. A free chunk keeps its free-list links in its first 8 bytes, again as
// two 32-bit references (block number << 13 | offset / 8; 0 = none).

namespace {

const uint32_t kPooled = 1;
const uint32_t kFree = 2;
const uint32_t kMaxChunkSize = 0x3FFFFFFF;
const uint32_t kFirstChunk = 8;

struct ChunkView {
    unsigned char* header;  // address of the 8-byte chunk header
    uint32_t size() const { return readWord(header) >> 2; }
    uint32_t flags() const { return readWord(header) & 3; }
    uint32_t offset() const { return readWord(header + 4) & 0xFFFF; }
    uint32_t prevOffset() const { return readWord(header + 4) >> 16; }
    unsigned char* data() const { return header + 8; }
    void setHeader(uint32_t size, uint32_t flags) { writeWord(header, size << 2 | flags); }
    void setOffsets(uint32_t self, uint32_t prev) { writeWord(header + 4, self | prev << 16); }
    void setPrevOffset(uint32_t prev) { setOffsets(offset(), prev); }
};

inline ChunkView chunkOf(void* p) {
    return ChunkView{static_cast<unsigned char*>(p) - 8};
}

inline uint32_t roundUp8(uint32_t n) {
    return (n + 7) & ~7u;
}

}  // namespace

namespace {

struct PoolState {
    unsigned char** blocks = nullptr;  // side table: block number - 1 -> address (null = unused)
    uint32_t blockSlots = 0;
    uint32_t firstBlock = 0;        // head of the block list (block number), newest first
    uint32_t* freeLists = nullptr;  // heads (chunk references), one per size class plus one
    uint32_t listCount = 0;
};

struct Pool {
    PoolState* impl;
    uint32_t maxPooled;
    uint32_t blockSize;

    unsigned char* block(uint32_t number) const { return impl->blocks[number - 1]; }

    uint32_t listFor(uint32_t size) const { return size <= maxPooled ? (size - 1) / 8 : impl->listCount - 1; }

    // Block number of a chunk's big block, found through the block's links.
    uint32_t blockNumber(unsigned char* blockStart) const {
        uint32_t prev = readWord(blockStart);
        if (prev) return readWord(block(prev) + 4);
        return impl->firstBlock;
    }

    uint32_t refOf(ChunkView c) const {
        unsigned char* start = c.header - c.offset();
        return blockNumber(start) << 13 | c.offset() >> 3;
    }

    ChunkView chunkAt(uint32_t ref) const { return ChunkView{block(ref >> 13) + ((ref & 0x1FFF) << 3)}; }

    static unsigned char* blockStart(ChunkView c) { return c.header - c.offset(); }

    bool hasNext(ChunkView c) const { return c.offset() + 8 + c.size() < blockSize; }
    static ChunkView next(ChunkView c) { return ChunkView{c.header + 8 + c.size()}; }

    void pushFree(ChunkView c) {
        c.setHeader(c.size(), kPooled | kFree);
        uint32_t list = listFor(c.size());
        uint32_t ref = refOf(c);
        uint32_t head = impl->freeLists[list];
        writeWord(c.data(), 0);
        writeWord(c.data() + 4, head);
        if (head) writeWord(chunkAt(head).data(), ref);
        impl->freeLists[list] = ref;
    }

    void unlinkFree(ChunkView c) {
        uint32_t prev = readWord(c.data());
        uint32_t next = readWord(c.data() + 4);
        if (prev)
            writeWord(chunkAt(prev).data() + 4, next);
        else
            impl->freeLists[listFor(c.size())] = next;
        if (next) writeWord(chunkAt(next).data(), prev);
        c.setHeader(c.size(), kPooled);
    }

    // Cuts chunk c (in use) down to size and turns the rest into a free chunk, merged with a
    // free chunk behind it. The caller has checked that c.size() >= size + 16.
    void split(ChunkView c, uint32_t size) {
        uint32_t rest = c.size() - size - 8;
        c.setHeader(size, kPooled);
        ChunkView tail{c.data() + size};
        tail.setHeader(rest, kPooled);
        tail.setOffsets(c.offset() + 8 + size, c.offset());
        if (hasNext(tail)) {
            ChunkView after = next(tail);
            if (after.flags() & kFree) {
                unlinkFree(after);
                tail.setHeader(rest + 8 + after.size(), kPooled);
                if (hasNext(tail)) next(tail).setPrevOffset(tail.offset());
            } else {
                after.setPrevOffset(tail.offset());
            }
        }
        pushFree(tail);
    }

    // Merges the free chunk following c (if any) into c; c stays in use.
    void absorbNext(ChunkView c) {
        if (!hasNext(c)) return;
        ChunkView after = next(c);
        if (!(after.flags() & kFree)) return;
        unlinkFree(after);
        c.setHeader(c.size() + 8 + after.size(), c.flags());
        if (hasNext(c)) next(c).setPrevOffset(c.offset());
    }
};

}  // namespace

struct POMAllocator::Impl : PoolState {};

POMAllocator::POMAllocator(uint32_t maxPooled, uint32_t blockSize, AllocHook allocHook,
                           ReleaseHook releaseHook, ReallocHook reallocHook)
    : impl_(nullptr),
      maxPooled_(maxPooled < 8 ? 8 : (maxPooled > 32768 ? 32768 : maxPooled)),
      blockSize_(blockSize > 65536 ? 65536 : blockSize & ~7u),
      blocksAllocated_(0),
      allocHook_(allocHook),
      releaseHook_(releaseHook),
      reallocHook_(reallocHook) {
    impl_ = static_cast<Impl*>(std::malloc(sizeof(Impl)));
    if (impl_) new (impl_) Impl();
}

POMAllocator::~POMAllocator() {
    if (!impl_) return;
    for (uint32_t i = 0; i < impl_->blockSlots; i++) {
        if (!impl_->blocks[i]) continue;
        if (releaseHook_)
            releaseHook_(impl_->blocks[i]);
        else
            std::free(impl_->blocks[i]);
    }
    std::free(impl_->blocks);
    std::free(impl_->freeLists);
    impl_->~Impl();
    std::free(impl_);
}

void* POMAllocator::allocate(uint32_t n) {
    if (n < 8) n = 8;
    if (n > kMaxChunkSize) return nullptr;
    // Requests that could not fit into a big block are served like large ones.
    if (n > maxPooled_ || !impl_ || roundUp8(n) + 16 > blockSize_) {
        unsigned char* raw =
            static_cast<unsigned char*>(allocHook_ ? allocHook_(n + 8) : std::malloc(size_t(n) + 8));
        if (!raw) return nullptr;
        ChunkView c{raw};
        c.setHeader(n, 0);
        writeWord(raw + 4, 0);
        return c.data();
    }
    n = roundUp8(n);
    Pool pool{impl_, maxPooled_, blockSize_};

    if (impl_->freeLists) {
        uint32_t own = (n - 1) / 8;
        uint32_t last = impl_->listCount - 1;
        uint32_t found = last + 1;
        if (impl_->freeLists[own])
            found = own;
        else if (impl_->freeLists[last])
            found = last;
        else {
            for (uint32_t i = own + 1; i < last; i++) {
                if (impl_->freeLists[i]) {
                    found = i;
                    break;
                }
            }
        }
        if (found <= last) {
            ChunkView c = pool.chunkAt(impl_->freeLists[found]);
            pool.unlinkFree(c);
            if (c.size() >= n + 16) pool.split(c, n);
            return c.data();
        }
    }

    // No free chunk is large enough: take a new big block.
    if (!impl_->freeLists) {
        uint32_t lists = (maxPooled_ - 1) / 8 + 2;
        impl_->freeLists = static_cast<uint32_t*>(std::calloc(lists, sizeof(uint32_t)));
        if (!impl_->freeLists) return nullptr;
        impl_->listCount = lists;
    }
    uint32_t slot = 0;
    while (slot < impl_->blockSlots && impl_->blocks[slot]) slot++;
    if (slot == impl_->blockSlots) {
        uint32_t grown = impl_->blockSlots ? impl_->blockSlots * 2 : 8;
        if (grown > (1u << 19)) grown = 1u << 19;
        if (slot >= grown) return nullptr;
        void* table = std::realloc(impl_->blocks, grown * sizeof(unsigned char*));
        if (!table) return nullptr;
        impl_->blocks = static_cast<unsigned char**>(table);
        for (uint32_t i = impl_->blockSlots; i < grown; i++) impl_->blocks[i] = nullptr;
        impl_->blockSlots = grown;
    }
    unsigned char* start =
        static_cast<unsigned char*>(allocHook_ ? allocHook_(blockSize_) : std::malloc(blockSize_));
    if (!start) {
        if (impl_->firstBlock == 0) {
            std::free(impl_->freeLists);
            impl_->freeLists = nullptr;
            impl_->listCount = 0;
        }
        return nullptr;
    }
    uint32_t number = slot + 1;
    impl_->blocks[slot] = start;
    writeWord(start, 0);
    writeWord(start + 4, impl_->firstBlock);
    if (impl_->firstBlock) writeWord(pool.block(impl_->firstBlock), number);
    impl_->firstBlock = number;
    blocksAllocated_++;

    ChunkView first{start + kFirstChunk};
    first.setOffsets(kFirstChunk, 0);
    if (n + 16 + 16 <= blockSize_) {
        first.setHeader(n, kPooled);
        ChunkView rest{start + n + 16};
        rest.setHeader(blockSize_ - (n + 16) - 8, kPooled);
        rest.setOffsets(n + 16, kFirstChunk);
        pool.pushFree(rest);
    } else {
        // Too little would be left for a chunk of its own: the first chunk takes the block.
        first.setHeader(blockSize_ - 16, kPooled);
    }
    return first.data();
}

int32_t POMAllocator::release(void* p) {
    if (!p) return kBadPoolPointer;
    ChunkView c = chunkOf(p);
    if (!(c.flags() & kPooled)) {
        if (c.flags() & kFree) return kBadPoolPointer;
        if (releaseHook_)
            releaseHook_(c.header);
        else
            std::free(c.header);
        return 0;
    }
    if ((c.flags() & kFree) || !impl_ || !impl_->freeLists) return kBadPoolPointer;
    Pool pool{impl_, maxPooled_, blockSize_};

    if (c.prevOffset()) {
        ChunkView before{Pool::blockStart(c) + c.prevOffset()};
        if (before.flags() & kFree) {
            pool.unlinkFree(before);
            before.setHeader(before.size() + 8 + c.size(), kPooled);
            c = before;
            if (pool.hasNext(c)) Pool::next(c).setPrevOffset(c.offset());
        }
    }
    pool.absorbNext(c);

    if (c.offset() == kFirstChunk && c.size() + 16 == blockSize_) {
        unsigned char* start = Pool::blockStart(c);
        uint32_t number = pool.blockNumber(start);
        uint32_t prev = readWord(start);
        uint32_t next = readWord(start + 4);
        if (prev)
            writeWord(pool.block(prev) + 4, next);
        else
            impl_->firstBlock = next;
        if (next) writeWord(pool.block(next), prev);
        impl_->blocks[number - 1] = nullptr;
        if (releaseHook_)
            releaseHook_(start);
        else
            std::free(start);
        if (impl_->firstBlock == 0) {
            std::free(impl_->freeLists);
            impl_->freeLists = nullptr;
            impl_->listCount = 0;
        }
        return 0;
    }
    pool.pushFree(c);
    return 0;
}

void* POMAllocator::reallocate(void* p, uint32_t n) {
    if (!p) return allocate(n);
    ChunkView c = chunkOf(p);
    uint32_t oldSize = c.size();
    bool pooled = (c.flags() & kPooled) != 0;

    if (pooled && n <= maxPooled_ && impl_ && impl_->freeLists) {
        Pool pool{impl_, maxPooled_, blockSize_};
        uint32_t want = n < 8 ? 8 : roundUp8(n);
        if (want <= oldSize) {
            if (oldSize >= want + 16) pool.split(c, want);
            return p;
        }
        pool.absorbNext(c);
        if (c.size() < want && c.prevOffset()) {
            ChunkView before{Pool::blockStart(c) + c.prevOffset()};
            if ((before.flags() & kFree) && before.size() + 8 + c.size() >= want) {
                pool.unlinkFree(before);
                before.setHeader(before.size() + 8 + c.size(), kPooled);
                std::memmove(before.data(), c.data(), oldSize);
                c = before;
                if (pool.hasNext(c)) Pool::next(c).setPrevOffset(c.offset());
            }
        }
        if (c.size() >= want) {
            if (c.size() >= want + 16) pool.split(c, want);
            return c.data();
        }
        // Still too small: fall through to a fresh chunk (the absorbed space goes back
        // with the old chunk).
    } else if (!pooled && n > maxPooled_) {
        if (n > kMaxChunkSize) return nullptr;
        unsigned char* raw = static_cast<unsigned char*>(
            reallocHook_ ? reallocHook_(c.header, n + 8) : std::realloc(c.header, size_t(n) + 8));
        if (!raw) return nullptr;
        ChunkView moved{raw};
        moved.setHeader(n, 0);
        writeWord(raw + 4, 0);
        return moved.data();
    }

    void* fresh = allocate(n);
    if (!fresh) return nullptr;
    std::memcpy(fresh, c.data(), oldSize < n ? oldSize : n);
    release(c.data());
    return fresh;
}

void POMAllocator::printStatistics() {
    std::printf("POMAllocator:  block size = %d\n", int(blockSize_));
    std::printf("POMAllocator:  number of blocks allocated = %d\n", int(blocksAllocated_));
    std::printf("POMAllocator:  minimum allocation size = %d\n", 8);
    std::printf("POMAllocator:  maximum allocation size = %d\n", int(maxPooled_));
    if (!impl_ || !impl_->freeLists) return;
    Pool pool{impl_, maxPooled_, blockSize_};
    for (uint32_t i = 0; i < impl_->listCount; i++) {
        uint32_t ref = impl_->freeLists[i];
        int size = ref ? int(pool.chunkAt(ref).size()) : 0;
        int count = 0;
        while (ref) {
            count++;
            ref = readWord(pool.chunkAt(ref).data() + 4);
        }
        std::printf("POMAllocator:    free list[%d] total entries = %d\n", size, count);
    }
}

// ---------------------------------------------------------------------------------------------
// Library-level blocks.
//
// Header values: up to 512 for the small pool, 513 ... 32768 for the medium pool (the block's
// size n + 8 rounded up to 8), and n + 8 rounded up to a multiple of 1024 (above 32768) for
// blocks taken straight from the system. Capacity is always header - 8.
//
// Pool chunks are only 8-byte aligned, so each library block asks its pool for 8 bytes more
// and places the caller's pointer at the first 16-byte boundary that leaves room for the
// header; the distance from the chunk start (8 or 16) is kept in the word before the header.

namespace {

bool gShuttingDown = false;
POMAllocator* gSmallPool = nullptr;
POMAllocator* gMediumPool = nullptr;

POMAllocator* smallPool() {
    if (!gSmallPool) gSmallPool = new (std::nothrow) POMAllocator(512, 8192);
    return gSmallPool;
}

POMAllocator* mediumPool() {
    if (!gMediumPool) gMediumPool = new (std::nothrow) POMAllocator(32768, 65536);
    return gMediumPool;
}

const uint32_t kSmallLimit = 512;
const uint32_t kMediumLimit = 32768;

}  // namespace

void libSetShuttingDown(bool on) {
    gShuttingDown = on;
}

void* libAlloc(int32_t n) {
    if (n < 0) return nullptr;
    uint32_t header = (uint32_t(n) + 8 + 7) & ~7u;
    if (header > kMediumLimit) {
        uint32_t size = uint32_t((uint64_t(n) + 8 + 1023) & ~uint64_t(1023));
        unsigned char* base = static_cast<unsigned char*>(std::malloc(size_t(size) - 8 + kBlockPrefix));
        if (!base) return nullptr;
        unsigned char* p = base + kBlockPrefix;
        writeWord(p - 8, kBlockPrefix);
        writeWord(p - 4, size);
        return p;
    }
    POMAllocator* pool = header <= kSmallLimit ? smallPool() : mediumPool();
    if (!pool) return nullptr;
    unsigned char* chunk = static_cast<unsigned char*>(pool->allocate(header + 8));
    if (!chunk) return nullptr;
    uint32_t pad = (reinterpret_cast<uintptr_t>(chunk) & 15) == 8 ? 8 : 16;
    unsigned char* p = chunk + pad;
    writeWord(p - 8, pad);
    writeWord(p - 4, header);
    return p;
}

void libFree(void* p) {
    if (!p || gShuttingDown) return;
    unsigned char* q = static_cast<unsigned char*>(p);
    uint32_t header = readWord(q - 4);
    uint32_t pad = readWord(q - 8);
    if (header > kMediumLimit) {
        std::free(q - kBlockPrefix);
        return;
    }
    POMAllocator* pool = header <= kSmallLimit ? gSmallPool : gMediumPool;
    if (pool) pool->release(q - pad);
}

void* libRealloc(void* p, int32_t n) {
    if (!p) return libAlloc(n);
    if (n < 0) return nullptr;
    void* fresh = libAlloc(n);
    if (!fresh) return nullptr;
    uint32_t keep = memCapacity(p);
    if (keep > uint32_t(n)) keep = uint32_t(n);
    std::memcpy(fresh, p, keep);
    libFree(p);
    return fresh;
}
