/*
 * A reply counts only if it comes from the server and has the id and the question of the latest
 * try. Each lookup has a socket of its own. The socket is connected, so the kernel drops datagrams
 * of other senders. The kernel chooses its port, which an attacker must also guess.
 */
#include "resolver.h"

#include <arpa/inet.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <tessra/dns.h>

#include "descriptor.h"
#include "tracking.h"

namespace bundled {

struct Lookup : Tracked {
    explicit Lookup(Resolver& owner) : resolver(owner) { ++resolver.running_; }
    ~Lookup();

    Resolver& resolver;
    std::string name;
    Descriptor socket;
    LookupDone done = nullptr;
    void* done_arg = nullptr;
    unsigned int tries_left = 3;
    unsigned int wait_ms = 0;  // For the reply to the next try.
    std::size_t request_length = 0;
    char request[512] = {};
};

namespace {

constexpr unsigned int kMaxLookups = 16;
constexpr unsigned int kMaxRepliesPerPass = 16;
constexpr std::size_t kMaxMessage = 65535;
constexpr int kTypeA = 1;
constexpr int kClassInternet = 1;
constexpr unsigned int kCodeNoSuchName = 3;

void finish(Lookup* lookup, const LookupResult& result) {
    const LookupDone done = lookup->done;
    void* arg = lookup->done_arg;
    delete lookup;
    done(arg, result);
}

// Servers repeat the question byte by byte, unless they couldn't read it.
bool is_answer(const Lookup& lookup, const char* reply, std::size_t length) {
    dns_header_t header;
    if (length < sizeof header || std::memcmp(reply, lookup.request, 2) != 0) {
        return false;
    }
    std::memcpy(&header, reply, sizeof header);
    header.f.raw = ntohs(header.f.raw);
    if (header.f.flags.response == 0) {
        return false;
    }
    if (header.question_count == 0) {
        return header.f.flags.reply_code != 0;
    }
    return length >= lookup.request_length &&
           std::memcmp(reply + sizeof header, lookup.request + sizeof header,
                       lookup.request_length - sizeof header) == 0;
}

LookupResult read_answer(char* reply) {
    LookupResult result = {};
    const int found = dns_parse_reply(reply, nullptr, &result.address);
    dns_header_t header;  // In host order since the call.
    std::memcpy(&header, reply, sizeof header);
    if (found == 1) {
        result.end = LookupEnd::kAddress;
    } else if (found == 0) {
        result.end = header.f.flags.truncated != 0 ? LookupEnd::kCutShort : LookupEnd::kNoAddress;
    } else {
        result.end = header.f.flags.reply_code == kCodeNoSuchName ? LookupEnd::kNoName
                                                                  : LookupEnd::kServerError;
    }
    return result;
}

// The parser knows no lengths, so zeros behind a reply hide the rest of an earlier one.
void on_reply(int fd, void* arg) noexcept {
    static char reply[kMaxMessage];
    auto* lookup = static_cast<Lookup*>(arg);
    for (unsigned int i = 0; i < kMaxRepliesPerPass; ++i) {
        const ssize_t count = recv(fd, reply, sizeof reply, 0);
        if (count < 0) {
            return;  // No more replies, or no server: wait for the timer.
        }
        const auto length = static_cast<std::size_t>(count);
        if (is_answer(*lookup, reply, length)) {
            std::memset(reply + length, 0, sizeof reply - length);
            finish(lookup, read_answer(reply));
            return;
        }
    }
}

// Each try has a new id, so a reply to an earlier try is no longer accepted.
bool build_request(Lookup& lookup) {
    unsigned short id;
    if (getrandom(&id, sizeof id, 0) != sizeof id) {
        return false;
    }
    lookup.request_length = static_cast<std::size_t>(
        dns_build_request(lookup.request, lookup.name.data(), kTypeA, kClassInternet, id));
    return true;
}

void on_try(void* arg) noexcept {
    auto* lookup = static_cast<Lookup*>(arg);
    if (lookup->tries_left == 0) {
        finish(lookup, {LookupEnd::kNoReply, {}});
        return;
    }
    if (!arm_timer(on_try, lookup, lookup->wait_ms) || !build_request(*lookup)) {
        finish(lookup, {LookupEnd::kFailed, {}});
        return;
    }
    --lookup->tries_left;
    lookup->wait_ms *= 2;
    // If this fails, there is no reply, and the timer fires.
    (void)send(lookup->socket.get(), lookup->request, lookup->request_length, MSG_NOSIGNAL);
}

bool open_socket(Lookup& lookup, const sockaddr_in& server) {
    lookup.socket.reset(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return lookup.socket.is_open() &&
           connect(lookup.socket.get(), reinterpret_cast<const sockaddr*>(&server),
                   sizeof server) == 0 &&
           lookup.socket.watch(on_reply, &lookup, EVENT_FD_READ);
}

}  // namespace

Lookup::~Lookup() {
    event_timer_del(on_try, this);
    --resolver.running_;
}

bool is_host_name(std::string_view name) {
    std::size_t label = 0;
    for (const char c : name) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (c == '.' && label > 0) {
            label = 0;
        } else if ((letter || (c >= '0' && c <= '9') || c == '-' || c == '_') && label < 63) {
            ++label;
        } else {
            return false;
        }
    }
    return label > 0 && name.size() <= 253;
}

Lookup* Resolver::start(const DnsSettings& settings, const std::string& name, LookupDone done,
                        void* arg) {
    if (running_ >= kMaxLookups) {
        errno = EAGAIN;
        return nullptr;
    }
    std::unique_ptr<Lookup> lookup(new (here()) Lookup(*this));
    lookup->name = name;
    lookup->done = done;
    lookup->done_arg = arg;
    lookup->wait_ms = settings.wait_ms;
    // The loop makes the first try, too, so that start() calls no handler.
    const bool started =
        open_socket(*lookup, settings.server) && arm_timer(on_try, lookup.get(), 0);
    return started ? lookup.release() : nullptr;
}

void Resolver::abandon(Lookup* lookup) { delete lookup; }

}  // namespace bundled
