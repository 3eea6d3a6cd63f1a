// Sized blocks, growable buffers, library blocks and the pooled allocator.
#include "runtime/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

namespace {

// The 32-bit word that lies `back` bytes before p: a block's header.
uint32_t word(const void* p, int back) {
    uint32_t v;
    std::memcpy(&v, static_cast<const char*>(p) - back, 4);
    return v;
}
TEST(Blocks, SizedBlocksBuffersAndLibraryBlocks) {
    // Growth goes to max(2 * length, length + count + 8).
    char* buf = static_cast<char*>(memAlloc(10));
    int32_t len = 0;
    std::string all;
    const std::pair<const char*, uint32_t> appends[] = {
        {"abcdef", 10}, {"ghijk", 19}, {"0123456789", 29}, {"!", 29}, {"012345678", 44},
    };
    for (const auto& a : appends) {
        all += a.first;
        EXPECT_EQ(bufAppend(&buf, &len, a.first, int32_t(std::strlen(a.first))), 0);
        EXPECT_EQ(memCapacity(buf), a.second) << all;
        EXPECT_EQ(std::string(buf, len), all);
    }
    memFree(buf);
    memFree(nullptr);
    // Library blocks: headers up to 512 (the block size + 8, rounded up to 8) come from the small pool.
    void* small = libAlloc(504);
    EXPECT_EQ(word(small, 4), 512u);
    void* tiny = libAlloc(1);
    EXPECT_EQ(word(tiny, 4), 16u);  // 1 + 8 rounded up to 8
    libFree(tiny);
    std::memset(small, 0x5a, memCapacity(small));  // the whole capacity is usable
    libFree(small);
    char* p = static_cast<char*>(libAlloc(10));
    std::string("0123456789").copy(p, 10);
    p = static_cast<char*>(libRealloc(p, 40000));
    EXPECT_EQ(word(p, 4), 40960u);
    EXPECT_EQ(std::string(p, 10), "0123456789");
    libFree(p);
}

// ---- POMAllocator, with hooks that count the blocks taken from and given back to the system ----

int gAllocs, gReleases;
void* countingAlloc(uint32_t size) {
    gAllocs++;
    return std::malloc(size);
}
void countingRelease(void* p) {
    gReleases++;
    std::free(p);
}

class PoolTest : public ::testing::Test {
protected:
    void TearDown() override { delete pool; }
    void make(uint32_t maxPooled, uint32_t blockSize) {
        delete pool;
        gAllocs = gReleases = 0;
        pool = new POMAllocator(maxPooled, blockSize, countingAlloc, countingRelease);
    }
    char* alloc(uint32_t n) { return static_cast<char*>(pool->allocate(n)); }
    char* resize(void* p, uint32_t n) { return static_cast<char*>(pool->reallocate(p, n)); }
    // The statistics in short: "blocks taken/lists printed|", then "index:first chunk size/entries "
    // for each list that is not empty; (maxPooled - 1) / 8 + 2 lists are printed.
    std::string lists() {
        testing::internal::CaptureStdout();
        pool->printStatistics();
        std::istringstream out(testing::internal::GetCapturedStdout());
        std::string nonEmpty, line;
        int index = 0, blocks = -1;
        for (int size, count; std::getline(out, line);) {
            sscanf(line.c_str(), "POMAllocator:  number of blocks allocated = %d", &blocks);
            if (sscanf(line.c_str(), "POMAllocator:    free list[%d] total entries = %d", &size, &count) != 2)
                continue;
            if (count != 0)
                nonEmpty +=
                    std::to_string(index) + ":" + std::to_string(size) + "/" + std::to_string(count) + " ";
            index++;
        }
        return std::to_string(blocks) + "/" + std::to_string(index) + "|" + nonEmpty;
    }
    POMAllocator* pool = nullptr;
};

TEST_F(PoolTest, CarvingMergingAndGrowing) {
    make(64, 8192);
    char* a = alloc(16);
    char* b = alloc(20);  // rounded to 24
    char* c = alloc(3);   // raised to 8
    EXPECT_EQ(b, a + 24);
    EXPECT_EQ(c, b + 32);
    pool->release(b);  // neighbours in use: on its own list as it is
    pool->release(a);  // merges with b behind it: 16 + 8 + 24
    EXPECT_EQ(lists(), "1/9|5:48/1 8:8104/1 ");
    pool->release(c);  // merges both ways: the empty block and the free lists go
    EXPECT_EQ(lists(), "1/0|");

    // A chunk grows into a free one before it that is just large enough.
    a = alloc(48);
    b = alloc(8);
    EXPECT_NE(alloc(8), nullptr);  // behind b, so that b cannot grow in place
    pool->release(a);
    EXPECT_EQ(resize(b, 64), a);

    // Two free chunks of one size apart from each other: one list, both counted.
    make(64, 8192);
    a = alloc(16);
    EXPECT_NE(alloc(8), nullptr);
    b = alloc(16);
    EXPECT_NE(alloc(8), nullptr);
    pool->release(a);
    pool->release(b);
    EXPECT_EQ(lists(), "1/9|1:16/2 8:8096/1 ");

    // The first chunk of a block leaves a free rest only when that gets 8 bytes or more.
    make(64, 88);
    EXPECT_EQ(word(alloc(64), 8) >> 2, 72u);  // the size in its header
}

// The sizes are clamped at construction; a null release is refused. Sized blocks keep their bytes
// when reallocated; library releases are ignored while the process shuts down, so a block released
// then is not handed out again.
TEST_F(PoolTest, LimitsNullReleaseAndShutdown) {
    const struct {
        uint32_t maxPooled, blockSize, maxAfter, blockAfter;
    } rows[] = {{4, 100000, 8, 65536}, {40000, 8192, 32768, 8192}};
    for (const auto& r : rows) {
        make(r.maxPooled, r.blockSize);
        EXPECT_EQ(pool->maxPooledSize(), r.maxAfter);
        EXPECT_EQ(pool->blockSize(), r.blockAfter);
    }
    EXPECT_EQ(pool->release(nullptr), -3073);
    EXPECT_EQ(pool->blocksAllocated(), 0u);
    char* m = static_cast<char*>(memRealloc(nullptr, 3));
    std::string("abc").copy(m, 3);
    m = static_cast<char*>(memRealloc(m, 100));
    EXPECT_EQ(memCapacity(m), 100u);
    EXPECT_EQ(std::string(m, 3), "abc");
    memFree(m);
    void* kept = libAlloc(40);
    libSetShuttingDown(true);
    libFree(kept);
    libSetShuttingDown(false);
    void* next = libAlloc(40);
    EXPECT_NE(next, kept);
    libFree(next);
    libFree(kept);
}

TEST_F(PoolTest, MixedOperationsKeepEveryChunkIntact) {
    make(256, 4096);
    struct Live {
        char* p;
        std::string bytes;
    } live[150] = {};
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
        l.bytes.resize(std::min<size_t>(l.bytes.size(), size));
        ASSERT_EQ(std::string(l.p, l.bytes.size()), l.bytes) << step;
        l.bytes = std::string(size, static_cast<char>(next()));
        std::memcpy(l.p, l.bytes.data(), size);
    }
    for (const Live& l : live) {
        if (l.p == nullptr) continue;
        EXPECT_EQ(pool->release(l.p), 0);
    }
    EXPECT_EQ(gAllocs, gReleases);  // every block given back
}

}  // namespace
