/**
 * Addresses of names: DNS over UDP on the default loop, so that no one waits for a name server but
 * the client that asked.
 */
#ifndef BUNDLED_RESOLVER_H
#define BUNDLED_RESOLVER_H

#include <netinet/in.h>

#include <string>
#include <string_view>

namespace bundled {

struct DnsSettings {
    sockaddr_in server = {};      ///< Family 0 if none is configured.
    unsigned int wait_ms = 1000;  ///< For the first reply; twice as long after each try.
};

enum class LookupEnd {
    kAddress,
    kNoName,
    kNoAddress,
    kCutShort,     ///< No address, but the reply was not complete.
    kServerError,  ///< The server can't tell or won't.
    kNoReply,      ///< Not to any of the tries.
    kFailed,       ///< For want of memory.
};

struct LookupResult {
    LookupEnd end;
    in_addr address;
};

/** Called once, from the loop. */
using LookupDone = void (*)(void* arg, const LookupResult& result);

/** Whether @p name is made of letters, digits, '-' and '_' in labels of legal length. */
bool is_host_name(std::string_view name);

struct Lookup;

/** Runs lookups. Each of them must be done or abandoned before the destructor. */
class Resolver {
public:
    Resolver() = default;
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    /**
     * Asks for the IPv4 address of @p name, which is_host_name().
     *
     * Returns the lookup, which is valid until @p done is called or abandon(); null with errno if
     * it can't be started, EAGAIN if too many are under way.
     */
    Lookup* start(const DnsSettings& settings, const std::string& name, LookupDone done, void* arg);

    /** Ends @p lookup; its done handler isn't called any more. */
    static void abandon(Lookup* lookup);

    unsigned int running() const { return running_; }

private:
    friend struct Lookup;

    unsigned int running_ = 0;
};

}  // namespace bundled

#endif
