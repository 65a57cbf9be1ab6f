// Base64. Both directions take four groups (12 bytes, 16 characters) at a time by tables. Then the
// encoder takes the rest by group, the decoder by character.

#include "tessra/base64.h"

#include <bit>
#include <cstdlib>
#include <cstring>

const char* const base64_err[7] = {
    "No error",
    "Generic error",
    "Invalid argument",
    "Invalid input packet",
    "Not enough space for output",
    "Invalid input length",
    "Out of memory",
};

namespace tessra {

namespace {

// Entries of the decoder's table for characters without a value from 0 to 63.
constexpr uint8_t kPad = 254;
constexpr uint8_t kInvalid = 255;
constexpr uint8_t kPadCharacter = '=';

constexpr size_t kStepBytes = 12;
constexpr size_t kStepCharacters = 16;
// decode_group() returns this bit if one of the four characters isn't in the alphabet.
constexpr uint32_t kOddGroup = 0x80000000U;

struct EncodeMap {
    uint8_t character[64];
};

struct DecodeMap {
    uint8_t value[256];
};

constexpr EncodeMap make_encode_map() {
    EncodeMap map = {};
    uint8_t* next = map.character;
    for (uint8_t c = 'A'; c <= 'Z'; ++c) *next++ = c;
    for (uint8_t c = 'a'; c <= 'z'; ++c) *next++ = c;
    for (uint8_t c = '0'; c <= '9'; ++c) *next++ = c;
    *next++ = '+';
    *next = '/';
    return map;
}

constexpr EncodeMap base64_encode_map = make_encode_map();

constexpr DecodeMap make_decode_map() {
    DecodeMap map = {};
    for (uint8_t& value : map.value) value = kInvalid;
    for (uint8_t n = 0; n < 64; ++n) map.value[base64_encode_map.character[n]] = n;
    map.value[kPadCharacter] = kPad;
    return map;
}

constexpr DecodeMap base64_decode_map = make_decode_map();

static_assert(base64_encode_map.character[63] == '/' && base64_decode_map.value[0x2f] == 63);

#if defined(__arm__) || defined(TESSRA_BASE64_SMALL_TABLES)

// For the device. Tables of 320 bytes leave its first-level cache to the daemon, and on ARM a shift
// needs no instruction of its own.
static_assert(sizeof base64_encode_map + sizeof base64_decode_map <= 2048);

inline void encode_group(uint32_t bits, uint8_t* out) {
    out[0] = base64_encode_map.character[bits >> 18];
    out[1] = base64_encode_map.character[bits >> 12 & 63];
    out[2] = base64_encode_map.character[bits >> 6 & 63];
    out[3] = base64_encode_map.character[bits & 63];
}

inline uint32_t decode_group(const uint8_t* in) {
    const uint32_t a = base64_decode_map.value[in[0]];
    const uint32_t b = base64_decode_map.value[in[1]];
    const uint32_t c = base64_decode_map.value[in[2]];
    const uint32_t d = base64_decode_map.value[in[3]];
    // Bit 7 is set in kPad and kInvalid, and clear in every value from 0 to 63.
    return a << 18 | b << 12 | c << 6 | d | ((a | b | c | d) & 0x80) << 24;
}

#else

struct EncodePairs {
    uint8_t characters[4096][2];
};

struct DecodeLanes {
    uint32_t bits[4][256];
};

constexpr EncodePairs make_encode_pairs() {
    EncodePairs pairs = {};
    for (unsigned n = 0; n < 4096; ++n) {
        pairs.characters[n][0] = base64_encode_map.character[n >> 6];
        pairs.characters[n][1] = base64_encode_map.character[n & 63];
    }
    return pairs;
}

// One table for each place in a group, with the values shifted to the bits of that place.
constexpr DecodeLanes make_decode_lanes() {
    DecodeLanes lanes = {};
    for (unsigned lane = 0; lane < 4; ++lane) {
        for (unsigned c = 0; c < 256; ++c) {
            const uint32_t value = base64_decode_map.value[c];
            lanes.bits[lane][c] = value < 64 ? value << (18 - 6 * lane) : kOddGroup;
        }
    }
    return lanes;
}

constexpr EncodePairs encode_pairs = make_encode_pairs();
constexpr DecodeLanes decode_lanes = make_decode_lanes();

static_assert(encode_pairs.characters[0xfc1][0] == '/' && encode_pairs.characters[0xfc1][1] == 'B');
static_assert(decode_lanes.bits[0][0x2f] == 0xfc0000);
static_assert(decode_lanes.bits[3][kPadCharacter] == kOddGroup);

inline void encode_group(uint32_t bits, uint8_t* out) {
    memcpy(out, encode_pairs.characters[bits >> 12], 2);
    memcpy(out + 2, encode_pairs.characters[bits & 0xfff], 2);
}

inline uint32_t decode_group(const uint8_t* in) {
    return decode_lanes.bits[0][in[0]] | decode_lanes.bits[1][in[1]] | decode_lanes.bits[2][in[2]] |
           decode_lanes.bits[3][in[3]];
}

#endif

constexpr uint32_t to_big_endian(uint32_t word) {
    return std::endian::native == std::endian::big ? word : __builtin_bswap32(word);
}

inline uint32_t load_word(const uint8_t* in) {
    uint32_t word = 0;
    memcpy(&word, in, sizeof word);
    return to_big_endian(word);
}

inline void store_word(uint8_t* out, uint32_t word) {
    word = to_big_endian(word);
    memcpy(out, &word, sizeof word);
}

// Encodes three words of 32 bits, which are four groups of 24 bits.
inline void encode_step(const uint8_t* in, uint8_t* out) {
    constexpr uint32_t kGroup = 0xffffff;
    const uint32_t a = load_word(in);
    const uint32_t b = load_word(in + 4);
    const uint32_t c = load_word(in + 8);
    encode_group(a >> 8, out);
    encode_group((a << 16 | b >> 16) & kGroup, out + 4);
    encode_group((b << 8 | c >> 24) & kGroup, out + 8);
    encode_group(c & kGroup, out + 12);
}

// If a character isn't in the alphabet, writes nothing and returns false. decode_rest() then
// decodes the groups before that character.
inline bool decode_step(const uint8_t* in, uint8_t* out) {
    const uint32_t a = decode_group(in);
    const uint32_t b = decode_group(in + 4);
    const uint32_t c = decode_group(in + 8);
    const uint32_t d = decode_group(in + 12);
    if (((a | b | c | d) & kOddGroup) != 0) return false;
    store_word(out, a << 8 | b >> 16);
    store_word(out + 4, b << 16 | c >> 8);
    store_word(out + 8, c << 24 | d);
    return true;
}

// Encodes the last one or two bytes. The missing bits of their last character are zero.
void encode_tail(const uint8_t* in, size_t count, uint8_t* out) {
    const auto first = static_cast<uint32_t>(in[0]) << 16;
    const auto second = count == 2 ? static_cast<uint32_t>(in[1]) << 8 : 0;
    encode_group(first | second, out);
    out[3] = kPadCharacter;
    if (count == 1) out[2] = kPadCharacter;
}

uint8_t* encode_all(const uint8_t* in, size_t left, uint8_t* out) {
    for (; left >= kStepBytes; left -= kStepBytes, in += kStepBytes, out += kStepCharacters) {
        encode_step(in, out);
    }
    for (; left >= 3; left -= 3, in += 3, out += 4) {
        encode_group(static_cast<uint32_t>(in[0] << 16 | in[1] << 8 | in[2]), out);
    }
    if (left == 0) return out;
    encode_tail(in, left, out);
    return out + 4;
}

// Decodes from the start of a group and checks every rule. Adds 1 to `written` for each byte.
int decode_rest(const uint8_t* in, const uint8_t* end, uint8_t* out, size_t room, size_t& written) {
    // The number of bytes in a group. A pad character lowers it for the rest of the text, so that
    // only another pad character may follow.
    unsigned yield = 3;
    unsigned count = 0;
    uint32_t group = 0;
    for (; in != end; ++in) {
        uint32_t value = base64_decode_map.value[*in];
        if (value == kInvalid) return BASE64_INVALID_PACKET;
        if (value == kPad) {
            if (--yield == 0) return BASE64_INVALID_PACKET;
            value = 0;
        } else if (yield != 3) {
            return BASE64_INVALID_PACKET;
        }
        group = group << 6 | value;
        if (++count < 4) continue;
        if (room - written < yield) return BASE64_BUFFER_OVERFLOW;
        for (unsigned n = 0; n < yield; ++n) {
            out[written++] = static_cast<uint8_t>(group >> (16 - 8 * n));
        }
        count = 0;
        group = 0;
    }
    return count == 0 ? BASE64_OK : BASE64_INVALID_PACKET;
}

// The room for the text and its terminator. If this doesn't fit a size_t, the result wraps around
// to less than `inlen`.
constexpr size_t encoded_space(size_t inlen) { return (inlen + 2) / 3 * 4 + 1; }

constexpr size_t kLargestInput = (SIZE_MAX / 4 - (SIZE_MAX % 4 < 1)) * 3;
static_assert(encoded_space(kLargestInput) > kLargestInput);
static_assert(encoded_space(kLargestInput + 1) < kLargestInput + 1);
static_assert(encoded_space(SIZE_MAX) < SIZE_MAX && encoded_space(SIZE_MAX - 2) < SIZE_MAX - 2);

// matches() returns the top bit of each byte of `word` that equals `c`, and no other bit.
constexpr uintptr_t kEachByte = UINTPTR_MAX / 255;
constexpr uintptr_t matches(uintptr_t word, char c) {
    const uintptr_t difference = word ^ kEachByte * static_cast<unsigned char>(c);
    const uintptr_t low = kEachByte * 0x7f;
    return ~(((difference & low) + low) | difference | low);
}
static_assert(matches(0x2b002bab, '+') == 0x80008000);

void replace_one(char& c, const char* from, const char* to) {
    if (c == from[0]) {
        c = to[0];
    } else if (c == from[1]) {
        c = to[1];
    }
}

// Replaces a word at a time. Masks select the bytes, so there is no branch on the text that the
// processor could mispredict.
void replace(char* text, size_t length, const char* from, const char* to) {
    const auto first = static_cast<unsigned char>(from[0] ^ to[0]);
    const auto second = static_cast<unsigned char>(from[1] ^ to[1]);
    for (; length >= sizeof(uintptr_t); length -= sizeof(uintptr_t), text += sizeof(uintptr_t)) {
        uintptr_t word;
        memcpy(&word, text, sizeof word);
        word ^= (matches(word, from[0]) >> 7) * first ^ (matches(word, from[1]) >> 7) * second;
        memcpy(text, &word, sizeof word);
    }
    for (; length != 0; --length, ++text) replace_one(*text, from, to);
}

constexpr char kStandard[] = "+/";
constexpr char kUrlSafe[] = "-_";

}  // namespace

}  // namespace tessra

using namespace tessra;

int base64_encode(const uint8_t* in, size_t inlen, uint8_t* out, size_t* outlen) {
    if (in == nullptr || out == nullptr || outlen == nullptr) return BASE64_INVALID_ARG;
    const size_t space = encoded_space(inlen);
    if (space < inlen) return BASE64_INVALID_LEN;
    if (space > *outlen) {
        *outlen = space;
        return BASE64_BUFFER_OVERFLOW;
    }
    uint8_t* const end = encode_all(in, inlen, out);
    *end = 0;
    *outlen = static_cast<size_t>(end - out);
    return BASE64_OK;
}

int base64_decode(const uint8_t* in, size_t inlen, uint8_t* out, size_t* outlen) {
    if (in == nullptr || out == nullptr || outlen == nullptr) return BASE64_INVALID_ARG;
    const uint8_t* const end = in + inlen;
    const size_t room = *outlen;
    size_t written = 0;
    while (static_cast<size_t>(end - in) >= kStepCharacters && room - written >= kStepBytes) {
        if (!decode_step(in, out + written)) break;
        in += kStepCharacters;
        written += kStepBytes;
    }
    const int result = decode_rest(in, end, out, room, written);
    if (result == BASE64_OK) *outlen = written;
    return result;
}

int base64_encode_alloc(const uint8_t* in, size_t inlen, uint8_t** out, size_t* outlen) {
    if (out == nullptr || outlen == nullptr) return BASE64_INVALID_ARG;
    *out = nullptr;
    *outlen = encoded_space(inlen);
    if (*outlen < inlen) return BASE64_INVALID_LEN;
    *out = static_cast<uint8_t*>(calloc(*outlen, 1));
    if (*out == nullptr) return BASE64_NOMEM;
    return base64_encode(in, inlen, *out, outlen);
}

int base64_decode_alloc(const uint8_t* in, size_t inlen, uint8_t** out, size_t* outlen) {
    if (out == nullptr || outlen == nullptr) return BASE64_INVALID_ARG;
    const size_t size = 3 * (inlen / 4) + 2;
    *out = static_cast<uint8_t*>(calloc(size, 1));
    if (*out == nullptr) return BASE64_NOMEM;
    *outlen = size;
    return base64_decode(in, inlen, *out, outlen);
}

void base64_urlsafe(char* b64, size_t b64_len) { replace(b64, b64_len, kStandard, kUrlSafe); }

void base64_unurlsafe(char* b64, size_t b64_len) { replace(b64, b64_len, kUrlSafe, kStandard); }
