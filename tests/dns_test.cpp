// The DNS codec, with messages that end at a page without access.
#include <arpa/inet.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "support/harness.h"
#include "tessra/dns.h"

using namespace tessra_test;
using namespace std::string_literals;
using std::string;

namespace {

constexpr size_t kMaxMessage = 65535;
const string ip = "\1\2\3\4";
constexpr unsigned kA = 1, kCname = 5, kAaaa = 28, kUri = 256, kCaa = 257, kDlv = 32769;

// Returns a copy of some bytes that ends at a page without access. Nobody unmaps it.
char* at_edge(const string& bytes) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t usable = bytes.size() / page * page + page;
    void* map =
        mmap(nullptr, usable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* end = static_cast<char*>(map) + usable;
    mprotect(end, page, PROT_NONE);
    return static_cast<char*>(memcpy(end - bytes.size(), bytes.data(), bytes.size()));
}

string be(size_t value) { return {static_cast<char>(value >> 8), static_cast<char>(value)}; }
string label(size_t length) { return static_cast<char>(length) + string(length, 'x'); }
string record(const string& owner, unsigned type, const string& data, unsigned clss = 1) {
    return owner + be(type) + be(clss) + be(0xFFFF) + be(60) + be(data.size()) + data;
}
string answer(unsigned type, const string& data) { return record("\xC0\x0C", type, data); }
string header(unsigned flags, unsigned answers) {
    return be(0x1234) + be(flags) + be(1) + be(answers) + be(5) + be(0x0607);
}
string reply(unsigned answers, const string& text, const string& name = "\1a\2bc\0"s) {
    return header(0xFFF0, answers) + name + be(1) + be(1) + text;
}

// Returns "RESULT ADDRESS COUNT NAME". COUNT is the number of answers that are left.
string parsed(const string& message, bool v6) {
    char* const edge = at_edge(message);
    char address[INET6_ADDRSTRLEN] = "-", untouched[] = "-", *name = untouched;
    sockaddr_storage storage;
    memset(&storage, 0xEE, sizeof storage);
    const auto& got = reinterpret_cast<sockaddr_in6&>(storage);
    auto* in = &reinterpret_cast<sockaddr_in&>(storage).sin_addr;
    const int result =
        v6 ? dns_parse_reply_v6(edge, &name, &storage) : dns_parse_reply(edge, &name, in);
    EXPECT_TRUE(got.sin6_port == 0xEEEE && got.sin6_scope_id == 0xEEEEEEEE);
    const bool is_v6 = got.sin6_family == AF_INET6;
    EXPECT_TRUE(!is_v6 || got.sin6_flowinfo == 0xEEEEEEEE);
    if (v6 ? got.sin6_family != 0xEEEE : in->s_addr != 0xEEEEEEEE) {
        inet_ntop(is_v6 ? AF_INET6 : AF_INET, is_v6 ? static_cast<const void*>(&got.sin6_addr) : in,
                  address, sizeof address);
    }
    const auto& head = *reinterpret_cast<dns_header_t*>(edge);
    EXPECT_EQ(string("\x34\x12") + message[3] + message[2] + "\1\0"s, string(edge, 6));
    EXPECT_EQ(message.substr(8), string(edge + 8, message.size() - 8));
    const string text = name ? name : "null";
    if (name != untouched) free(name);
    return std::to_string(result) + " " + address + " " + std::to_string(head.answer_count) + " " +
           text;
}

TEST(Dns, RepliesGiveAnotherResultOrAreReadBeyondTheirEnd) {
    const string a = answer(kA, ip), a2 = answer(kA, "\0\0\0\5"s), a0 = answer(kA, "\0\0\0\0"s);
    const string aaaa = answer(kAaaa, "\x20\1" + string(13, '\0') + "\6"),
                 aaaa0 = answer(kAaaa, string(16, '\0'));
    const string short_a = record("\0"s, kA, ip);
    const string labels = label(63) + label(63) + label(63), longest = labels + label(61) + '\0';
    const string too_long = labels + label(62) + '\0';
    // Returns the longest message, with a record or a part of one at its end.
    const auto full = [](const string& last) {
        return reply(2, record("\0"s, kCaa, string(kMaxMessage - 33 - last.size(), 'y')) + last);
    };
    const string found = "1 1.2.3.4 0 a.bc";
    const struct {
        string message, v4, v6 = {};  // An empty v6: the same as v4.
    } rows[] = {
        {header(0x8183, 1), "-1 - 1 -"},
        {header(0x8188, 1), "-1 - 1 -"},
        {header(0x8180, 0), "0 - 0 -"},
        {reply(1, a), found},
        {header(0, 1) + "\0\0\1\0\1"s + a, "1 1.2.3.4 0 "},  // No response bit; the root.
        {reply(1, record("\xFF\xFF", kA, ip, 3)), found},
        {reply(1, record("\0\0"s, kA, ip)), found},  // The pointer is zero.
        {reply(3, a), "1 1.2.3.4 2 a.bc"},           // The parser doesn't read the rest.
        {reply(2, answer(kCname, "\1b\xC0\x0C") + a), found},
        {reply(1, answer(kCname, "\1b\xC0\x0C")), "0 - 65535 a.bc"},
        {reply(2, answer(kCaa, string(300, 'y')) + a), found},
        {reply(2, a0 + a2), "1 0.0.0.5 0 a.bc"},
        {reply(1, a0), "0 0.0.0.0 65535 a.bc"},
        {reply(1, aaaa), "0 - 65535 a.bc", "1 2001::6 0 a.bc"},
        {reply(1, aaaa0), "0 - 65535 a.bc", "0 :: 65535 a.bc"},
        {reply(2, aaaa + a), found, "1 2001::6 1 a.bc"},
        {reply(2, aaaa0 + a), found},
        {reply(2, a + aaaa), "1 1.2.3.4 1 a.bc"},
        // Owner names of labels, wholly or in part.
        {reply(2, record("\1A\2BC\0"s, kCaa, "") + record("\1A\xC0\x0E", kA, ip)), found},
        {reply(2, record("\1A\0"s, kCaa, "") + record("\2de\0"s, kA, ip, 3)), found},
        {reply(1, record(longest, kA, ip)), found},
        // Owners of two bytes that aren't a pointer. A parser that looked at them would find
        {reply(1, record("\x40\7", kA, ip)), found},              // a reason to refuse the reply,
        {reply(1, record("\xBF\0"s, kA, ip, 3)), found},          // the same,
        {reply(2, record("\x40\7", kDlv, "") + a), found},        // a label that is too long,
        {reply(2, record("\77x", kCaa, "") + a), found},          // a label beyond the end,
        {reply(2, record("\2x", kUri, "\0\1\0\1"s) + a), found},  // a name and no record,
        {reply(1, record("\1x", kA, ip)), found},                 // a name of one letter,
        {reply(2, record("\1x", kCaa, "") + a), found},           // a name of two labels,
        {reply(2, record("\0\0"s, kUri, "\0\1\0\1a"s) + a), found},         // the root,
        {reply(1, record("\0\0"s, kCaa, "\0\5issue"s)), "0 - 65535 a.bc"},  // an A record of it.
        // Names in the question that are longer than the standard allows.
        {reply(1, a, label(64) + '\0'), "1 1.2.3.4 0 " + string(64, 'x')},
        {reply(1, a, too_long), "1 1.2.3.4 0 " + string(63, 'x') + "." + string(63, 'x') + "." +
                                    string(63, 'x') + "." + string(62, 'x')},
        {reply(1, a, label(191) + label(100) + '\0'), "1 1.2.3.4 0 null"},
        {reply(1, a, '\xEE' + string(494, 'x') + '\0'), "1 1.2.3.4 0 null"},
        {header(0, 1) + string(kMaxMessage - 12, 'x'), "0 - 0 null"},
        // Records that end at the last byte of the longest message, and beyond it.
        {full(short_a), found},
        {full(short_a.substr(0, 14)), "0 - 65535 a.bc"},
        {full(short_a.substr(0, 10)), "0 - 0 a.bc"},
        {full(a.substr(0, 11)), "0 - 0 a.bc"},
        {full("\xC0"), "0 - 0 a.bc"},
        {full(""), "0 - 0 a.bc"},
        {reply(0xFFFF, string(kMaxMessage - 22, '\0')), "0 - 60075 a.bc"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        EXPECT_EQ(row.v4, parsed(row.message, false));
        EXPECT_EQ(row.v6.empty() ? row.v4 : row.v6, parsed(row.message, true));
    }
    in_addr address;
    char *name = nullptr, *const nameless = at_edge(rows[3].message);
    EXPECT_EQ(1, dns_parse_reply(at_edge(rows[3].message), nullptr, &address));
    fail_allocation = 1;
    EXPECT_EQ(1, dns_parse_reply(nameless, &name, &address));
    EXPECT_TRUE(name == nullptr && fail_allocation == 0);
}

TEST(Dns, NamesAreEncodedOrDecodedWrongly) {
    const struct {
        string text, wire;
        const char* back = nullptr;  // Null: the text.
    } rows[] = {
        {"abc.de.f", "\3abc\2de\1f\0"s},
        {"a.b", "\1a\1b\0"s},
        {"", "\0\0"s},
        {"a.", "\1a\0\0"s, "a"},
        {"a..b", "\1a\0\1b\0"s, "a"},
        {".a", "\0\1a\0"s, ""},
        {string(255, 'x'), label(255) + '\0'},
    };
    for (const auto& row : rows) {
        char* const wire = at_edge(string(row.wire.size(), '?'));
        EXPECT_EQ(row.wire.size(), string2name(at_edge(row.text + '\0'), wire));
        EXPECT_EQ(row.wire, string(wire, row.wire.size()));
        char* const text = name2string(wire);
        EXPECT_EQ(row.back ? row.back : row.text, text);
        free(text);
    }
    // The texts would have 257 bytes with the terminator. After the last length the message ends.
    EXPECT_EQ(nullptr, name2string(at_edge(label(254) + "\1")));
    EXPECT_EQ(nullptr, name2string(at_edge(label(100) + label(100) + "\x36")));
}

TEST(Dns, RequestsDifferOrAreWrittenBeyondTheirBuffer) {
    const struct {
        string name;
        int type, clss, trans, length;
        string begin;
    } rows[] = {
        {"abc.de.f", 1, 1, 0x1234, 26, "\x12\x34\1\0\0\1\0\0\0\0\0\0\3abc\2de\1f\0\0\1\0\1"s},
        {"a", 0x7FFFFF1C, -65282, 0x12341, 19, "\x23\x41\1\0\0\1\0\0\0\0\0\0\1a\0\xFF\x1C\0\xFE"s},
        {string(494, 'x'), 1, 1, 0x1234, 512,
         "\x12\x34\1\0\0\1\0\0\0\0\0\0\xEE"s + string(494, 'x') + "\0\0\1\0\1"s},
        {string(495, 'x'), 1, 1, 0x1234, 0, ""},
    };
    for (const auto& row : rows) {
        char* const request = at_edge(string(512, '?'));
        EXPECT_EQ(row.length, dns_build_request(request, at_edge(row.name + '\0'), row.type,
                                                row.clss, row.trans));
        EXPECT_EQ(row.begin + string(512 - row.begin.size(), '\0'), string(request, 512));
    }
}

TEST(Dns, FlagsAreOtherBits) {
    for (unsigned bit = 0; bit < 16; ++bit) {
        dns_header_t head = {};
        head.f.raw = static_cast<unsigned short>(1 << bit);
        const auto& flags = head.f.flags;
        EXPECT_EQ(1U << bit, flags.reply_code | flags.accept_unauthenticated << 4 |
                                 flags.answer_authenticated << 5 | flags.zero << 6 |
                                 flags.recursion_available << 7 | flags.recursion_desired << 8 |
                                 flags.truncated << 9 | flags.authoritative << 10 |
                                 flags.opcode << 11 | flags.response << 15);
    }
}

}  // namespace
