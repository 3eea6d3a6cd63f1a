// Sized blocks, growable buffers, library blocks and the pooled allocator.
#include "runtime/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

uint32_t word(const void* p, int back) {
    uint32_t v;
    std::memcpy(&v, static_cast<const char*>(p) - back, 4);
    return v;
}
bool aligned16(const void* p) {
    return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

TEST(Blocks, SizedBlocksBuffersAndLibraryBlocks) {
    // Growth goes to max(2 * length, length + count + 8); a missing buffer gets count + 8.
    char* buf = static_cast<char*>(memAlloc(10));
    EXPECT_TRUE(word(buf, 4) == 18 && memCapacity(buf) == 10 && aligned16(buf));
    int32_t len = 0;
    std::string all;
    for (auto s :
         {std::make_pair("abcdef", 10), {"ghijk", 19}, {"0123456789", 29}, {"!", 29}, {"012345678", 44}}) {
        all += s.first;
        EXPECT_TRUE(bufAppend(&buf, &len, s.first, int32_t(std::strlen(s.first))) == 0 &&
                    memCapacity(buf) == uint32_t(s.second) && std::string(buf, len) == all)
            << all;
    }
    memFree(buf);
    memFree(nullptr);
    buf = nullptr, len = 0;
    EXPECT_TRUE(bufAppend(&buf, &len, nullptr, 20) == 0 && len == 20 && memCapacity(buf) == 28);  // reserved
    EXPECT_TRUE(bufAppend(&buf, &len, nullptr, 0x7FFFFFFE) == -8 && len == 20);
    memFree(buf);
    // Library blocks: headers up to 512 (small pool), up to 32768 (medium), else n + 8 rounded to 1024.
    const struct {
        int32_t n;
        uint32_t lowest, highest;
    } rows[] = {{10, 18, 512},         {504, 512, 512},       {505, 513, 32768},
                {32760, 32768, 32768}, {32761, 33792, 33792}, {70000, 70656, 70656}};
    for (const auto& r : rows) {
        void* b = libAlloc(r.n);
        EXPECT_TRUE(aligned16(b) && word(b, 4) >= r.lowest && word(b, 4) <= r.highest) << r.n;
        std::memset(b, 0x5a, memCapacity(b));  // the whole capacity is usable
        libFree(b);
    }
    EXPECT_EQ(libAlloc(-1), nullptr);
    char* p = static_cast<char*>(libAlloc(10));
    std::memcpy(p, "0123456789", 10);
    EXPECT_TRUE(libRealloc(p, -5) == nullptr && std::memcmp(p, "0123456789", 10) == 0);  // p is untouched
    p = static_cast<char*>(libRealloc(p, 40000));
    EXPECT_TRUE(word(p, 4) == 40960u && std::memcmp(p, "0123456789", 10) == 0);
    libFree(p);
}

// ---- POMAllocator, with hooks that count what goes to and from the system ----

int gAllocs, gReleases, gReallocs;
uint32_t gLastAllocSize;
void* countingAlloc(uint32_t size) {
    return gAllocs++, gLastAllocSize = size, std::malloc(size);
}
void countingRelease(void* p) {
    gReleases++, std::free(p);
}
void* countingRealloc(void* p, uint32_t size) {
    return gReallocs++, std::realloc(p, size);
}

class PoolTest : public ::testing::Test {
protected:
    void TearDown() override { delete pool; }
    void make(uint32_t maxPooled, uint32_t blockSize) {
        delete pool;
        gAllocs = gReleases = gReallocs = 0;
        pool = new POMAllocator(maxPooled, blockSize, countingAlloc, countingRelease, countingRealloc);
    }
    char* alloc(uint32_t n) { return static_cast<char*>(pool->allocate(n)); }
    char* resize(void* p, uint32_t n) { return static_cast<char*>(pool->reallocate(p, n)); }
    // A chunk's header: size, flags (1 pooled, 2 free), its offset and its neighbour's offset.
    static std::vector<uint32_t> chunk(const void* p) {
        return {word(p, 8) >> 2, word(p, 8) & 3, word(p, 4) & 0xFFFF, word(p, 4) >> 16};
    }
    // The statistics in short: "blocks taken/lists printed|", then "index:first chunk size/entries "
    // for each list that is not empty; (maxPooled - 1) / 8 + 2 lists are printed.
    std::string lists() {
        testing::internal::CaptureStdout();
        pool->printStatistics();
        std::istringstream out(testing::internal::GetCapturedStdout());
        std::string s, line;
        int i = 0, blocks = -1;
        for (int size, count; std::getline(out, line);)
            if (sscanf(line.c_str(), "POMAllocator:  number of blocks allocated = %d", &blocks) == 0 &&
                sscanf(line.c_str(), "POMAllocator:    free list[%d] total entries = %d", &size, &count) ==
                    2 &&
                i++ >= 0 && count)
                s += std::to_string(i - 1) + ":" + std::to_string(size) + "/" + std::to_string(count) + " ";
        return std::to_string(blocks) + "/" + std::to_string(i) + "|" + s;
    }
    POMAllocator* pool = nullptr;
};

TEST_F(PoolTest, CarvingMergingSearchOrderAndUnpooled) {
    make(64, 8192);
    char* p = alloc(100);  // above the pooled sizes: straight from the system, grown there too
    EXPECT_TRUE(gAllocs == 1 && gLastAllocSize == 108 && pool->blocksAllocated() == 0);
    p = resize(p, 300);
    EXPECT_TRUE(chunk(p)[0] == 300 && gReallocs == 1 && pool->release(p) == 0 && gReleases == 1);
    make(64, 8192);
    char *a = alloc(16), *b = alloc(20), *c = alloc(3);  // 20 is rounded to 24, 3 raised to 8
    EXPECT_TRUE(gAllocs == 1 && gLastAllocSize == 8192 && b == a + 24 && c == b + 32 && chunk(a)[3] == 0);
    EXPECT_EQ(chunk(b), (std::vector<uint32_t>{24, 1, 32, 8}));
    EXPECT_EQ(lists(), "1/9|8:8104/1 ");  // the rest of the block, on the list of big chunks
    pool->release(b);                     // neighbours in use: on its own list as it is
    EXPECT_TRUE(lists() == "1/9|2:24/1 8:8104/1 " && pool->release(b) == -3073 &&
                pool->release(nullptr) == -3073);
    pool->release(a);  // merges with b behind it: 16 + 8 + 24
    EXPECT_EQ(lists(), "1/9|5:48/1 8:8104/1 ");
    pool->release(c);  // merges both ways: the empty block and the free lists go
    EXPECT_TRUE(gReleases == 1 && lists() == "1/0|");  // the count keeps every block ever taken
    a = alloc(16), b = alloc(16), c = alloc(16);
    pool->release(a), pool->release(b);  // b merges into the free a; c learns its new neighbour
    EXPECT_TRUE(chunk(c)[3] == 8 && lists() == "2/9|4:40/1 8:8104/1 " && alloc(40) == a);
    pool->release(a), pool->release(c);
    EXPECT_TRUE(pool->blocksAllocated() == 2 && gReleases == 2);
    // A chunk grows into a free one before it that is just large enough, shrinking by 16 bytes splits
    // the rest off, and the largest pooled size has a list of its own.
    a = alloc(48), b = alloc(8), c = alloc(8), pool->release(a);
    EXPECT_TRUE(resize(b, 64) == a && chunk(a)[0] == 64 && resize(a, 48) == a && chunk(a)[0] == 48);
    EXPECT_TRUE(pool->release(a) == 0 && lists().find("7:64/1 ") != std::string::npos);

    make(64, 128);
    a = alloc(40), b = alloc(16);  // no big chunk left for b: the next larger class serves
    EXPECT_EQ(lists(), "1/9|4:40/1 ");
    c = alloc(48);  // nothing fits: a second block
    EXPECT_TRUE(gAllocs == 2 && pool->blocksAllocated() == 2);
    pool->release(a), pool->release(b), pool->release(c);
    EXPECT_EQ(gReleases, 2);
    // The first chunk of a block leaves a free rest only when that gets 8 bytes or more.
    for (auto sizes : {std::make_pair(88u, 72u), std::make_pair(96u, 64u)}) {
        make(64, sizes.first);
        a = alloc(64);
        EXPECT_TRUE(chunk(a)[0] == sizes.second && pool->release(a) == 0 && gReleases == 1) << sizes.first;
    }
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
    for (const Live& l : live)
        EXPECT_TRUE(!l.p || (std::string(l.p, l.bytes.size()) == l.bytes && pool->release(l.p) == 0));
    EXPECT_TRUE(lists().find("/0|") != std::string::npos && gAllocs == gReleases);  // no free lists left
}

}  // namespace
