// DNS messages: the builder of a query, and one walk over a reply that both parsers share.

#include "tessra/dns.h"

#include <arpa/inet.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace tessra {

namespace {

constexpr unsigned int kHeaderBytes = sizeof(dns_header_t);
constexpr unsigned int kRequestBytes = 512;
constexpr unsigned int kTextBytes = 256;
constexpr unsigned short kRecursionDesired = 0x0100;
constexpr unsigned short kReplyCodeMask = 0x000F;

static_assert(kHeaderBytes == 12 && alignof(dns_header_t) == 1, "laid over any buffer");
static_assert(offsetof(dns_header_t, f) == 2 && offsetof(dns_header_t, answer_count) == 6);

// RFC 1035, 2.3.4 and 4.2.2. No parser knows the length of its buffer, so kMaxMessageBytes bounds
// every walk.
constexpr unsigned int kMaxLabelBytes = 63;
constexpr unsigned int kMaxNameBytes = 255;
constexpr unsigned int kMaxMessageBytes = 65535;

constexpr unsigned int kPointer = 0xC0;  // RFC 1035, 4.1.4: a length byte with both bits set.
constexpr unsigned int kPointerBytes = 2;

// The fixed fields between the names of a message.
constexpr unsigned int kQuestionTailBytes = 4;  // Type and class.
constexpr unsigned int kRdlengthOffset = 8;     // Behind type, class and TTL.
constexpr unsigned int kRecordHeaderBytes = 10;

constexpr unsigned int kTypeA = 1;
constexpr unsigned int kTypeAaaa = 28;  // RFC 3596
constexpr unsigned int kClassIn = 1;

// Where the parser stores an address of a reply.
struct Target {
    void* v4;
    void* v6;             // Null to ignore AAAA records.
    sa_family_t* family;  // Null if the caller knows the family.
};

unsigned int byte_at(const char* data) { return static_cast<unsigned char>(*data); }

dns_header_t& header_of(char* message) {
    void* const bytes = message;
    return *static_cast<dns_header_t*>(bytes);
}

// The offset behind the name at `at`. If no name is there, the offset two bytes further on, as
// behind a pointer.
unsigned int skip_name(const char* message, unsigned int at) {
    const unsigned int begin = at;
    while (at < kMaxMessageBytes && at - begin < kMaxNameBytes) {
        const unsigned int length = byte_at(message + at);
        if (length == 0) return at + 1;
        if (length >= kPointer) return at + kPointerBytes;
        if (length > kMaxLabelBytes) break;
        at += 1 + length;
    }
    return begin + kPointerBytes;
}

// The offset behind the owner of the record at `at`. If the message has no room for a record there,
// it has none at the returned offset either. Servers send a pointer as the owner. Any two bytes
// count as a pointer, unless the bytes behind them can only belong to a name:
//
// - A type and the class IN follow the root and names of one letter. Behind an owner of two bytes,
//   the two bytes of that class would be the end of the type and the start of the class, or the end
//   of the class and the start of the TTL. The class would then be 0 or above 255, not one in use.
// - In other names, the two bytes in the place of a type are text, or the length of a label and
//   text, or a pointer. Nearly all types in use are smaller numbers.
unsigned int skip_owner(const char* message, unsigned int at) {
    if (at + 1 + kRecordHeaderBytes > kMaxMessageBytes) return kMaxMessageBytes;
    const unsigned int length = byte_at(message + at);
    const unsigned int type = read16(message + at + kPointerBytes);
    if (length <= 1) {
        const unsigned int end = at + 2 * length;
        if (message[end] == 0 && read16(message + end + 3) == kClassIn) return end + 1;
    }
    const unsigned int min_text = length == 1 ? 0x0120 : 0x2000;
    return length != 0 && type >= min_text ? skip_name(message, at) : at + kPointerBytes;
}

bool all_zero(const char* data, unsigned int size) {
    while (size > 0 && *data == 0) data++, size--;
    return size == 0;
}

// Stores the address of the record whose data begins at `at`, if its type is wanted. Returns true
// if the address is a result, which means not all zero.
bool take_address(const char* message, unsigned int at, unsigned int type, const Target& target) {
    const bool is_v6 = type == kTypeAaaa;
    const unsigned int size = is_v6 ? sizeof(in6_addr) : sizeof(in_addr);
    void* address = is_v6 ? target.v6 : type == kTypeA ? target.v4 : nullptr;
    if (address == nullptr || at + size > kMaxMessageBytes) return false;
    if (target.family != nullptr) *target.family = is_v6 ? AF_INET6 : AF_INET;
    memcpy(address, message + at, size);
    return !all_zero(message + at, size);
}

// Walks the answers from `at` on, and decrements answer_count in the header for each of them.
int find_address(char* rep, unsigned int at, const Target& target) {
    dns_header_t& header = header_of(rep);
    while (header.answer_count-- != 0) {
        at = skip_owner(rep, at);
        if (at + kRecordHeaderBytes > kMaxMessageBytes) return 0;
        const unsigned int type = read16(rep + at);
        const unsigned int rdlength = read16(rep + at + kRdlengthOffset);
        at += kRecordHeaderBytes;
        if (take_address(rep, at, type, target)) return 1;
        at += rdlength;
    }
    return 0;
}

// The text of a name of `size` bytes, not counting the zero at its end. The text is the name
// without its first length byte, and with a dot in the place of each other length byte.
char* text_of_name(const char* name, unsigned int size) {
    auto* text = static_cast<char*>(malloc(size != 0 ? size : 1));
    if (text == nullptr) return nullptr;
    memcpy(text, name + 1, size);
    if (size == 0) text[0] = '\0';
    for (unsigned int dot = byte_at(name), length; dot + 1 < size; dot += 1 + length) {
        length = byte_at(text + dot);
        text[dot] = '.';
    }
    return text;
}

// Private names of two public functions: a program may define its own under the public names.
[[gnu::alias("string2name")]] int name_of_string(char* s, char* d);
[[gnu::alias("name2string")]] char* string_of_name(char* p);

int parse_reply(char* rep, char** name, const Target& target) {
    dns_header_t& header = header_of(rep);
    header.transaction_id = ntohs(header.transaction_id);
    header.f.raw = ntohs(header.f.raw);
    header.question_count = ntohs(header.question_count);
    header.answer_count = ntohs(header.answer_count);
    if ((header.f.raw & kReplyCodeMask) != 0) return -1;
    if (header.answer_count == 0) return 0;
    const char* const question = rep + kHeaderBytes;
    const auto size = static_cast<unsigned int>(strnlen(question, kMaxMessageBytes - kHeaderBytes));
    if (name != nullptr) *name = string_of_name(rep + kHeaderBytes);
    return find_address(rep, kHeaderBytes + size + 1 + kQuestionTailBytes, target);
}

}  // namespace

}  // namespace tessra

using namespace tessra;

// The length byte of a label is written when the end of the label is found.
[[gnu::weak]] int string2name(char* s, char* d) {
    char* const begin = d;
    char* length = d++;
    for (;; ++s) {
        if (*s != '.' && *s != '\0') {
            *d++ = *s;
            continue;
        }
        *length = static_cast<char>(d - length - 1);
        length = d++;
        if (*s == '\0') break;
    }
    *length = '\0';
    return static_cast<int>(d - begin);
}

[[gnu::weak]] char* name2string(char* p) {
    unsigned int size = 0;
    for (unsigned int length; (length = byte_at(p + size)) != 0;) {
        size += length + 1;
        if (size > kTextBytes) return nullptr;
    }
    return text_of_name(p, size);
}

int dns_build_request(char* req, char* name, int type, int clss, int trans) {
    // Each dot becomes a length byte. The length byte of the first label and the zero at the end
    // take two bytes more.
    const bool fits = strlen(name) + 2 <= kRequestBytes - kHeaderBytes - kQuestionTailBytes;
    char* tail = req;
    if (fits) {
        dns_header_t& header = header_of(req);
        header = {};
        header.transaction_id = htons(static_cast<unsigned short>(trans));
        header.f.raw = htons(kRecursionDesired);
        header.question_count = htons(1);
        tail += kHeaderBytes;
        tail += name_of_string(name, tail);
        tail += write16(tail, static_cast<unsigned short>(type));
        tail += write16(tail, static_cast<unsigned short>(clss));
    }
    const auto size = static_cast<unsigned int>(tail - req);
    memset(tail, 0, kRequestBytes - size);
    return static_cast<int>(size);
}

int dns_parse_reply(char* rep, char** name, struct in_addr* addr) {
    return parse_reply(rep, name, {addr, nullptr, nullptr});
}

int dns_parse_reply_v6(char* rep, char** name, struct sockaddr_storage* addr) {
    char* const bytes = reinterpret_cast<char*>(addr);
    return parse_reply(rep, name,
                       {bytes + offsetof(sockaddr_in, sin_addr),
                        bytes + offsetof(sockaddr_in6, sin6_addr), &addr->ss_family});
}
