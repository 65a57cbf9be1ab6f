#include "connection.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "server.h"

namespace bundled {

static_assert(std::is_standard_layout_v<Connection> && offsetof(Connection, link) == 0,
              "a node of the server's list is cast to its connection");

namespace {

bool would_block() { return errno == EAGAIN || errno == EINTR; }

// With a zero linger time close() resets the connection: the kernel then keeps no bytes for a
// client that doesn't take them.
void discard_unsent_bytes(int fd) {
    const struct linger at_once = {1, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);  // It only saves memory.
}

void on_deadline(void* arg) noexcept;

// A connection whose deadline can't be armed could stay for ever. So this function closes it, and
// returns false.
bool restart_deadline(Connection* connection) {
    event_timer_del(on_deadline, connection);
    if (!arm_timer(on_deadline, connection, connection->server->idle_ms())) {
        connection_close(connection);
        return false;
    }
    return true;
}

void answer_deadline(Connection* connection) {
    const std::size_t missing = connection->answer.size() - connection->answered +
                                unacknowledged_bytes(connection->socket.get());
    if (missing == 0) {
        connection_close(connection);
    } else if (missing < connection->missing) {
        connection->missing = missing;
        (void)restart_deadline(connection);
    } else {
        connection_drop(connection);
    }
}

void on_deadline(void* arg) noexcept {
    auto* connection = static_cast<Connection*>(arg);
    if (connection->phase == Phase::kReading) {
        connection->server->count_timeout();
        connection_answer(connection, error_response(408));
        return;
    }
    answer_deadline(connection);
}

void handle_request(Connection* connection) {
    Request request;
    const int status = parse_request(connection->received, request);
    if (status == kRequestComplete) {
        connection->head_only = request.method == "HEAD";
        connection->server->handle(*connection, request);
    } else if (status != kRequestIncomplete) {
        connection_answer(connection, error_response(status));
    }
}

void read_request(Connection* connection, const char* bytes, std::size_t count) {
    connection->received.append(bytes, count);
    handle_request(connection);
}

void end_of_input(Connection* connection) {
    const bool cut_short = connection->phase == Phase::kReading && !connection->received.empty();
    if (cut_short) {
        connection_answer(connection, error_response(400));
        return;
    }
    connection_close(connection);
}

// For reading, waiting and draining. While the client waits, the end of its input means that it has
// left, so the work is cancelled.
void on_readable(int fd, void* arg) noexcept {
    auto* connection = static_cast<Connection*>(arg);
    char chunk[4096];
    const ssize_t count = recv(fd, chunk, sizeof chunk, 0);
    if (count > 0 && connection->phase == Phase::kReading) {
        read_request(connection, chunk, static_cast<std::size_t>(count));
    } else if (count == 0) {
        end_of_input(connection);
    } else if (count < 0 && !would_block()) {
        connection_close(connection);
    }
}

void start_draining(Connection* connection) {
    connection->phase = Phase::kDraining;
    (void)shutdown(connection->socket.get(),
                   SHUT_WR);  // Fails if the client has left; recv() reports that.
    if (!connection->socket.watch(on_readable, connection, EVENT_FD_READ)) {
        connection_close(connection);
    }
}

void on_writable(int fd, void* arg) noexcept {
    auto* connection = static_cast<Connection*>(arg);
    const char* rest = connection->answer.data() + connection->answered;
    const std::size_t length = connection->answer.size() - connection->answered;
    const ssize_t count = send(fd, rest, length, MSG_NOSIGNAL);
    if (count < 0) {
        if (!would_block()) {
            connection_close(connection);
        }
        return;
    }
    connection->answered += static_cast<std::size_t>(count);
    if (connection->answered == connection->answer.size()) {
        start_draining(connection);
    }
}

}  // namespace

void connection_open(Server& server, int fd) {
    auto* connection = new (here()) Connection;
    connection->server = &server;
    connection->socket.reset(fd);
    server.add(*connection);
    if (!connection->socket.watch(on_readable, connection, EVENT_FD_READ)) {
        connection_close(connection);
        return;
    }
    (void)restart_deadline(connection);
}

void connection_close(Connection* connection) {
    event_timer_del(on_deadline, connection);
    if (connection->pending.cancel != nullptr) {
        connection->pending.cancel(connection->pending.work);
    }
    Server& server = *connection->server;
    list_delete(&connection->link);
    delete connection;
    server.connection_closed();
}

void connection_answer(Connection* connection, const Response& response) {
    connection->phase = Phase::kWriting;
    connection->pending = {};
    connection->answer = format_response(response, connection->head_only);
    connection->missing = connection->answer.size();
    if (!connection->socket.watch(on_writable, connection, EVENT_FD_WRITE)) {
        connection_close(connection);
        return;
    }
    (void)restart_deadline(connection);
}

void connection_wait(Connection* connection, PendingWork work) {
    connection->phase = Phase::kWaiting;
    connection->pending = work;
    event_timer_del(on_deadline, connection);
}

void connection_answered(Connection* connection) {
    connection->pending = {};
    connection->missing = SIZE_MAX;  // At the first deadline, any number is progress.
    if (restart_deadline(connection)) {
        start_draining(connection);
    }
}

void connection_drop(Connection* connection) {
    discard_unsent_bytes(connection->socket.get());
    connection->server->count_timeout();
    connection_close(connection);
}

// Readiness doesn't show progress: a socket becomes writable again only when a good part of its
// buffer is free, long after a slow client has taken its first byte. After shutdown() the FIN
// counts as one byte more.
std::size_t unacknowledged_bytes(int fd) {
    int in_queue = 0;
    const bool known = ioctl(fd, SIOCOUTQ, &in_queue) == 0 && in_queue > 0;
    return known ? static_cast<std::size_t>(in_queue) : 0;
}

}  // namespace bundled
