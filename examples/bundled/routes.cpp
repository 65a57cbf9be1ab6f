#include "routes.h"

#include <cerrno>
#include <cstring>

#include "log.h"

namespace bundled {

namespace {

using RouteHandler = void (*)(Daemon& daemon, Connection& connection, const Request& request);

struct Route {
    const char* path;
    RouteHandler handler;
};

void show_greeting(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    std::string body = daemon.config.greeting + "\n\n/status\n";
    if (!daemon.config.bundle.paths.empty()) {
        body += "/bundle.zip\n";
    }
    for (const NamedCommand& command : daemon.config.commands) {
        body += "/run?" + command.name + "\n";
    }
    connection_answer(&connection, text_response(200, body));
}

void append_number(std::string& body, const char* name, unsigned long long value) {
    body.append(name).append(": ").append(std::to_string(value)).append("\n");
}

void show_status(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    const Counters& counters = daemon.counters;
    std::string body;
    append_number(body, "uptime (s)", (event_get_time() - daemon.started_ms) / 1000);
    append_number(body, "connections served", daemon.server.served_connections());
    append_number(body, "connections timed out", daemon.server.timed_out_connections());
    append_number(body, "open connections", daemon.server.open_connections());
    append_number(body, "children run", daemon.commands.started());
    append_number(body, "children running", daemon.commands.running());
    append_number(body, "bundles sent", daemon.deliveries.sent());
    append_number(body, "bundles refused", daemon.deliveries.refused());
    append_number(body, "bundles cut short", daemon.deliveries.cut_short());
    append_number(body, "bundles abandoned", daemon.deliveries.abandoned());
    append_number(body, "bundles running", daemon.deliveries.running());
    append_number(body, "signals seen", counters.signals_seen);
    append_number(body, "reloads", counters.reloads);
    append_number(body, "reloads refused", counters.reloads_refused);
    body += "status line: " + daemon.status_line.line() + "\n";
    daemon.status_line.refresh();
    connection_answer(&connection, text_response(200, body));
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
    const NamedCommand* named = find_command(daemon.config, request.query);
    if (named == nullptr) {
        connection_answer(&connection, error_response(404, "no such command"));
        return;
    }
    Child* command =
        daemon.commands.start(shell_task(named->line.c_str()), daemon.config.command_limits,
                              on_command_done, &connection);
    if (command == nullptr) {
        log_line("cannot run %s: %s", named->name.c_str(), std::strerror(errno));
        connection_answer(&connection, error_response(503, "try again later"));
        return;
    }
    connection_wait(&connection, {abandon_child, command});
}

void send_bundle(Daemon& daemon, Connection& connection, const Request& /*request*/) {
    if (daemon.config.bundle.paths.empty()) {
        connection_answer(&connection, error_response(404, "no bundle is configured"));
        return;
    }
    daemon.deliveries.start(connection, daemon.config.bundle);
}

constexpr Route kRoutes[] = {
    {"/", show_greeting},
    {"/status", show_status},
    {"/run", run_command},
    {"/bundle.zip", send_bundle},
};

}  // namespace

Daemon::Daemon(unsigned int max_connections) : server(route_request, this, max_connections) {}

void route_request(void* daemon, Connection& connection, const Request& request) {
    auto& self = *static_cast<Daemon*>(daemon);
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
