#include "delivery.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include "log.h"
#include "server.h"

namespace bundled {

struct Deliveries::Delivery : Tracked {
    Deliveries* deliveries;
    Connection* connection;  ///< Null once the client has left.
    Child* child;
};

namespace {

constexpr unsigned int kChunkBytes = 65536;

/** Exit status of a child. */
enum Outcome : int { kSent, kHeadSent, kRefused, kCutShort, kClientStalled, kClientLeft };

struct Order {
    const BundleSettings* settings;
    bool head_only;
    unsigned int idle_ms;
};

/*
 * The child's side.
 */

struct Client {
    int fd;
    int idle_ms;
    Outcome outcome = kSent;  ///< Stays until a send fails for good.
};

// Waits until the client's socket takes bytes again. Goes on as long as the client itself takes
// some in each span of the idle time.
bool wait_for_room(Client& client) {
    std::size_t before = SIZE_MAX;
    for (;;) {
        const std::size_t missing = unacknowledged_bytes(client.fd);
        if (missing >= before) {
            client.outcome = kClientStalled;
            return false;
        }
        before = missing;
        struct pollfd room = {client.fd, POLLOUT, 0};
        const int ready = poll(&room, 1, client.idle_ms);
        if (ready != 0) {
            return true;  // Also after a failure: send() reports it.
        }
    }
}

// The daemon uses this socket, too, so it is non-blocking, and send_all() goes on after a partial
// send. With MSG_MORE the kernel sends the archive's many small records together. The daemon's
// shutdown() sends the rest.
//
// After a failure send_all() sends no more bytes: the library goes on calling it to fill up a file
// that has shrunk. After a success errno is as before, so that it shows errors of files only.
ssize_t send_all(void* arg, const void* bytes, std::size_t count) {
    auto* client = static_cast<Client*>(arg);
    const auto* rest = static_cast<const char*>(bytes);
    const char* end = rest + count;
    const int saved_errno = errno;
    if (client->outcome != kSent) {
        return -1;
    }
    while (rest < end) {
        const ssize_t taken = send(client->fd, rest, static_cast<std::size_t>(end - rest),
                                   MSG_NOSIGNAL | MSG_DONTWAIT | MSG_MORE);
        if (taken >= 0) {
            rest += taken;
        } else if (errno == EAGAIN) {
            if (!wait_for_room(*client)) {
                return -1;
            }
        } else if (errno != EINTR) {
            client->outcome = kClientLeft;
            return -1;
        }
    }
    errno = saved_errno;
    return static_cast<ssize_t>(count);
}

bool send_text(Client& client, const std::string& text) {
    return send_all(&client, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

Outcome send_archive(Client& client, szip_info_t* info, bool head_only) {
    if (!send_text(client, format_head(200, "application/zip", szip_calc_size(info, 0)))) {
        return client.outcome;
    }
    if (head_only) {
        return kHeadSent;
    }
    errno = 0;
    if (szip_stream_zip(info, send_all, &client, kChunkBytes) == 1) {
        return kSent;
    }
    if (client.outcome != kSent) {
        return client.outcome;
    }
    log_line("bundle: cut short: %s", errno != 0 ? std::strerror(errno) : "a file has shrunk");
    return kCutShort;
}

int run_delivery(const void* arg) {
    const auto* order = static_cast<const Order*>(arg);
    set_tracking(false);  // The child makes no dumps.
    Client client = {kKeptFd, static_cast<int>(order->idle_ms)};
    szip_info_t* info = plan_bundle(*order->settings);
    if (info == nullptr) {
        const Response refusal = error_response(503, "the bundle can't be made now");
        return send_text(client, format_response(refusal, order->head_only)) ? kRefused
                                                                             : client.outcome;
    }
    const Outcome outcome = send_archive(client, info, order->head_only);
    szip_free_info(info);
    return outcome;
}

}  // namespace

/*
 * The daemon's side.
 */

void Deliveries::count(int outcome, int status) {
    switch (outcome) {
        case kSent:
            counters_.count("bundles sent");
            return;
        case kHeadSent:
            return;
        case kRefused:
            counters_.count("bundles refused");
            return;
        case kClientStalled:
        case kClientLeft:
            counters_.count("bundles abandoned");
            return;
        default:
            counters_.count("bundles cut short");
            log_line("bundle: its child ended with %s", describe_end(status).c_str());
    }
}

void Deliveries::on_child_done(void* delivery, const ChildResult& result) {
    const std::unique_ptr<Delivery> self(static_cast<Delivery*>(delivery));
    const bool ended = WIFEXITED(result.status);
    const int outcome = result.timed_out ? kClientLeft : ended ? WEXITSTATUS(result.status) : -1;
    self->deliveries->count(outcome, result.status);
    if (self->connection == nullptr) {
        return;
    }
    self->connection->pending = {};
    if (outcome == kClientStalled) {
        connection_drop(self->connection);
    } else {
        connection_answered(self->connection);
    }
}

// A client may close as soon as it has the last byte, before the child has exited, so this doesn't
// kill the child: if it has more to send, it notices that the client has left. The time limit is
// for a child that sends nothing.
void Deliveries::on_client_gone(void* delivery) {
    auto* self = static_cast<Delivery*>(delivery);
    const unsigned int idle_ms = self->connection->server->idle_ms();
    self->connection = nullptr;
    (void)ChildRunner::set_time(self->child, idle_ms);  // If it fails, there is no limit.
}

void Deliveries::start(Connection& connection, const BundleSettings& settings) {
    const Order order = {&settings, connection.head_only, connection.server->idle_ms()};
    // "killall -HUP bundled" reaches the child, too, and would kill it while it sends.
    const ChildTask task = {run_delivery, &order, connection.socket.get(), true};
    const ChildLimits limits = {0, 0, settings.streams};
    std::unique_ptr<Delivery> delivery(new (here()) Delivery{{}, this, &connection, nullptr});
    delivery->child = children_.start(task, limits, on_child_done, delivery.get());
    if (delivery->child == nullptr) {
        log_line("bundle: refused: %s", std::strerror(errno));
        counters_.count("bundles refused");
        connection_answer(&connection, error_response(503, "try again later"));
        return;
    }
    connection_wait(&connection, {on_client_gone, delivery.release()});
}

}  // namespace bundled
