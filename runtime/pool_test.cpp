#include "runtime/pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

uint32_t headerWord(const void* p, int back) {
    uint32_t v;
    std::memcpy(&v, static_cast<const unsigned char*>(p) - back, 4);
    return v;
}

bool aligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15) == 0; }

// ---- sized blocks and buffers ----

TEST(SizedBlock, CapacityComesFromTheHeader) {
    void* p = memAlloc(10);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(headerWord(p, 4), 18u);
    EXPECT_EQ(memCapacity(p), 10u);
    EXPECT_TRUE(aligned16(p));
    std::memset(p, 'x', 10);
    p = memRealloc(p, 3000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(memCapacity(p), 3000u);
    EXPECT_TRUE(aligned16(p));
    EXPECT_EQ(static_cast<char*>(p)[9], 'x');
    memFree(p);
    EXPECT_EQ(memCapacity(nullptr), 0u);
}

TEST(SizedBlock, ReallocOfNullAllocates) {
    void* p = memRealloc(nullptr, 7);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(memCapacity(p), 7u);
    memFree(p);
    memFree(nullptr);
}

TEST(SizedBlock, HoldsAnArrayOfPointers) {
    const char** table = static_cast<const char**>(memAlloc(5 * sizeof(char*)));
    ASSERT_NE(table, nullptr);
    for (int i = 0; i < 5; i++) table[i] = "t";
    table = static_cast<const char**>(memRealloc(table, 50 * sizeof(char*)));
    ASSERT_NE(table, nullptr);
    for (int i = 5; i < 50; i++) table[i] = nullptr;
    EXPECT_STREQ(table[4], "t");
    memFree(table);
}

TEST(GrowableBuffer, GrowsToTwiceOrNeededPlusEight) {
    char* buf = static_cast<char*>(memAlloc(10));
    int32_t len = 0;
    ASSERT_EQ(bufAppend(&buf, &len, "abcdef", 6), 0);
    EXPECT_EQ(memCapacity(buf), 10u);  // fits: no growth
    ASSERT_EQ(bufAppend(&buf, &len, "ghijk", 5), 0);
    EXPECT_EQ(len, 11);
    EXPECT_EQ(memCapacity(buf), 19u);  // max(2 * 6, 6 + 5 + 8)
    EXPECT_EQ(std::string(buf, 11), "abcdefghijk");
    ASSERT_EQ(bufAppend(&buf, &len, "0123456789", 10), 0);
    EXPECT_EQ(memCapacity(buf), 29u);  // max(22, 29)
    ASSERT_EQ(bufAppend(&buf, &len, "!", 1), 0);
    ASSERT_EQ(bufAppend(&buf, &len, "0123456789", 9), 0);  // 22 + 9 > 29: max(44, 39)
    EXPECT_EQ(memCapacity(buf), 44u);
    EXPECT_EQ(std::string(buf, len), "abcdefghijk0123456789!012345678");
    memFree(buf);
}

TEST(GrowableBuffer, NullBufferGetsCountPlusEight) {
    char* buf = nullptr;
    int32_t len = 0;
    ASSERT_EQ(bufAppend(&buf, &len, "hello", 5), 0);
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(memCapacity(buf), 13u);
    EXPECT_EQ(len, 5);
    memFree(buf);
}

TEST(GrowableBuffer, NullDataOnlyReserves) {
    char* buf = nullptr;
    int32_t len = 0;
    ASSERT_EQ(bufAppend(&buf, &len, nullptr, 20), 0);
    EXPECT_EQ(len, 20);
    EXPECT_EQ(memCapacity(buf), 28u);
    std::memset(buf, 'r', 20);
    ASSERT_EQ(bufAppend(&buf, &len, "z", 1), 0);
    EXPECT_EQ(buf[19], 'r');
    EXPECT_EQ(buf[20], 'z');
    memFree(buf);
}

TEST(GrowableBuffer, FailedGrowthLeavesBufferAlone) {
    char* buf = nullptr;
    int32_t len = 0;
    ASSERT_EQ(bufAppend(&buf, &len, "abc", 3), 0);
    char* before = buf;
    EXPECT_EQ(bufAppend(&buf, &len, nullptr, 0x7FFFFFFE), -8);  // length would overflow
    EXPECT_EQ(buf, before);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(std::string(buf, 3), "abc");
    memFree(buf);
}

// ---- library-level blocks ----

TEST(LibraryBlock, HeaderRangesAndAlignment) {
    const int32_t sizes[] = {0, 1, 10, 100, 496, 504, 505, 1000, 8000, 32760, 32761, 70000};
    void* blocks[sizeof(sizes) / sizeof(sizes[0])];
    int i = 0;
    for (int32_t n : sizes) {
        void* p = libAlloc(n);
        ASSERT_NE(p, nullptr) << n;
        EXPECT_TRUE(aligned16(p)) << n;
        uint32_t header = headerWord(p, 4);
        EXPECT_GE(memCapacity(p), uint32_t(n)) << n;
        if (n < 505) EXPECT_LE(header, 512u) << n;
        else if (n <= 32760) {
            EXPECT_GE(header, 513u) << n;
            EXPECT_LE(header, 32768u) << n;
        } else {
            EXPECT_EQ(header % 1024, 0u) << n;
            EXPECT_GE(header, uint32_t(n) + 8) << n;
            EXPECT_LT(header, uint32_t(n) + 8 + 1024) << n;
        }
        std::memset(p, 0x5a, memCapacity(p));  // the whole capacity is usable
        blocks[i++] = p;
    }
    EXPECT_EQ(headerWord(blocks[10], 4), 33792u);
    for (void* p : blocks) libFree(p);
    EXPECT_EQ(libAlloc(-1), nullptr);
}

TEST(LibraryBlock, ReleasedSpaceIsReused) {
    void* keep = libAlloc(40);  // keeps the pool's block alive
    void* a = libAlloc(40);
    libFree(a);
    void* b = libAlloc(40);
    EXPECT_EQ(a, b);
    libFree(b);
    libFree(keep);
}

TEST(LibraryBlock, ReallocCopiesAndReleases) {
    char* p = static_cast<char*>(libAlloc(10));
    std::memcpy(p, "0123456789", 10);
    EXPECT_EQ(libRealloc(p, -5), nullptr);
    EXPECT_EQ(std::memcmp(p, "0123456789", 10), 0);  // untouched, still ours
    p = static_cast<char*>(libRealloc(p, 2000));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::memcmp(p, "0123456789", 10), 0);
    p = static_cast<char*>(libRealloc(p, 4));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::memcmp(p, "0123", 4), 0);
    libFree(p);
    char* q = static_cast<char*>(libRealloc(nullptr, 50000));
    ASSERT_NE(q, nullptr);
    EXPECT_GE(memCapacity(q), 50000u);
    libFree(q);
}

TEST(LibraryBlock, ReleasesIgnoredWhileShuttingDown) {
    char* p = static_cast<char*>(libAlloc(40000));
    std::memset(p, 'k', 40000);
    libSetShuttingDown(true);
    libFree(p);
    libSetShuttingDown(false);
    EXPECT_EQ(p[39999], 'k');  // still owned: the sanitizer build would flag a freed block
    EXPECT_EQ(headerWord(p, 4), 40960u);
    libFree(p);
}

// ---- POMAllocator ----

int gAllocs, gReleases, gReallocs;
uint32_t gLastAllocSize;

void* countingAlloc(uint32_t size) {
    gAllocs++;
    gLastAllocSize = size;
    return std::malloc(size);
}
void countingRelease(void* p) {
    gReleases++;
    std::free(p);
}
void* countingRealloc(void* p, uint32_t size) {
    gReallocs++;
    return std::realloc(p, size);
}

class PoolTest : public ::testing::Test {
protected:
    void SetUp() override { gAllocs = gReleases = gReallocs = 0; }
    static POMAllocator* make(uint32_t maxPooled, uint32_t blockSize) {
        return new POMAllocator(maxPooled, blockSize, countingAlloc, countingRelease,
                                countingRealloc);
    }
    static uint32_t chunkSize(const void* p) { return headerWord(p, 8) >> 2; }
    static uint32_t chunkFlags(const void* p) { return headerWord(p, 8) & 3; }
    static uint32_t chunkOffset(const void* p) { return headerWord(p, 4) & 0xFFFF; }
    static uint32_t chunkPrev(const void* p) { return headerWord(p, 4) >> 16; }
    static std::string stats(POMAllocator& pool) {
        testing::internal::CaptureStdout();
        pool.printStatistics();
        return testing::internal::GetCapturedStdout();
    }
    static std::string head(uint32_t blockSize, int blocks, uint32_t maxPooled) {
        return "POMAllocator:  block size = " + std::to_string(blockSize) +
               "\nPOMAllocator:  number of blocks allocated = " + std::to_string(blocks) +
               "\nPOMAllocator:  minimum allocation size = 8"
               "\nPOMAllocator:  maximum allocation size = " +
               std::to_string(maxPooled) + "\n";
    }
    static std::string list(int size, int count) {
        return "POMAllocator:    free list[" + std::to_string(size) +
               "] total entries = " + std::to_string(count) + "\n";
    }
};

TEST_F(PoolTest, ConstructionClampsSizes) {
    POMAllocator a(4, 100000);
    EXPECT_EQ(a.maxPooledSize(), 8u);
    EXPECT_EQ(a.blockSize(), 65536u);
    POMAllocator b(40000, 8192);
    EXPECT_EQ(b.maxPooledSize(), 32768u);
    EXPECT_EQ(b.blockSize(), 8192u);
    EXPECT_EQ(b.blocksAllocated(), 0u);
}

TEST_F(PoolTest, ReleaseOfNullIsRejected) {
    POMAllocator pool(64, 8192);
    EXPECT_EQ(pool.release(nullptr), -3073);
    void* a = pool.allocate(16);
    void* b = pool.allocate(16);
    EXPECT_EQ(pool.release(a), 0);
    EXPECT_EQ(pool.release(a), -3073);  // already free
    EXPECT_EQ(pool.release(b), 0);
}

TEST_F(PoolTest, ChunksAreCarvedInOrderWithTheirOffsets) {
    POMAllocator* pool = make(64, 8192);
    char* a = static_cast<char*>(pool->allocate(16));
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(gLastAllocSize, 8192u);
    char* b = static_cast<char*>(pool->allocate(20));  // rounded to 24
    char* c = static_cast<char*>(pool->allocate(3));   // raised to 8
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(chunkOffset(a), 8u);
    EXPECT_EQ(chunkPrev(a), 0u);
    EXPECT_EQ(chunkSize(a), 16u);
    EXPECT_EQ(chunkFlags(a), 1u);
    EXPECT_EQ(b, a + 24);
    EXPECT_EQ(chunkOffset(b), 32u);
    EXPECT_EQ(chunkPrev(b), 8u);
    EXPECT_EQ(chunkSize(b), 24u);
    EXPECT_EQ(c, b + 32);
    EXPECT_EQ(chunkOffset(c), 64u);
    EXPECT_EQ(chunkPrev(c), 32u);
    EXPECT_EQ(chunkSize(c), 8u);
    // The rest of the block: offset 80, 8192 - 80 - 8 bytes, on the list of big chunks.
    EXPECT_EQ(stats(*pool), head(8192, 1, 64) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(8104, 1));
    pool->release(a);
    pool->release(b);
    pool->release(c);
    EXPECT_EQ(gReleases, 1);
    delete pool;
}

TEST_F(PoolTest, StatisticsAfterThreeChunksAndReleases) {
    POMAllocator* pool = make(64, 8192);
    void* a = pool->allocate(16);
    void* b = pool->allocate(24);
    void* c = pool->allocate(40);
    std::string empty8 = list(0, 0) + list(0, 0) + list(0, 0) + list(0, 0) + list(0, 0) +
                         list(0, 0) + list(0, 0) + list(0, 0);
    EXPECT_EQ(stats(*pool), head(8192, 1, 64) + empty8 + list(8072, 1));

    // b has neighbours in use on both sides: it goes on its own list as it is.
    pool->release(b);
    EXPECT_EQ(stats(*pool), head(8192, 1, 64) + list(0, 0) + list(0, 0) + list(24, 1) +
                                list(0, 0) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(8072, 1));
    // a merges with the free b behind it: 16 + 8 + 24.
    pool->release(a);
    EXPECT_EQ(stats(*pool), head(8192, 1, 64) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(0, 0) + list(48, 1) + list(0, 0) +
                                list(0, 0) + list(8072, 1));
    // c merges with both sides and the block becomes empty: it goes back to the system
    // and the free lists go with it.
    EXPECT_EQ(gReleases, 0);
    pool->release(c);
    EXPECT_EQ(gReleases, 1);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    EXPECT_EQ(stats(*pool), head(8192, 0, 64));
    delete pool;
    EXPECT_EQ(gReleases, 1);
}

TEST_F(PoolTest, ReleaseMergesWithBothNeighbours) {
    POMAllocator* pool = make(512, 8192);
    char* a = static_cast<char*>(pool->allocate(32));
    char* b = static_cast<char*>(pool->allocate(32));
    char* c = static_cast<char*>(pool->allocate(32));
    char* d = static_cast<char*>(pool->allocate(32));
    pool->release(a);
    pool->release(c);
    pool->release(b);  // a + b + c: 32 * 3 + 16
    std::string out = stats(*pool);
    EXPECT_NE(out.find(list(112, 1)), std::string::npos) << out;
    EXPECT_EQ(out.find(list(32, 1)), std::string::npos) << out;
    // The merged chunk is found again for a request of its size, at a's place.
    char* e = static_cast<char*>(pool->allocate(112));
    EXPECT_EQ(e, a);
    EXPECT_EQ(chunkPrev(d), chunkOffset(e));
    pool->release(e);
    pool->release(d);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    delete pool;
}

TEST_F(PoolTest, LargerClassesServeWhenTheBigListIsEmpty) {
    POMAllocator* pool = make(64, 128);
    void* a = pool->allocate(40);  // leaves a chunk of 128 - 56 - 8 = 64 (class of 64)
    EXPECT_EQ(stats(*pool), head(128, 1, 64) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(64, 1) + list(0, 0));
    void* b = pool->allocate(16);  // splits the 64: 16 used, 40 free
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(stats(*pool), head(128, 1, 64) + list(0, 0) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(40, 1) + list(0, 0) + list(0, 0) +
                                list(0, 0) + list(0, 0));
    void* c = pool->allocate(48);  // nothing fits: a second block
    EXPECT_EQ(gAllocs, 2);
    EXPECT_EQ(pool->blocksAllocated(), 2u);
    pool->release(a);
    pool->release(b);
    EXPECT_EQ(pool->blocksAllocated(), 1u);
    pool->release(c);
    EXPECT_EQ(gReleases, 2);
    delete pool;
}

TEST_F(PoolTest, SmallRemainderStaysWithTheFirstChunk) {
    POMAllocator* pool = make(64, 88);
    void* a = pool->allocate(64);  // 8 bytes would be left: too little for a chunk
    EXPECT_EQ(chunkSize(a), 72u);
    EXPECT_EQ(pool->release(a), 0);
    EXPECT_EQ(gReleases, 1);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    delete pool;
}

TEST_F(PoolTest, UnpooledChunksGoStraightToTheSystem) {
    POMAllocator* pool = make(64, 8192);
    void* p = pool->allocate(100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(gLastAllocSize, 108u);
    EXPECT_EQ(headerWord(p, 8), 400u);  // 100 << 2, not in a block
    EXPECT_EQ(headerWord(p, 4), 0u);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    std::memset(p, 1, 100);
    p = pool->reallocate(p, 300);
    EXPECT_EQ(gReallocs, 1);
    EXPECT_EQ(chunkSize(p), 300u);
    EXPECT_EQ(static_cast<char*>(p)[99], 1);
    EXPECT_EQ(pool->release(p), 0);
    EXPECT_EQ(gReleases, 1);
    // A request that fits no block is served unpooled as well.
    POMAllocator* tiny = make(64, 64);
    void* q = tiny->allocate(56);
    EXPECT_EQ(chunkFlags(q), 0u);
    tiny->release(q);
    EXPECT_EQ(tiny->blocksAllocated(), 0u);
    delete tiny;
    delete pool;
}

TEST_F(PoolTest, ReallocateGrowsInPlaceIntoAFreeFollower) {
    POMAllocator* pool = make(512, 8192);
    char* a = static_cast<char*>(pool->allocate(16));
    char* b = static_cast<char*>(pool->allocate(16));
    char* c = static_cast<char*>(pool->allocate(16));
    std::memcpy(a, "0123456789abcdef", 16);
    pool->release(b);
    char* g = static_cast<char*>(pool->reallocate(a, 32));
    EXPECT_EQ(g, a);
    EXPECT_EQ(chunkSize(g), 40u);  // 16 + 8 + 16, excess below 16 stays
    EXPECT_EQ(std::memcmp(g, "0123456789abcdef", 16), 0);
    EXPECT_EQ(chunkPrev(c), 8u);
    pool->release(g);
    pool->release(c);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    delete pool;
}

TEST_F(PoolTest, ReallocateShrinksInPlace) {
    POMAllocator* pool = make(512, 8192);
    char* a = static_cast<char*>(pool->allocate(64));
    char* b = static_cast<char*>(pool->allocate(16));
    std::memcpy(a, "keep", 4);
    EXPECT_EQ(pool->reallocate(a, 56), a);  // 64 < 56 + 16: no split
    EXPECT_EQ(chunkSize(a), 64u);
    EXPECT_EQ(pool->reallocate(a, 5), a);  // split into 8 and a free 48
    EXPECT_EQ(chunkSize(a), 8u);
    EXPECT_EQ(std::memcmp(a, "keep", 4), 0);
    EXPECT_EQ(chunkPrev(b), 24u);
    EXPECT_NE(stats(*pool).find(list(48, 1)), std::string::npos);
    pool->release(a);
    pool->release(b);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    delete pool;
}

TEST_F(PoolTest, ReallocateMovesDownIntoAFreePredecessor) {
    POMAllocator* pool = make(512, 8192);
    char* a = static_cast<char*>(pool->allocate(16));
    char* b = static_cast<char*>(pool->allocate(16));
    char* c = static_cast<char*>(pool->allocate(16));
    std::memcpy(b, "fedcba9876543210", 16);
    pool->release(a);
    char* m = static_cast<char*>(pool->reallocate(b, 40));  // 16 + 8 + 16 = 40
    EXPECT_EQ(m, a);
    EXPECT_EQ(chunkSize(m), 40u);
    EXPECT_EQ(std::memcmp(m, "fedcba9876543210", 16), 0);
    EXPECT_EQ(chunkPrev(c), chunkOffset(m));
    pool->release(m);
    pool->release(c);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    delete pool;
}

TEST_F(PoolTest, ReallocateMovesWhenNeighboursCannotHelp) {
    POMAllocator* pool = make(64, 8192);
    char* a = static_cast<char*>(pool->allocate(16));
    char* b = static_cast<char*>(pool->allocate(16));
    std::memcpy(a, "0123456789abcdef", 16);
    char* m = static_cast<char*>(pool->reallocate(a, 48));
    EXPECT_NE(m, a);
    EXPECT_EQ(std::memcmp(m, "0123456789abcdef", 16), 0);
    EXPECT_EQ(chunkFlags(a), 3u);  // the old chunk is free again
    // Growing beyond the pooled sizes moves the data to an unpooled chunk.
    char* u = static_cast<char*>(pool->reallocate(m, 200));
    EXPECT_EQ(chunkFlags(u), 0u);
    EXPECT_EQ(std::memcmp(u, "0123456789abcdef", 16), 0);
    // And back into the pool when it shrinks again.
    char* back = static_cast<char*>(pool->reallocate(u, 10));
    EXPECT_EQ(chunkFlags(back), 1u);
    EXPECT_EQ(std::memcmp(back, "0123456789", 10), 0);
    pool->release(back);
    pool->release(b);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    EXPECT_EQ(gAllocs, gReleases);
    void* z = pool->reallocate(nullptr, 20);  // a null chunk is simply allocated
    ASSERT_NE(z, nullptr);
    EXPECT_EQ(chunkSize(z), 24u);
    EXPECT_EQ(pool->release(z), 0);
    delete pool;
}

TEST_F(PoolTest, MixedOperationsKeepEveryChunkIntact) {
    POMAllocator* pool = make(256, 4096);
    struct Live {
        unsigned char* p;
        uint32_t size;
        unsigned char fill;
    } live[150] = {};
    uint32_t seed = 12345;
    auto next = [&seed]() {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7FFF;
    };
    auto intact = [](const Live& l) {
        for (uint32_t i = 0; i < l.size; i++)
            if (l.p[i] != l.fill) return false;
        return true;
    };
    for (int step = 0; step < 20000; step++) {
        Live& l = live[next() % 150];
        uint32_t size = next() % 8 == 0 ? 257 + next() % 600 : 1 + next() % 256;
        if (!l.p) {
            l.p = static_cast<unsigned char*>(pool->allocate(size));
            ASSERT_NE(l.p, nullptr);
            l.size = size;
        } else if (next() % 2) {
            ASSERT_TRUE(intact(l)) << step;
            l.p = static_cast<unsigned char*>(pool->reallocate(l.p, size));
            ASSERT_NE(l.p, nullptr);
            for (uint32_t i = 0; i < l.size && i < size; i++) ASSERT_EQ(l.p[i], l.fill) << step;
            l.size = size;
        } else {
            ASSERT_TRUE(intact(l)) << step;
            ASSERT_EQ(pool->release(l.p), 0);
            l.p = nullptr;
            continue;
        }
        l.fill = static_cast<unsigned char>(next());
        std::memset(l.p, l.fill, l.size);
    }
    for (Live& l : live) {
        if (!l.p) continue;
        EXPECT_TRUE(intact(l));
        EXPECT_EQ(pool->release(l.p), 0);
    }
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    EXPECT_EQ(stats(*pool), head(4096, 0, 256));
    EXPECT_EQ(gAllocs, gReleases);
    delete pool;
}

}  // namespace
