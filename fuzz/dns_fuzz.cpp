// Compares the parsers of replies with those of the C library. An input is a reply, in a block of
// exactly the longest message, whose rest is zero. Its text is also the name of a request.
#include <arpa/nameser.h>
#include <tessra/dns.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

constexpr size_t kMaxMessageBytes = 65535;
// The C library refuses the reply, or no request of ours has such a reply.
constexpr int kUnknown = 2;

static void check(bool holds) {
    if (!holds) abort();
}

// Returns whether our library, too, takes this for a name or a pointer; see dns_parse_reply().
static bool is_clear_owner(const uint8_t* owner, const ns_rr& record) {
    if (owner[0] >= NS_CMPRSFLGS) return true;
    if (owner[0] <= 1 && owner[2 * owner[0]] == 0) return ns_rr_class(record) == ns_c_in;
    return owner[0] != 1 || owner[2] >= NS_CMPRSFLGS ? owner[2] >= ' ' : owner[3] >= ' ';
}

static int expected(const uint8_t* data, size_t size, bool with_v6, std::string& address) {
    ns_msg message;
    if (ns_initparse(data, static_cast<int>(size), &message) != 0) return kUnknown;
    if (ns_msg_getflag(message, ns_f_rcode) != 0) return -1;
    if (ns_msg_count(message, ns_s_an) == 0) return 0;
    size_t end = NS_HFIXEDSZ;
    while (data[end] > 0 && data[end] < 64) end += data[end] + 1U;
    const bool plain_name = end - NS_HFIXEDSZ < NS_MAXCDNAME &&
                            memchr(data + NS_HFIXEDSZ, 0, size - NS_HFIXEDSZ) == data + end;
    const uint8_t* owner = data + end + 1 + NS_QFIXEDSZ;
    if (ns_msg_count(message, ns_s_qd) != 1 || !plain_name) return kUnknown;
    for (int n = 0; n < ns_msg_count(message, ns_s_an); ++n) {
        ns_rr record;
        if (ns_parserr(&message, ns_s_an, n, &record) != 0) return kUnknown;
        if (!is_clear_owner(owner, record)) return kUnknown;
        owner = ns_rr_rdata(record) + ns_rr_rdlen(record);
        const bool is_v4 = ns_rr_type(record) == ns_t_a;
        if (!is_v4 && (ns_rr_type(record) != ns_t_aaaa || !with_v6)) continue;
        if (ns_rr_rdlen(record) != (is_v4 ? 4 : 16)) return kUnknown;
        address.assign(reinterpret_cast<const char*>(ns_rr_rdata(record)), ns_rr_rdlen(record));
        if (address.find_first_not_of('\0') != std::string::npos) return 1;
    }
    return 0;
}

static void check_reply(const uint8_t* data, size_t size, bool with_v6) {
    const std::unique_ptr<char[]> message(new char[kMaxMessageBytes]());
    sockaddr_storage got = {};
    auto* const v4 = &reinterpret_cast<sockaddr_in*>(&got)->sin_addr;
    std::string address;
    char* name = nullptr;
    std::copy(data, data + size, message.get());
    const int found = with_v6 ? dns_parse_reply_v6(message.get(), &name, &got)
                              : dns_parse_reply(message.get(), &name, v4);
    const int wanted = expected(data, size, with_v6, address);
    const bool is_v6 = got.ss_family == AF_INET6;
    const void* bytes =
        is_v6 ? static_cast<void*>(&reinterpret_cast<sockaddr_in6*>(&got)->sin6_addr) : v4;
    check(wanted == kUnknown || wanted == found);
    check(wanted != 1 || memcmp(bytes, address.data(), address.size()) == 0);
    check(wanted != 1 || name != nullptr);
    free(name);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxMessageBytes) return 0;
    check_reply(data, size, false);
    check_reply(data, size, true);
    std::string name(reinterpret_cast<const char*>(data),
                     strnlen(reinterpret_cast<const char*>(data), size));
    const std::unique_ptr<char[]> request(new char[512]);
    const int length = dns_build_request(request.get(), name.data(), 1, 1, 1);
    check(length == (name.size() <= 494 ? static_cast<int>(name.size()) + 18 : 0));
    return 0;
}
