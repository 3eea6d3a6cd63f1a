// Side-by-side timings of the runtime library against the plain C calls: allocators, file
// access, message texts and link resolution.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "runtime/filehandle.h"
#include "runtime/message.h"
#include "runtime/path.h"
#include "runtime/pool.h"

namespace {

// A fixed pseudo-random sequence of small sizes, the same for every allocator.
struct SizeSequence {
    uint32_t state = 12345;
    uint32_t next() {
        state = state * 1103515245u + 12345u;
        return 8 + (state >> 16) % 505;
    }
};

const int kLive = 256;

template <typename Alloc, typename Release>
void churn(benchmark::State& state, Alloc alloc, Release release) {
    void* live[kLive] = {};
    SizeSequence sizes;
    int slot = 0;
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        if (live[slot] != nullptr) release(live[slot]);
        live[slot] = alloc(sizes.next());
        benchmark::DoNotOptimize(live[slot]);
        slot = (slot + 1) % kLive;
    }
    for (void* p : live) {
        if (p != nullptr) release(p);
    }
}

void BM_SmallBlocks_Malloc(benchmark::State& state) {
    churn(
        state, [](uint32_t n) { return malloc(n); }, [](void* p) { free(p); });
}

void BM_SmallBlocks_POMAllocator(benchmark::State& state) {
    POMAllocator pool(512, 8192);
    churn(
        state, [&](uint32_t n) { return pool.allocate(n); }, [&](void* p) { pool.release(p); });
}

void BM_SmallBlocks_LibAlloc(benchmark::State& state) {
    churn(
        state, [](uint32_t n) { return libAlloc(static_cast<int32_t>(n)); }, [](void* p) { libFree(p); });
}

std::string benchFile() {
    static std::string path;
    if (path.empty()) {
        char dir[] = "/tmp/cvrt-bench-XXXXXX";
        if (mkdtemp(dir) == nullptr) abort();
        path = std::string(dir) + "/data.txt";
        FILE* f = fopen(path.c_str(), "w");
        if (f == nullptr) abort();
        for (int i = 0; i < 1000; i++) fprintf(f, "line %d of the benchmark file\n", i);
        fclose(f);
    }
    return path;
}

void BM_OpenReadClose_Posix(benchmark::State& state) {
    std::string path = benchFile();
    char buffer[4096];
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        int fd = open(path.c_str(), O_RDONLY);
        benchmark::DoNotOptimize(read(fd, buffer, sizeof(buffer)));
        close(fd);
    }
}

void BM_OpenReadClose_Handles(benchmark::State& state) {
    std::string path = benchFile();
    char buffer[4096];
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        int32_t h = fileOpen(path.c_str(), 0);
        benchmark::DoNotOptimize(fileRead(h, buffer, sizeof(buffer)));
        fileClose(h, -1);
    }
}

void BM_ReadWholeFile(benchmark::State& state) {
    std::string path = benchFile();
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        char* text = nullptr;
        int32_t length = 0;
        fileReadAll(path.c_str(), &text, &length, 0, 0);
        benchmark::DoNotOptimize(text);
        libFree(text);
    }
}

void BM_GetMessageWithArgument(benchmark::State& state) {
    char dir[] = "/tmp/cvrt-bench-msg-XXXXXX";
    if (mkdtemp(dir) == nullptr) abort();
    // magic, textBase, one entry (code -2 at offset 0), terminator, then the text
    const char text[] = "File '%s1' not found.";
    unsigned char file[sizeof(uint32_t) * 6 + sizeof(text)] = {0x22, 0x11, 0,    0,    24,   0,   0, 0, 0xfe,
                                                               0xff, 0xff, 0xff, 0,    0,    0,   0, 0, 0,
                                                               0,    0,    0xff, 0xff, 0xff, 0xff};
    memcpy(file + 24, text, sizeof(text));
    std::string path = std::string(dir) + "/bench.cvb";
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) abort();
    fwrite(file, 1, sizeof(file), f);
    fclose(f);
    setMessageFile((std::string(dir) + "/").c_str(), "bench.cvb");
    reloadMessageFile();
    setMessageArg(1, "/opt/corvane/bin/corv.ini");
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) benchmark::DoNotOptimize(getMessage(-2));
}

// A chain of three links, /tmp/.../c -> b -> a -> sub/target, resolved to the target.
std::string linkChain() {
    static std::string start;
    if (start.empty()) {
        char dir[] = "/tmp/cvrt-bench-links-XXXXXX";
        if (mkdtemp(dir) == nullptr) abort();
        std::string base = dir;
        if (mkdir((base + "/sub").c_str(), 0755) != 0) abort();
        FILE* f = fopen((base + "/sub/target").c_str(), "w");
        if (f == nullptr) abort();
        fclose(f);
        if (symlink("sub/target", (base + "/a").c_str()) != 0 || symlink("a", (base + "/b").c_str()) != 0 ||
            symlink("b", (base + "/c").c_str()) != 0)
            abort();
        start = base + "/c";
    }
    return start;
}

void BM_PathResolve_LinkChain(benchmark::State& state) {
    std::string start = linkChain();
    char out[512];
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        pathResolve(out, start.c_str(), 0);
        benchmark::DoNotOptimize(out);
    }
}

void BM_PathResolve_Realpath(benchmark::State& state) {
    std::string start = linkChain();
    char out[PATH_MAX];
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) benchmark::DoNotOptimize(realpath(start.c_str(), out));
}

}  // namespace

BENCHMARK(BM_SmallBlocks_Malloc);
BENCHMARK(BM_SmallBlocks_POMAllocator);
BENCHMARK(BM_SmallBlocks_LibAlloc);
BENCHMARK(BM_OpenReadClose_Posix);
BENCHMARK(BM_OpenReadClose_Handles);
BENCHMARK(BM_ReadWholeFile);
BENCHMARK(BM_GetMessageWithArgument);
BENCHMARK(BM_PathResolve_LinkChain);
BENCHMARK(BM_PathResolve_Realpath);
BENCHMARK_MAIN();
