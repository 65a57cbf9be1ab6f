// A Base64 codec that is too simple to be wrong. Test and fuzzer compare it with the library's.
#ifndef TESSRA_TESTS_BASE64_MODEL_H
#define TESSRA_TESTS_BASE64_MODEL_H

#include <algorithm>
#include <string>

#include "tessra/base64.h"

namespace tessra_test {

inline const std::string kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline uint8_t* bytes_of(const std::string& text) {
    return reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()));
}

inline std::string model_encode(const std::string& in) {
    std::string text;
    for (size_t bit = 0; bit < in.size() * 8; bit += 6) {
        unsigned value = 0;
        for (size_t b = bit; b < bit + 6; ++b) {
            value = value * 2 + (b / 8 < in.size() ? bytes_of(in)[b / 8] >> (7 - b % 8) & 1 : 0);
        }
        text += kAlphabet[value];
    }
    return text.append((4 - text.size() % 4) % 4, '=');
}

inline int model_decode(const std::string& in, size_t room, std::string* out) {
    const size_t data = std::min(in.find('='), in.size());
    size_t bits = 0;
    for (size_t n = 0; n < in.size(); ++n) {
        const bool pad = in[n] == '=' && n < data + 2;
        const size_t value = n < data ? kAlphabet.find(in[n]) : pad ? 0 : 64;
        if (value >= 64) return BASE64_INVALID_PACKET;
        bits = (bits << 6) + value;
        if (n % 4 != 3) continue;
        const size_t yield = n < data ? 3 : 2 - (n - data);
        if (out->size() + yield > room) return BASE64_BUFFER_OVERFLOW;
        for (size_t k = 0; k < yield; ++k) *out += static_cast<char>(bits >> (16 - 8 * k));
    }
    return in.size() % 4 == 0 ? BASE64_OK : BASE64_INVALID_PACKET;
}

// Returns whether code, length and every byte of a buffer of this room are those of the model.
inline bool decodes_like_model(const std::string& in, size_t room) {
    std::string expected, out(room, '~');
    const int code = model_decode(in, room, &expected);
    const size_t length = code == BASE64_OK ? expected.size() : room;
    expected.resize(room, '~');
    size_t outlen = room;
    return base64_decode(bytes_of(in), in.size(), bytes_of(out), &outlen) == code &&
           outlen == length && out == expected;
}

inline bool encodes_like_model(const std::string& in) {
    const std::string expected = model_encode(in);
    std::string out(expected.size() + 1, '~');
    size_t outlen = out.size();
    return base64_encode(bytes_of(in), in.size(), bytes_of(out), &outlen) == BASE64_OK &&
           outlen == expected.size() && out == expected + '\0';
}

}  // namespace tessra_test

#endif
