// Sum of a buffer's bytes, the checksum of the distribution file list.
#pragma once
#include <cstddef>
#include <cstdint>

// Every byte taken as an unsigned 8-bit value, added into a 32-bit accumulator that wraps.
// Uses the fastest kernel that the processor has.
uint32_t byteSum(const unsigned char* data, size_t count);

// The kernels byteSum chooses from, for the tests and the benchmarks.
enum ByteSumKernel { kByteSumPlain, kByteSumSse2, kByteSumAvx2 };
// 1 when the kernel is built in and the processor can run it.
int32_t byteSumKernelAvailable(ByteSumKernel kernel);
// The sum through the given kernel, which must be available.
uint32_t byteSumWith(ByteSumKernel kernel, const unsigned char* data, size_t count);
