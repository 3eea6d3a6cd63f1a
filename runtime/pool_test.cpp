// Tests of sized blocks, growable buffers, library-level blocks and the pooled allocator.
#include "runtime/pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace {

uint32_t headerWord(const void* p, int back) {
    uint32_t v;
    std::memcpy(&v, static_cast<const unsigned char*>(p) - back, 4);
    return v;
}

bool aligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15) == 0; }

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
    p = memRealloc(nullptr, 7);  // a null block is allocated
    EXPECT_EQ(memCapacity(p), 7u);
    memFree(p);
    memFree(nullptr);
    EXPECT_EQ(memCapacity(nullptr), 0u);
}

TEST(GrowableBuffer, GrowsToTwiceTheLengthOrToWhatIsNeededPlusEight) {
    char* buf = static_cast<char*>(memAlloc(10));
    int32_t len = 0;
    std::string all;
    // Capacities: fits, max(2 * 6, 6 + 5 + 8), max(22, 29), fits, max(44, 39).
    const struct { const char* data; uint32_t capacity; } steps[] = {
        {"abcdef", 10}, {"ghijk", 19}, {"0123456789", 29}, {"!", 29}, {"012345678", 44}};
    for (const auto& s : steps) {
        ASSERT_EQ(bufAppend(&buf, &len, s.data, int32_t(std::strlen(s.data))), 0);
        all += s.data;
        EXPECT_EQ(len, int32_t(all.size()));
        EXPECT_EQ(memCapacity(buf), s.capacity) << all;
    }
    EXPECT_EQ(std::string(buf, len), all);
    memFree(buf);

    // A buffer that does not exist yet gets count + 8 bytes; null data only reserves.
    buf = nullptr;
    len = 0;
    ASSERT_EQ(bufAppend(&buf, &len, nullptr, 20), 0);
    EXPECT_EQ(len, 20);
    EXPECT_EQ(memCapacity(buf), 28u);
    std::memset(buf, 'r', 20);
    ASSERT_EQ(bufAppend(&buf, &len, "z", 1), 0);
    EXPECT_EQ(std::string(buf, len), std::string(20, 'r') + "z");
    // A growth that cannot be had leaves buffer and length alone.
    char* before = buf;
    EXPECT_EQ(bufAppend(&buf, &len, nullptr, 0x7FFFFFFE), -8);
    EXPECT_EQ(buf, before);
    EXPECT_EQ(len, 21);
    memFree(buf);
}

TEST(LibraryBlock, SizeRangesHeadersAndAlignment) {
    // Small blocks have headers up to 512, medium ones 513 ... 32768, large ones n + 8 rounded up
    // to a multiple of 1024.
    const struct { int32_t n; uint32_t lowest, highest; } rows[] = {
        {0, 8, 512},          {1, 9, 512},          {10, 18, 512},        {496, 504, 512},
        {504, 512, 512},      {505, 513, 32768},    {1000, 1008, 32768},  {8000, 8008, 32768},
        {32760, 32768, 32768}, {32761, 33792, 33792}, {33784, 33792, 33792}, {70000, 70656, 70656},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.n);
        void* p = libAlloc(r.n);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(aligned16(p));
        EXPECT_GE(headerWord(p, 4), r.lowest);
        EXPECT_LE(headerWord(p, 4), r.highest);
        std::memset(p, 0x5a, memCapacity(p));  // the whole capacity is usable
        libFree(p);
    }
    EXPECT_EQ(libAlloc(-1), nullptr);
}

TEST(LibraryBlock, ReuseReallocationAndShutdown) {
    void* keep = libAlloc(40);  // keeps the pool's block alive
    void* a = libAlloc(40);
    libFree(a);
    EXPECT_EQ(libAlloc(40), a);
    libFree(a);
    libFree(keep);

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

    p = static_cast<char*>(libRealloc(nullptr, 40000));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(headerWord(p, 4), 40960u);
    std::memset(p, 'k', 40000);
    libSetShuttingDown(true);
    libFree(p);
    libSetShuttingDown(false);
    EXPECT_EQ(p[39999], 'k');  // still owned: the sanitizer build would flag a freed block
    libFree(p);
}

// ---- POMAllocator ----

int gAllocs, gReleases, gReallocs;
uint32_t gLastAllocSize;

void* countingAlloc(uint32_t size) { gAllocs++; gLastAllocSize = size; return std::malloc(size); }
void countingRelease(void* p) { gReleases++; std::free(p); }
void* countingRealloc(void* p, uint32_t size) { gReallocs++; return std::realloc(p, size); }

class PoolTest : public ::testing::Test {
protected:
    void SetUp() override { gAllocs = gReleases = gReallocs = 0; }
    void TearDown() override { delete pool; }
    void make(uint32_t maxPooled, uint32_t blockSize) {
        delete pool;
        pool = new POMAllocator(maxPooled, blockSize, countingAlloc, countingRelease, countingRealloc);
    }
    char* alloc(uint32_t n) { return static_cast<char*>(pool->allocate(n)); }
    char* resize(void* p, uint32_t n) { return static_cast<char*>(pool->reallocate(p, n)); }
    static uint32_t chunkSize(const void* p) { return headerWord(p, 8) >> 2; }
    static uint32_t chunkFlags(const void* p) { return headerWord(p, 8) & 3; }
    static uint32_t chunkOffset(const void* p) { return headerWord(p, 4) & 0xFFFF; }
    static uint32_t chunkPrev(const void* p) { return headerWord(p, 4) >> 16; }
    std::string stats() {
        testing::internal::CaptureStdout();
        pool->printStatistics();
        return testing::internal::GetCapturedStdout();
    }
    // The statistics text; lists maps a list's index to its (first chunk size, entries), and
    // lists not named are empty. The lists are printed while the pool holds a block.
    std::string expected(int blocks, std::map<uint32_t, std::pair<int, int>> lists = {}, bool held = true) {
        std::string s = "POMAllocator:  block size = " + std::to_string(pool->blockSize()) +
                        "\nPOMAllocator:  number of blocks allocated = " + std::to_string(blocks) +
                        "\nPOMAllocator:  minimum allocation size = 8"
                        "\nPOMAllocator:  maximum allocation size = " +
                        std::to_string(pool->maxPooledSize()) + "\n";
        for (uint32_t i = 0; held && i <= (pool->maxPooledSize() - 1) / 8 + 1; i++)
            s += "POMAllocator:    free list[" + std::to_string(lists[i].first) +
                 "] total entries = " + std::to_string(lists[i].second) + "\n";
        return s;
    }
    POMAllocator* pool = nullptr;
};

TEST_F(PoolTest, ConstructionClampsAndBadReleases) {
    POMAllocator a(4, 100000);
    EXPECT_EQ(a.maxPooledSize(), 8u);
    EXPECT_EQ(a.blockSize(), 65536u);
    POMAllocator b(40000, 8192);
    EXPECT_EQ(b.maxPooledSize(), 32768u);
    EXPECT_EQ(b.blockSize(), 8192u);
    EXPECT_EQ(b.blocksAllocated(), 0u);
    EXPECT_EQ(b.release(nullptr), -3073);
    void* x = b.allocate(16);
    void* y = b.allocate(16);
    EXPECT_EQ(b.release(x), 0);
    EXPECT_EQ(b.release(x), -3073);  // already free
    EXPECT_EQ(b.release(y), 0);
}

TEST_F(PoolTest, ChunksAreCarvedInOrderAndMergedOnRelease) {
    make(64, 8192);
    char* a = alloc(16);
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(gLastAllocSize, 8192u);
    char* b = alloc(20);  // rounded to 24
    char* c = alloc(3);   // raised to 8
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(b, a + 24);
    EXPECT_EQ(c, b + 32);
    const struct { char* p; uint32_t size, offset, prev; } chunks[] = {
        {a, 16, 8, 0}, {b, 24, 32, 8}, {c, 8, 64, 32}};
    for (const auto& k : chunks) {
        EXPECT_EQ(chunkSize(k.p), k.size);
        EXPECT_EQ(chunkFlags(k.p), 1u);
        EXPECT_EQ(chunkOffset(k.p), k.offset);
        EXPECT_EQ(chunkPrev(k.p), k.prev);
    }
    // The rest of the block (offset 80, 8192 - 80 - 8 bytes) is on the list of big chunks.
    EXPECT_EQ(stats(), expected(1, {{8, {8104, 1}}}));
    // b has neighbours in use on both sides: it goes on its own list as it is.
    pool->release(b);
    EXPECT_EQ(stats(), expected(1, {{2, {24, 1}}, {8, {8104, 1}}}));
    // a merges with the free b behind it: 16 + 8 + 24.
    pool->release(a);
    EXPECT_EQ(stats(), expected(1, {{5, {48, 1}}, {8, {8104, 1}}}));
    // c merges with both sides and the block becomes empty: it goes back to the system and the
    // free lists go with it.
    EXPECT_EQ(gReleases, 0);
    pool->release(c);
    EXPECT_EQ(gReleases, 1);
    EXPECT_EQ(stats(), expected(1, {}, false));  // the count keeps every block ever taken

    // b merges into the free a before it: c learns its new neighbour, and the merged chunk
    // (16 + 8 + 16) serves a request of its size at a's place.
    a = alloc(16);
    b = alloc(16);
    c = alloc(16);
    pool->release(a);
    pool->release(b);
    EXPECT_EQ(chunkPrev(c), 8u);
    EXPECT_EQ(stats(), expected(2, {{4, {40, 1}}, {8, {8104, 1}}}));
    EXPECT_EQ(alloc(40), a);
    pool->release(a);
    pool->release(c);
    EXPECT_EQ(pool->blocksAllocated(), 2u);
    EXPECT_EQ(gReleases, 2);
}

TEST_F(PoolTest, SearchOrderAndSmallRemainders) {
    make(64, 128);
    void* a = alloc(40);  // leaves a chunk of 128 - 56 - 8 = 64 (class of 64)
    EXPECT_EQ(stats(), expected(1, {{7, {64, 1}}}));
    void* b = alloc(16);  // an empty list of big chunks: the next larger class serves
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(stats(), expected(1, {{4, {40, 1}}}));
    void* c = alloc(48);  // nothing fits: a second block
    EXPECT_EQ(gAllocs, 2);
    EXPECT_EQ(pool->blocksAllocated(), 2u);
    pool->release(a);
    pool->release(b);
    EXPECT_EQ(gReleases, 1);
    pool->release(c);
    EXPECT_EQ(gReleases, 2);
    EXPECT_EQ(pool->blocksAllocated(), 2u);

    // The first chunk of a block leaves the rest as a free chunk only when that gets 8 bytes or more.
    for (auto sizes : {std::make_pair(88u, 72u), std::make_pair(96u, 64u)}) {
        make(64, sizes.first);
        a = alloc(64);
        EXPECT_EQ(chunkSize(a), sizes.second) << sizes.first;
        EXPECT_EQ(pool->release(a), 0);
        EXPECT_EQ(pool->blocksAllocated(), 1u);
    }
    EXPECT_EQ(gReleases, 4);
}

TEST_F(PoolTest, UnpooledChunksGoStraightToTheSystem) {
    make(64, 8192);
    char* p = alloc(100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(gAllocs, 1);
    EXPECT_EQ(gLastAllocSize, 108u);
    EXPECT_EQ(headerWord(p, 8), 400u);  // 100 << 2, not in a block
    EXPECT_EQ(headerWord(p, 4), 0u);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    std::memset(p, 1, 100);
    p = resize(p, 300);
    EXPECT_EQ(gReallocs, 1);
    EXPECT_EQ(chunkSize(p), 300u);
    EXPECT_EQ(p[99], 1);
    EXPECT_EQ(pool->release(p), 0);
    EXPECT_EQ(gReleases, 1);
    // A request that fits no block is served unpooled as well.
    make(64, 64);
    p = alloc(56);
    EXPECT_EQ(chunkFlags(p), 0u);
    pool->release(p);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
}

TEST_F(PoolTest, ReallocateInPlaceOrByMoving) {
    make(512, 8192);
    char* a = alloc(64);
    char* b = alloc(16);
    // Shrinking keeps the chunk; it is split only when 16 bytes or more would be left.
    EXPECT_EQ(resize(a, 56), a);
    EXPECT_EQ(chunkSize(a), 64u);
    EXPECT_EQ(resize(a, 5), a);
    EXPECT_EQ(chunkSize(a), 8u);
    EXPECT_EQ(chunkPrev(b), 24u);
    EXPECT_NE(stats().find("free list[48] total entries = 1"), std::string::npos);
    // Growing absorbs the free chunk behind (8 + 8 + 48); an excess below 16 stays.
    EXPECT_EQ(resize(a, 56), a);
    EXPECT_EQ(chunkSize(a), 64u);
    EXPECT_EQ(chunkPrev(b), 8u);
    // Growing into a free chunk before it moves the data down: 64 + 8 + 16.
    char* c = alloc(16);
    std::memcpy(b, "fedcba9876543210", 16);
    pool->release(a);
    char* m = resize(b, 88);
    EXPECT_EQ(m, a);
    EXPECT_EQ(chunkSize(m), 88u);
    EXPECT_EQ(std::memcmp(m, "fedcba9876543210", 16), 0);
    EXPECT_EQ(chunkPrev(c), chunkOffset(m));
    // Neighbours in use: the data moves to a new chunk and the old one is free again.
    char* n = resize(m, 200);
    EXPECT_NE(n, m);
    EXPECT_EQ(std::memcmp(n, "fedcba9876543210", 16), 0);
    EXPECT_EQ(chunkFlags(m), 3u);
    // Beyond the pooled sizes the data moves to an unpooled chunk, and back when it shrinks.
    char* u = resize(n, 600);
    EXPECT_EQ(chunkFlags(u), 0u);
    EXPECT_EQ(std::memcmp(u, "fedcba9876543210", 16), 0);
    char* back = resize(u, 10);
    EXPECT_EQ(chunkFlags(back), 1u);
    EXPECT_EQ(std::memcmp(back, "fedcba9876", 10), 0);
    pool->release(back);
    pool->release(c);
    EXPECT_EQ(pool->blocksAllocated(), 1u);
    EXPECT_EQ(gAllocs, gReleases);
    char* z = resize(nullptr, 20);  // a null chunk is simply allocated
    ASSERT_NE(z, nullptr);
    EXPECT_EQ(chunkSize(z), 24u);
    EXPECT_EQ(pool->release(z), 0);
}

TEST_F(PoolTest, MixedOperationsKeepEveryChunkIntact) {
    make(256, 4096);
    struct Live { char* p; std::string bytes; } live[150] = {};
    uint32_t seed = 12345;
    auto next = [&seed]() { return (seed = seed * 1103515245u + 12345u) >> 16 & 0x7FFF; };
    for (int step = 0; step < 20000; step++) {
        Live& l = live[next() % 150];
        uint32_t size = next() % 8 == 0 ? 257 + next() % 600 : 1 + next() % 256;
        ASSERT_EQ(l.p ? std::string(l.p, l.bytes.size()) : "", l.bytes) << step;
        if (l.p && next() % 2 == 0) {
            ASSERT_EQ(pool->release(l.p), 0);
            l = Live();
            continue;
        }
        l.p = l.p ? resize(l.p, size) : alloc(size);  // a reallocated chunk keeps what fits
        ASSERT_NE(l.p, nullptr);
        l.bytes.resize(std::min<size_t>(l.bytes.size(), size));
        ASSERT_EQ(std::string(l.p, l.bytes.size()), l.bytes) << step;
        l.bytes = std::string(size, static_cast<char>(next()));
        std::memcpy(l.p, l.bytes.data(), size);
    }
    for (const Live& l : live) {
        if (!l.p) continue;
        EXPECT_EQ(std::string(l.p, l.bytes.size()), l.bytes);
        EXPECT_EQ(pool->release(l.p), 0);
    }
    EXPECT_EQ(stats().find("free list"), std::string::npos);
    EXPECT_EQ(gAllocs, gReleases);
}

}  // namespace
