// This file is built twice: with the library's tables, and with the small tables of the device.
#include <gtest/gtest.h>

#include <random>

#include "support/base64_model.h"
#include "support/fakes.h"

using namespace tessra_test;

namespace {

// Returns result, length and first bytes of the block of a call with the suffix _alloc.
template <typename Call>
std::string allocated(Call call, const std::string& in, size_t size) {
    uint8_t* out = nullptr;
    size_t outlen = 77;
    const int code = call(bytes_of(in), in.size(), &out, &outlen);
    const std::string bytes = out ? std::string(reinterpret_cast<char*>(out), size) : "null";
    free(out);
    return std::to_string(code) + ' ' + std::to_string(outlen) + ' ' + bytes;
}

// The vectors of RFC 4648, section 10, and one with the characters that these lack.
TEST(Base64, PublishedVectorsComeOutOtherwise) {
    const std::string rows[][2] = {{"", ""},
                                   {"f", "Zg=="},
                                   {"fo", "Zm8="},
                                   {"foo", "Zm9v"},
                                   {"foob", "Zm9vYg=="},
                                   {"fooba", "Zm9vYmE="},
                                   {"foobar", "Zm9vYmFy"},
                                   {"\xfb\xff\xbf~~~~~~~~~", "+/+/fn5+fn5+fn5+"}};
    for (const auto& [bytes, text] : rows) {
        EXPECT_EQ("0 " + std::to_string(text.size()) + ' ' + text + '\0',
                  allocated(base64_encode_alloc, bytes, text.size() + 1));
        EXPECT_EQ("0 " + std::to_string(bytes.size()) + ' ' + bytes + '\0' + '\0',
                  allocated(base64_decode_alloc, text, bytes.size() + 2));
    }
}

TEST(Base64, FastAndSimpleWayDiffer) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::string bytes;
    for (size_t length = 0; length <= 200; ++length) {
        const std::string text = model_encode(bytes);
        ASSERT_TRUE(encodes_like_model(bytes)) << length;
        for (size_t room = 0; room <= length + 1; ++room) {
            ASSERT_TRUE(decodes_like_model(text, room)) << text << ' ' << room;
        }
        for (size_t place = 0; place < text.size(); ++place) {
            ASSERT_TRUE(decodes_like_model(text.substr(0, place), length)) << text << ' ' << place;
            for (const char bad : {'=', '-', '\0', '\n', static_cast<char>(random())}) {
                std::string changed = text;
                changed[place] = bad;
                const size_t room = random() % 4 ? length : random() % (length + 1);
                ASSERT_TRUE(decodes_like_model(changed, room)) << changed << ' ' << room;
            }
        }
        bytes += static_cast<char>(random());
    }
}

TEST(Base64, FailureIsTakenForAnotherOrTouchesWhatItMustNot) {
    uint8_t out[9] = "~~~~~~~~", *block = out;
    size_t n = 4;
    EXPECT_TRUE(base64_encode(out, 3, out, &n) == BASE64_BUFFER_OVERFLOW && n == 5);
    for (const size_t inlen : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX - 2, SIZE_MAX / 4 * 3 + 1}) {
        n = 9;
        EXPECT_TRUE(base64_encode(out, inlen, out, &n) == BASE64_INVALID_LEN && n == 9);
        EXPECT_EQ(BASE64_INVALID_LEN, base64_encode_alloc(out, inlen, &block, &n));
        EXPECT_TRUE(block == nullptr && n == (inlen + 2) / 3 * 4 + 1);
    }
    const int codes[] = {
        base64_encode(nullptr, 0, out, &n),           base64_encode(out, 1, out, nullptr),
        base64_decode(nullptr, 0, out, &n),           base64_decode(out, 0, nullptr, &n),
        base64_encode_alloc(out, 1, &block, nullptr), base64_decode_alloc(out, 1, &block, nullptr)};
    for (const int code : codes) EXPECT_EQ(BASE64_INVALID_ARG, code);
    EXPECT_STREQ("~~~~~~~~", reinterpret_cast<char*>(out));
    for (const auto call : {base64_encode_alloc, base64_decode_alloc}) {
        EXPECT_EQ(BASE64_INVALID_ARG, call(nullptr, 4, &block, &n));
        EXPECT_EQ(call == base64_encode_alloc ? 9u : 5u, n);
        free(block);
        fail_allocation = 1;
        EXPECT_EQ(call == base64_encode_alloc ? "6 9 null" : "6 77 null",
                  allocated(call, "abcd", 0));
    }
}

TEST(Base64, TranslationTouchesOthersOrStopsEarly) {
    std::string text = std::string("a+/=\0-_+/", 9);
    base64_urlsafe(&text[0], 8);
    EXPECT_EQ(std::string("a-_=\0-_-/", 9), text);
    base64_unurlsafe(&text[0], 6);
    EXPECT_EQ(std::string("a+/=\0+_-/", 9), text);
}

}  // namespace
