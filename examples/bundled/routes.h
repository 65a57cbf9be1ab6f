/** The resources that the daemon serves. */
#ifndef BUNDLED_ROUTES_H
#define BUNDLED_ROUTES_H

#include "children.h"
#include "config.h"
#include "delivery.h"
#include "resolver.h"
#include "server.h"
#include "status.h"
#include "tracking.h"

namespace bundled {

/** The daemon's state, as far as requests show it or change it. */
struct Daemon {
    explicit Daemon(unsigned int max_connections);

    Config config;
    Counters counters;
    LeakReports leaks;
    StatusLine status_line;
    ChildRunner commands;
    Deliveries deliveries;
    Resolver resolver;
    Server server;  ///< After the others, so destroyed before them: its connections abandon work.
    unsigned long long started_ms = 0;
    std::string hardware = "unknown";  ///< The hardware revision.
};

/**
 * Answers one request, a Server::RequestHandler with a Daemon as argument.
 *
 *     /            the greeting and this table
 *     /status      counters, flags, hardware revision and status line
 *     /leaks       the latest report of the allocation tracker
 *     /run?NAME    runs the configured command NAME
 *     /bundle.zip  the configured files and directories as one archive
 *     /resolve?name=NAME  the IPv4 address of NAME, by the configured DNS server
 *
 * All paths except / need the credentials, if there are any.
 */
void route_request(void* daemon, Connection& connection, const Request& request);

}  // namespace bundled

#endif
