// CRC-32 by carry-less multiplication: V. Gopal et al., "Fast CRC Computation for Generic
// Polynomials Using PCLMULQDQ Instruction", Intel, 2009. The constants are those of the reflected
// form of this method for this polynomial.
#include "szip/crc32.h"

#if defined(__x86_64__)

#include <immintrin.h>

#define TESSRA_CLMUL __attribute__((target("pclmul,sse4.1")))
#define TESSRA_WIDE __attribute__((target("vpclmulqdq,avx2,pclmul,sse4.1")))

namespace tessra {

namespace {

TESSRA_CLMUL __m128i load(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Replaces x by a block at the place of next with the same effect on the CRC, and adds next. The
// constants k are those of the distance between the two places.
TESSRA_CLMUL __m128i fold(__m128i x, __m128i k, __m128i next) {
    const __m128i low = _mm_clmulepi64_si128(x, k, 0x00);
    const __m128i high = _mm_clmulepi64_si128(x, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

// Folds x into the blocks of 16 bytes behind it. Then reduces the result from 128 bits to 64, and
// by Barrett's method to 32.
TESSRA_CLMUL uint32_t finish(__m128i x, const uint8_t* p, size_t size) {
    const __m128i by_128 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);
    const __m128i by_64 = _mm_set_epi64x(0, 0x163cd6124);
    const __m128i mu_poly = _mm_set_epi64x(0x1f7011641, 0x1db710641);
    const __m128i even_words = _mm_set_epi32(0, -1, 0, -1);
    for (; size >= 16; p += 16, size -= 16) x = fold(x, by_128, load(p));
    x = _mm_xor_si128(_mm_srli_si128(x, 8), _mm_clmulepi64_si128(x, by_128, 0x10));
    x = _mm_xor_si128(_mm_srli_si128(x, 4),
                      _mm_clmulepi64_si128(_mm_and_si128(x, even_words), by_64, 0x00));
    __m128i quotient = _mm_clmulepi64_si128(_mm_and_si128(x, even_words), mu_poly, 0x10);
    quotient = _mm_clmulepi64_si128(_mm_and_si128(quotient, even_words), mu_poly, 0x00);
    return static_cast<uint32_t>(_mm_extract_epi32(_mm_xor_si128(x, quotient), 1));
}

TESSRA_WIDE __m256i load_pair(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

TESSRA_WIDE __m256i fold_pair(__m256i x, __m256i k, __m256i next) {
    const __m256i low = _mm256_clmulepi64_epi128(x, k, 0x00);
    const __m256i high = _mm256_clmulepi64_epi128(x, k, 0x11);
    return _mm256_xor_si256(_mm256_xor_si256(low, high), next);
}

// Folds the first half of a pair into the second. The result is a block at the second half's place.
TESSRA_WIDE __m128i join(__m256i pair) {
    const __m128i by_128 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);
    return fold(_mm256_castsi256_si128(pair), by_128, _mm256_extracti128_si256(pair, 1));
}

}  // namespace

bool cpu_has_clmul() {
    return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("sse4.1") != 0;
}

bool cpu_has_wide_clmul() {
    return __builtin_cpu_supports("vpclmulqdq") != 0 && __builtin_cpu_supports("avx2") != 0;
}

TESSRA_WIDE uint32_t crc32_by_wide_clmul(uint32_t state, const uint8_t* p, size_t size) {
    const __m256i by_1024 = _mm256_set_epi64x(0x14a7fe880, 0x1e88ef372, 0x14a7fe880, 0x1e88ef372);
    const __m256i by_256 = _mm256_set_epi64x(0x15a546366, 0x0f1da05aa, 0x15a546366, 0x0f1da05aa);
    __m256i x[4];
    for (size_t n = 0; n < 4; ++n) x[n] = load_pair(p + 32 * n);
    x[0] =
        _mm256_xor_si256(x[0], _mm256_zextsi128_si256(_mm_cvtsi32_si128(static_cast<int>(state))));
    for (p += 128, size -= 128; size >= 128; p += 128, size -= 128) {
        for (size_t n = 0; n < 4; ++n) x[n] = fold_pair(x[n], by_1024, load_pair(p + 32 * n));
    }
    for (size_t n = 1; n < 4; ++n) x[n] = fold_pair(x[n - 1], by_256, x[n]);
    const __m128i rest = join(x[3]);
    // The compiler omits this before a tail call. But as long as the upper halves of the vector
    // registers are in use, the caller's SSE code is several times slower.
    _mm256_zeroupper();
    return finish(rest, p, size);
}

TESSRA_CLMUL uint32_t crc32_by_clmul(uint32_t state, const uint8_t* p, size_t size) {
    const __m128i by_512 = _mm_set_epi64x(0x1c6e41596, 0x154442bd4);
    const __m128i by_128 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);

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
    return finish(x0, p, size);
}

}  // namespace tessra

#endif
