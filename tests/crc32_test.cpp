// Compares every way to compute the checksum with its definition, bit by bit.
#include <gtest/gtest.h>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include <random>
#include <vector>

#include "szip/crc32.h"

namespace {

uint32_t crc_by_definition(uint32_t crc, const uint8_t* p, size_t size) {
    crc = ~crc;
    for (size_t n = 0; n < size; ++n) {
        crc ^= p[n];
        for (int bit = 0; bit < 8; ++bit) crc = crc & 1 ? crc >> 1 ^ 0xedb88320 : crc >> 1;
    }
    return ~crc;
}

TEST(Crc32, EveryWayGivesTheDefinedValue) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(1100 + 64);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    for (size_t offset = 0; offset < 64; ++offset) {
        const uint8_t* p = bytes.data() + offset;
        const auto start = static_cast<uint32_t>(random());
        uint32_t expected = start;
        for (size_t size = 0; size <= 1100; ++size) {
            ASSERT_EQ(expected, tessra::calc_crc32(start, p, size)) << size << " at " << offset;
            ASSERT_EQ(expected, ~tessra::crc32_by_tables(~start, p, size)) << size;
            const size_t split = random() % (size + 1);
            ASSERT_EQ(expected, tessra::calc_crc32(tessra::calc_crc32(start, p, split), p + split,
                                                   size - split));
            expected = crc_by_definition(expected, p + size, 1);
        }
    }
}

#if defined(__x86_64__)
// Returns whether the upper halves of the vector registers are in use, which slows down all SSE
// code.
bool upper_halves_in_use() {
    unsigned can_tell = 0, b, c, d, in_use = 0;
    if (__get_cpuid_count(0xd, 1, &can_tell, &b, &c, &d) && can_tell & 1u << 2) {
        asm volatile("xgetbv" : "=a"(in_use), "=d"(d) : "c"(1));
    }
    return (in_use & 1u << 2) != 0;
}

__attribute__((target("avx"))) void clear_upper_halves() { __builtin_ia32_vzeroupper(); }

TEST(Crc32, TheKernelIsChosenWhereTheProcessorHasIt) {
    std::vector<uint8_t> bytes(256, 7);
    if (!tessra::cpu_has_clmul()) GTEST_SKIP() << "no carry-less multiplication here";
    EXPECT_EQ(crc_by_definition(0, bytes.data(), 256),
              ~tessra::crc32_by_clmul(0xffffffff, bytes.data(), 256));
    if (!tessra::cpu_has_wide_clmul()) GTEST_SKIP() << "none of twice the width";
    clear_upper_halves();
    const bool were_in_use = upper_halves_in_use();  // Always true on some machines.
    EXPECT_EQ(crc_by_definition(0, bytes.data(), 256),
              ~tessra::crc32_by_wide_clmul(0xffffffff, bytes.data(), 256));
    EXPECT_EQ(were_in_use, upper_halves_in_use());
}
#endif

}  // namespace
