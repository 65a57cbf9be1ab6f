#include "routes.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "auth.h"
#include "log.h"

namespace bundled {

namespace {

using RouteHandler = void (*)(Daemon& daemon, Connection& connection, const Request& request);

struct Route {
    const char* path;
    RouteHandler handler;
};

bool has_flag(const Daemon& daemon, const char* name) {
    return named_flag_has(daemon.config.flags.get(), name) != 0;
}

void show_greeting(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    std::string body = daemon.config.greeting + "\n\n/status\n";
    if (has_flag(daemon, "leak")) {
        (void)copy(body).release();  // Leaks on purpose.
    }
    if (daemon.leaks.started()) {
        body += "/leaks\n";
    }
    if (daemon.config.bundle.paths->itemcount != 0) {
        body += "/bundle.zip\n";
    }
    if (daemon.config.dns.server.sin_family != 0) {
        body += "/resolve?name=NAME\n";
    }
    const auto append = [](char* name, void* /*line*/, void* text) {
        static_cast<std::string*>(text)->append("/run?").append(name).append("\n");
    };
    str_hashtable_iterate(daemon.config.commands.get(), append, &body);
    connection_answer(&connection, text_response(200, body));
}

void append_number(std::string& body, const char* name, unsigned long long value) {
    body.append(name).append(": ").append(std::to_string(value)).append("\n");
}

void append_flag(const char* name, void* text) {
    static_cast<std::string*>(text)->append(" ").append(name);
}

void show_status(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    std::string body;
    append_number(body, "uptime (s)", (event_get_time() - daemon.started_ms) / 1000);
    append_number(body, "open connections", daemon.server.open_connections());
    append_number(body, "children running", daemon.commands.running());
    append_number(body, "bundles running", daemon.deliveries.running());
    append_number(body, "lookups running", daemon.resolver.running());
    daemon.counters.for_each([&body](const Counters::Counter* counter) {
        append_number(body, counter->name, counter->value);
    });
    body += "flags:";
    named_flag_iterate(daemon.config.flags.get(), append_flag, &body);
    body += "\nhardware revision: " + daemon.hardware;
    body += "\nstatus line: " + daemon.status_line.line() + "\n";
    daemon.status_line.refresh();
    connection_answer(&connection, text_response(200, body));
}

void show_leaks(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    connection_answer(&connection,
                      daemon.leaks.started()
                          ? text_response(200, daemon.leaks.latest())
                          : error_response(404, "nothing is tracked, start with --track"));
}

void on_command_done(void* arg, const ChildResult& result) {
    auto* connection = static_cast<Connection*>(arg);
    if (result.timed_out) {
        connection_answer(connection, error_response(504, "the command took too long"));
        return;
    }
    std::string body = result.output;
    if (!body.empty() && body.back() != '\n') {
        body += '\n';
    }
    if (result.output_cut) {
        body += "(cut after " + std::to_string(result.output.size()) + " bytes)\n";
    }
    body += describe_end(result.status) + "\n";
    connection_answer(connection, text_response(200, body));
}

void abandon_child(void* work) { ChildRunner::abandon(static_cast<Child*>(work)); }

void run_command(Daemon& daemon, Connection& connection, const Request& request) {
    const char* name = request.query.c_str();
    void* line = str_hashtable_get_index(daemon.config.commands.get(), name, 0);
    if (line == nullptr) {
        connection_answer(&connection, error_response(404, "no such command"));
        return;
    }
    Child* command =
        daemon.commands.start(shell_task(static_cast<char*>(line)), daemon.config.command_limits,
                              on_command_done, &connection);
    if (command == nullptr) {
        log_line("cannot run %s: %s", name, std::strerror(errno));
        connection_answer(&connection, error_response(503, "try again later"));
        return;
    }
    daemon.counters.count("children run");
    connection_wait(&connection, {abandon_child, command});
}

void send_bundle(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    if (daemon.config.bundle.paths->itemcount == 0) {
        connection_answer(&connection, error_response(404, "no bundle is configured"));
        return;
    }
    daemon.deliveries.start(connection, daemon.config.bundle);
}

Response lookup_response(const LookupResult& result) {
    char address[INET_ADDRSTRLEN];
    switch (result.end) {
        case LookupEnd::kAddress:
            (void)inet_ntop(AF_INET, &result.address, address, sizeof address);
            return text_response(200, address + std::string("\n"));
        case LookupEnd::kNoName:
            return text_response(200, "no such name\n");
        case LookupEnd::kNoAddress:
            return text_response(200, "no address\n");
        case LookupEnd::kCutShort:
            return error_response(502, "the reply was cut short");
        case LookupEnd::kServerError:
            return error_response(502, "the server reports an error");
        case LookupEnd::kNoReply:
            return error_response(504, "no reply");
        case LookupEnd::kFailed:
            break;
    }
    return error_response(503, "try again later");
}

void on_lookup_done(void* connection, const LookupResult& result) {
    connection_answer(static_cast<Connection*>(connection), lookup_response(result));
}

void abandon_lookup(void* work) { Resolver::abandon(static_cast<Lookup*>(work)); }

void resolve(Daemon& daemon, Connection& connection, const Request& request) {
    constexpr std::string_view kParameter = "name=";
    if (daemon.config.dns.server.sin_family == 0) {
        connection_answer(&connection, error_response(404, "no DNS server is configured"));
        return;
    }
    const bool given = request.query.compare(0, kParameter.size(), kParameter) == 0;
    std::string name = given ? request.query.substr(kParameter.size()) : "";
    if (!name.empty() && name.back() == '.') {
        name.pop_back();
    }
    if (!is_host_name(name)) {
        connection_answer(&connection, error_response(400, "no valid name"));
        return;
    }
    Lookup* lookup = daemon.resolver.start(daemon.config.dns, name, on_lookup_done, &connection);
    if (lookup == nullptr) {
        log_line("cannot resolve %s: %s", name.c_str(), std::strerror(errno));
        connection_answer(&connection, error_response(503, "try again later"));
        return;
    }
    connection_wait(&connection, {abandon_lookup, lookup});
}

constexpr Route kRoutes[] = {
    {"/", show_greeting},  {"/status", show_status},     {"/leaks", show_leaks},
    {"/run", run_command}, {"/bundle.zip", send_bundle}, {"/resolve", resolve},
};

bool needs_credentials(const Daemon& daemon, const Request& request) {
    const std::string& wanted = daemon.config.credentials;
    return request.path != "/" && !wanted.empty() && !is_authorized(request.authorization, wanted);
}

}  // namespace

Daemon::Daemon(unsigned int max_connections)
    : deliveries(counters), server(route_request, this, max_connections, counters) {}

void route_request(void* daemon, Connection& connection, const Request& request) {
    auto& self = *static_cast<Daemon*>(daemon);
    if (has_flag(self, "verbose")) {
        log_line("%s %s", request.method.c_str(), request.path.c_str());
    }
    if (needs_credentials(self, request)) {
        Response response = error_response(401);
        response.extra_headers = "WWW-Authenticate: Basic realm=\"bundled\"\r\n";
        connection_answer(&connection, response);
        return;
    }
    if (request.method != "GET" && request.method != "HEAD") {
        Response response = error_response(405);
        response.extra_headers = "Allow: GET, HEAD\r\n";
        connection_answer(&connection, response);
        return;
    }
    for (const Route& route : kRoutes) {
        if (request.path == route.path) {
            route.handler(self, connection, request);
            return;
        }
    }
    connection_answer(&connection, error_response(404));
}

}  // namespace bundled
