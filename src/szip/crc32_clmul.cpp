// CRC-32 by carry-less multiplication: V. Gopal et al., "Fast CRC Computation for Generic
// Polynomials Using PCLMULQDQ Instruction", Intel, 2009; the constants are those of its reflected
// form for this polynomial.
#include "szip/crc32.h"

#if defined(__x86_64__)

#include <immintrin.h>

#define TESSRA_CLMUL __attribute__((target("pclmul,sse4.1")))

namespace tessra {

namespace {

TESSRA_CLMUL __m128i load(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Moves what x stands for past the distance of the constants k, and adds next there.
TESSRA_CLMUL __m128i fold(__m128i x, __m128i k, __m128i next) {
    const __m128i low = _mm_clmulepi64_si128(x, k, 0x00);
    const __m128i high = _mm_clmulepi64_si128(x, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

}  // namespace

bool cpu_has_clmul() {
    return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("sse4.1") != 0;
}

TESSRA_CLMUL uint32_t crc32_by_clmul(uint32_t state, const uint8_t* p, size_t size) {
    const __m128i by_512 = _mm_set_epi64x(0x1c6e41596, 0x154442bd4);
    const __m128i by_128 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);
    const __m128i by_64 = _mm_set_epi64x(0, 0x163cd6124);
    const __m128i mu_poly = _mm_set_epi64x(0x1f7011641, 0x1db710641);
    const __m128i even_words = _mm_set_epi32(0, -1, 0, -1);

    __m128i x0 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(state)));
    __m128i x1 = load(p + 16);
    __m128i x2 = load(p + 32);
    __m128i x3 = load(p + 48);
    for (p += 64, size -= 64; size >= 64; p += 64, size -= 64) {
        x0 = fold(x0, by_512, load(p));
        x1 = fold(x1, by_512, load(p + 16));
        x2 = fold(x2, by_512, load(p + 32));
        x3 = fold(x3, by_512, load(p + 48));
    }
    x0 = fold(x0, by_128, x1);
    x0 = fold(x0, by_128, x2);
    x0 = fold(x0, by_128, x3);
    for (; size >= 16; p += 16, size -= 16) {
        x0 = fold(x0, by_128, load(p));
    }

    // 128 bits to 64, then Barrett's reduction to 32.
    x0 = _mm_xor_si128(_mm_srli_si128(x0, 8), _mm_clmulepi64_si128(x0, by_128, 0x10));
    x0 = _mm_xor_si128(_mm_srli_si128(x0, 4),
                       _mm_clmulepi64_si128(_mm_and_si128(x0, even_words), by_64, 0x00));
    __m128i quotient = _mm_clmulepi64_si128(_mm_and_si128(x0, even_words), mu_poly, 0x10);
    quotient = _mm_clmulepi64_si128(_mm_and_si128(quotient, even_words), mu_poly, 0x00);
    return static_cast<uint32_t>(_mm_extract_epi32(_mm_xor_si128(x0, quotient), 1));
}

}  // namespace tessra

#endif
