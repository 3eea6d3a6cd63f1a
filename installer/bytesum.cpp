// Byte sum over whole files, so it runs at memory speed: psadbw against zero adds eight bytes
// into a 64-bit lane per instruction. On x86-64 the SSE2 form is always there; where the
// processor has AVX2 the 32-byte form is chosen once at the first call. Other targets get
// the plain loop. The 64-bit lanes cannot overflow for any buffer that fits in memory, and
// their total cut to 32 bits is the wrapping 32-bit sum.
#include "installer/bytesum.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define CVINST_BYTESUM_X86 1
#include <immintrin.h>
#endif

namespace {

uint32_t plainSum(const unsigned char* data, size_t count) {
    uint32_t sum = 0;
    for (size_t i = 0; i < count; i++) sum += data[i];
    return sum;
}

#ifdef CVINST_BYTESUM_X86

uint32_t sse2Sum(const unsigned char* data, size_t count) {
    const __m128i zero = _mm_setzero_si128();
    __m128i sumA = zero, sumB = zero;
    size_t i = 0;
    for (; i + 64 <= count; i += 64) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 16));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 32));
        __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 48));
        sumA = _mm_add_epi64(sumA, _mm_add_epi64(_mm_sad_epu8(a, zero), _mm_sad_epu8(b, zero)));
        sumB = _mm_add_epi64(sumB, _mm_add_epi64(_mm_sad_epu8(c, zero), _mm_sad_epu8(d, zero)));
    }
    for (; i + 16 <= count; i += 16)
        sumA = _mm_add_epi64(sumA,
                             _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i)), zero));
    sumA = _mm_add_epi64(sumA, sumB);
    uint64_t lanes[2];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), sumA);
    return static_cast<uint32_t>(lanes[0] + lanes[1]) + plainSum(data + i, count - i);
}

__attribute__((target("avx2"))) uint32_t avx2Sum(const unsigned char* data, size_t count) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i sumA = zero, sumB = zero;
    size_t i = 0;
    for (; i + 128 <= count; i += 128) {
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i));
        __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 32));
        __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 64));
        __m256i d = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i + 96));
        sumA = _mm256_add_epi64(sumA, _mm256_add_epi64(_mm256_sad_epu8(a, zero), _mm256_sad_epu8(b, zero)));
        sumB = _mm256_add_epi64(sumB, _mm256_add_epi64(_mm256_sad_epu8(c, zero), _mm256_sad_epu8(d, zero)));
    }
    for (; i + 32 <= count; i += 32)
        sumA = _mm256_add_epi64(
            sumA, _mm256_sad_epu8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + i)), zero));
    sumA = _mm256_add_epi64(sumA, sumB);
    uint64_t lanes[4];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), sumA);
    return static_cast<uint32_t>(lanes[0] + lanes[1] + lanes[2] + lanes[3]) + sse2Sum(data + i, count - i);
}

using SumKernel = uint32_t (*)(const unsigned char*, size_t);

bool hasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

#endif

}  // namespace

uint32_t byteSum(const unsigned char* data, size_t count) {
#ifdef CVINST_BYTESUM_X86
    static const SumKernel kernel = hasAvx2() ? avx2Sum : sse2Sum;
    return kernel(data, count);
#else
    return plainSum(data, count);
#endif
}

int32_t byteSumKernelAvailable(ByteSumKernel kernel) {
#ifdef CVINST_BYTESUM_X86
    if (kernel == kByteSumSse2) return 1;
    if (kernel == kByteSumAvx2) return hasAvx2() ? 1 : 0;
#endif
    return kernel == kByteSumPlain ? 1 : 0;
}

uint32_t byteSumWith(ByteSumKernel kernel, const unsigned char* data, size_t count) {
#ifdef CVINST_BYTESUM_X86
    if (kernel == kByteSumSse2) return sse2Sum(data, count);
    if (kernel == kByteSumAvx2) return avx2Sum(data, count);
#endif
    return plainSum(data, count);
}
