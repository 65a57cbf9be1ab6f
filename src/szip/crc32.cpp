#include "szip/crc32.h"

#include <array>
#include <bit>
#include <cstring>

namespace tessra {

namespace {

constexpr uint32_t kPolynomial = 0xedb88320;  // Bit-reversed: x^31 is bit 0.

// The number of bytes that one round takes, and of KiB that the tables take. On the device, 8 would
// save less than 3 % of the instructions and take twice the space in a small cache.
#if defined(__arm__)
constexpr size_t kStep = 4;
#else
constexpr size_t kStep = 8;
#endif

using Row = std::array<uint32_t, 256>;

// Row k holds the effect of a byte on the CRC when k more bytes follow it.
constexpr std::array<Row, kStep> make_rows() {
    std::array<Row, kStep> rows{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? kPolynomial : 0);
        rows[0][byte] = crc;
    }
    for (size_t k = 1; k < kStep; ++k) {
        for (uint32_t byte = 0; byte < 256; ++byte) {
            const uint32_t crc = rows[k - 1][byte];
            rows[k][byte] = crc >> 8 ^ rows[0][crc & 0xff];
        }
    }
    return rows;
}

constexpr std::array<Row, kStep> kRows = make_rows();
constexpr const Row& crc32_tab = kRows[0];

constexpr uint32_t add_byte(uint32_t state, uint8_t byte) {
    return state >> 8 ^ crc32_tab[(state ^ byte) & 0xff];
}

constexpr uint32_t check_value() {
    uint32_t state = 0xffffffff;
    for (const char digit : {'1', '2', '3', '4', '5', '6', '7', '8', '9'}) {
        state = add_byte(state, static_cast<uint8_t>(digit));
    }
    return ~state;
}
static_assert(check_value() == 0xcbf43926, "the published check value of this CRC");

// p must be aligned to 4 bytes. Unless the compiler knows this, it loads byte by byte on ARMv5.
uint32_t load_le32(const uint8_t* p) {
    uint32_t word;
    memcpy(&word, __builtin_assume_aligned(p, alignof(uint32_t)), sizeof word);
    if constexpr (std::endian::native == std::endian::big) {
        word = __builtin_bswap32(word);
    }
    return word;
}

// The effect of four bytes when kBehind more bytes follow them.
template <size_t kBehind>
uint32_t add_word(uint32_t word) {
    return kRows[kBehind + 3][word & 0xff] ^ kRows[kBehind + 2][word >> 8 & 0xff] ^
           kRows[kBehind + 1][word >> 16 & 0xff] ^ kRows[kBehind][word >> 24];
}

}  // namespace

uint32_t crc32_by_tables(uint32_t state, const uint8_t* p, size_t size) {
    for (; size > 0 && reinterpret_cast<uintptr_t>(p) % alignof(uint32_t) != 0; size--) {
        state = add_byte(state, *p++);
    }
    for (; size >= kStep; size -= kStep, p += kStep) {
        const uint32_t a = add_word<kStep - 4>(state ^ load_le32(p));
        if constexpr (kStep == 8) {
            state = a ^ add_word<0>(load_le32(p + 4));
        } else {
            state = a;
        }
    }
    for (; size > 0; --size) state = add_byte(state, *p++);
    return state;
}

u_int32_t calc_crc32(u_int32_t crc, const void* buf, size_t size) {
    const auto* p = static_cast<const uint8_t*>(buf);
    uint32_t state = ~crc;
#if defined(__x86_64__)
    if (size >= kClmulMin && cpu_has_clmul()) {
        const size_t blocks = size - size % kClmulBlock;
        const bool wide = blocks >= kWideClmulMin && cpu_has_wide_clmul();
        state = wide ? crc32_by_wide_clmul(state, p, blocks) : crc32_by_clmul(state, p, blocks);
        p += blocks;
        size -= blocks;
    }
#endif
    return ~crc32_by_tables(state, p, size);
}

}  // namespace tessra
