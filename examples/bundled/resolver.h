/**
 * Addresses of names: DNS over UDP on the default loop, so that only the client that asked waits
 * for a name server.
 */
#ifndef BUNDLED_RESOLVER_H
#define BUNDLED_RESOLVER_H

#include <netinet/in.h>

#include <string>
#include <string_view>

namespace bundled {

struct DnsSettings {
    sockaddr_in server = {};      ///< Family 0 if none is configured.
    unsigned int wait_ms = 1000;  ///< For the first reply; doubled after each try.
};

enum class LookupEnd {
    kAddress,
    kNoName,
    kNoAddress,
    kCutShort,     ///< No address, but the reply was not complete.
    kServerError,  ///< The server can't answer or refuses to.
    kNoReply,      ///< No try had a reply.
    kFailed,       ///< There is no memory, or no random number.
};

struct LookupResult {
    LookupEnd end;
    in_addr address;
};

/** Called once, from the loop. */
using LookupDone = void (*)(void* arg, const LookupResult& result);

/** Returns whether @p name has only letters, digits, '-' and '_', in labels of legal length. */
bool is_host_name(std::string_view name);

struct Lookup;

/** Runs lookups. Each of them must be done or abandoned before the destructor runs. */
class Resolver {
public:
    Resolver() = default;
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    /**
     * Asks for the IPv4 address of @p name, which is_host_name().
     *
     * Returns the lookup, which is valid until @p done or abandon() is called. Returns null with
     * errno if the lookup can't be started. errno is EAGAIN if too many are under way.
     */
    Lookup* start(const DnsSettings& settings, const std::string& name, LookupDone done, void* arg);

    /** Cancels @p lookup. Its done handler is no longer called. */
    static void abandon(Lookup* lookup);

    unsigned int running() const { return running_; }

private:
    friend struct Lookup;

    unsigned int running_ = 0;
};

}  // namespace bundled

#endif
