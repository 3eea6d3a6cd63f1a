// The verification's byte sum against memcpy of the same buffer: in the first-level cache
// (16 KiB), in the second-level cache (256 KiB) and from memory (64 MiB). All report the bytes
// of the buffer per second, so the rates compare directly. BM_ByteSum is what the installer
// runs (the widest kernel the processor has); BM_ByteSumSse2 is the SSE2 kernel that every
// x86-64 processor can run.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "installer/bytesum.h"

namespace {

std::vector<unsigned char> filled(size_t size) {
    std::vector<unsigned char> data(size);
    uint32_t state = 2463534242u;
    for (unsigned char& byte : data) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<unsigned char>(state);
    }
    return data;
}

void BM_ByteSum(benchmark::State& state) {
    std::vector<unsigned char> data = filled(static_cast<size_t>(state.range(0)));
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.data());
        uint32_t sum = byteSum(data.data(), data.size());
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_ByteSumSse2(benchmark::State& state) {
    if (!byteSumKernelAvailable(kByteSumSse2)) {
        state.SkipWithError("no SSE2 kernel on this target");
        return;
    }
    std::vector<unsigned char> data = filled(static_cast<size_t>(state.range(0)));
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.data());
        uint32_t sum = byteSumWith(kByteSumSse2, data.data(), data.size());
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Memcpy(benchmark::State& state) {
    std::vector<unsigned char> data = filled(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> copy(data.size());
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): the loop variable is unused by design
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.data());
        memcpy(copy.data(), data.data(), data.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

}  // namespace

BENCHMARK(BM_ByteSum)->Arg(16 << 10)->Arg(256 << 10)->Arg(64 << 20);
BENCHMARK(BM_ByteSumSse2)->Arg(16 << 10)->Arg(256 << 10)->Arg(64 << 20);
BENCHMARK(BM_Memcpy)->Arg(16 << 10)->Arg(256 << 10)->Arg(64 << 20);
