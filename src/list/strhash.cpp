// lookup2, the string hash: three words that every block of 12 bytes is added to, and then mixed.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tessra/list.h"

namespace tessra {

namespace {

constexpr size_t kBlock = 12;
constexpr size_t kWordsWithoutLength = 8;  // Bytes of a and b; c's lowest byte has the length.

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

// Byte by byte: a string begins anywhere, and the result is the same on every machine.
template <class Byte>
constexpr uint32_t little_endian(const Byte* bytes) {
    uint32_t word = 0;
    for (unsigned int n = 0; n < 4; n++) {
        word |= uint32_t{static_cast<unsigned char>(bytes[n])} << 8 * n;
    }
    return word;
}

constexpr void add_block(Words& w, const char* bytes) {
    w.a += little_endian(bytes);
    w.b += little_endian(bytes + 4);
    w.c += little_endian(bytes + 8);
    mix(w);
}

constexpr uint32_t lookup2(const char* bytes, size_t length) {
    Words w = {0x9e3779b9, 0x9e3779b9, 0xdeadbeef};
    size_t rest = length;
    for (; rest >= kBlock; rest -= kBlock, bytes += kBlock) add_block(w, bytes);
    w.c += static_cast<uint32_t>(length);
    char tail[kBlock] = {};
    for (size_t n = 0; n < rest; n++) tail[n < kWordsWithoutLength ? n : n + 1] = bytes[n];
    add_block(w, tail);
    return w.c;
}

static_assert(lookup2("", 0) == 0x1153f4be);
static_assert(lookup2("abc", 3) == 0x67e8c010);
static_assert(lookup2("abcdefghijklm", 13) == 0xe71c206c);

}  // namespace

}  // namespace tessra

unsigned int strhash(const char* k) { return tessra::lookup2(k, strlen(k)); }
