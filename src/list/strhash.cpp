// lookup2, the string hash. It adds each block of 12 bytes to three words and then mixes the words.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "list/hashtable_private.h"

namespace tessra {

namespace {

constexpr size_t kBlock = 12;

struct Words {
    uint32_t a, b, c;
};

constexpr void mix(Words& w) {
    w.a -= w.b, w.a -= w.c, w.a ^= w.c >> 13;
    w.b -= w.c, w.b -= w.a, w.b ^= w.a << 8;
    w.c -= w.a, w.c -= w.b, w.c ^= w.b >> 13;
    w.a -= w.b, w.a -= w.c, w.a ^= w.c >> 12;
    w.b -= w.c, w.b -= w.a, w.b ^= w.a << 16;
    w.c -= w.a, w.c -= w.b, w.c ^= w.b >> 5;
    w.a -= w.b, w.a -= w.c, w.a ^= w.c >> 3;
    w.b -= w.c, w.b -= w.a, w.b ^= w.a << 10;
    w.c -= w.a, w.c -= w.b, w.c ^= w.b >> 15;
}

constexpr uint32_t byte_at(const char* byte, unsigned int place) {
    return uint32_t{static_cast<unsigned char>(*byte)} << 8 * place;
}

// Reads byte by byte, since a string may begin at any address and its hash must be the same on
// every machine. The bytes are written out, since compilers turn this form into one load where the
// machine allows it. Always inlined, since a call would cost as much as the work.
[[gnu::always_inline]] constexpr uint32_t little_endian(const char* b) {
    return byte_at(b, 0) | byte_at(b + 1, 1) | byte_at(b + 2, 2) | byte_at(b + 3, 3);
}

constexpr void add_block(Words& w, const char* b) {
    w.a += little_endian(b);
    w.b += little_endian(b + 4);
    w.c += little_endian(b + 8);
}

// Adds the last 0 to 11 bytes. The lowest byte of c is reserved for the length.
constexpr void add_tail(Words& w, const char* b, size_t rest) {
    switch (rest) {
        case 11:
            w.c += byte_at(b + 10, 3);
            [[fallthrough]];
        case 10:
            w.c += byte_at(b + 9, 2);
            [[fallthrough]];
        case 9:
            w.c += byte_at(b + 8, 1);
            [[fallthrough]];
        case 8:
            w.b += little_endian(b + 4);
            w.a += little_endian(b);
            break;
        case 7:
            w.b += byte_at(b + 6, 2);
            [[fallthrough]];
        case 6:
            w.b += byte_at(b + 5, 1);
            [[fallthrough]];
        case 5:
            w.b += byte_at(b + 4, 0);
            [[fallthrough]];
        case 4:
            w.a += little_endian(b);
            break;
        case 3:
            w.a += byte_at(b + 2, 2);
            [[fallthrough]];
        case 2:
            w.a += byte_at(b + 1, 1);
            [[fallthrough]];
        case 1:
            w.a += byte_at(b, 0);
            break;
        default:
            break;
    }
}

// mix() is called at one place for blocks and tail, so that the compiler inlines it and keeps the
// words in registers.
constexpr uint32_t lookup2(const char* bytes, size_t length) {
    Words w = {0x9e3779b9, 0x9e3779b9, 0xdeadbeef};
    for (size_t rest = length;; rest -= kBlock, bytes += kBlock) {
        const bool is_tail = rest < kBlock;
        if (is_tail) {
            w.c += static_cast<uint32_t>(length);
            add_tail(w, bytes, rest);
        } else {
            add_block(w, bytes);
        }
        mix(w);
        if (is_tail) return w.c;
    }
}

static_assert(lookup2("", 0) == 0x1153f4be);
static_assert(lookup2("abc", 3) == 0x67e8c010);
static_assert(lookup2("abcdefghijklm", 13) == 0xe71c206c);

}  // namespace

}  // namespace tessra

[[gnu::weak]] unsigned int strhash(const char* k) { return tessra::lookup2(k, strlen(k)); }

[[gnu::alias("strhash")]] unsigned int tessra::hash_of(const char* text);
