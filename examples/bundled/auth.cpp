#include "auth.h"

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include <tessra/base64.h>

namespace bundled {

namespace {

// Looks at each byte that the client sent, wherever the first difference is.
bool is_equal(std::string_view given, std::string_view wanted) {
    volatile unsigned int difference = given.size() == wanted.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size() && !wanted.empty(); ++i) {
        const int differing = given[i] ^ wanted[i % wanted.size()];
        difference = difference | static_cast<unsigned int>(differing);
    }
    return difference == 0;
}

bool decode(std::string_view text, std::string& bytes) {
    std::size_t length = text.size();  // More than the decoded bytes need.
    bytes.resize(length);
    auto* out = reinterpret_cast<std::uint8_t*>(bytes.data());
    const auto* in = reinterpret_cast<const std::uint8_t*>(text.data());
    if (base64_decode(in, text.size(), out, &length) != BASE64_OK) {
        return false;
    }
    bytes.resize(length);
    return true;
}

}  // namespace

bool is_authorized(std::string_view field, std::string_view wanted) {
    constexpr std::string_view kScheme = "Basic ";
    if (field.size() < kScheme.size() ||
        strncasecmp(field.data(), kScheme.data(), kScheme.size()) != 0) {
        return false;
    }
    field.remove_prefix(std::min(field.size(), field.find_first_not_of(' ', kScheme.size())));
    std::string given;
    return decode(field, given) && is_equal(given, wanted);
}

}  // namespace bundled
