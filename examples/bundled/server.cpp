#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "log.h"

namespace bundled {

namespace {

// After this number of new clients, the other watchers get their turn.
constexpr unsigned int kMaxAcceptsPerPass = 16;

// How long the server accepts no clients after the system had no descriptor or no memory for one.
constexpr unsigned int kAcceptRetryMs = 100;

sockaddr_in loopback_address(unsigned int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool bind_and_listen(int fd, unsigned int port) {
    const int on = 1;
    const sockaddr_in address = loopback_address(port);
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
           listen(fd, SOMAXCONN) == 0;
}

unsigned int bound_port(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

// Whether the client caused the error, since it has left again. The server goes on then.
bool is_clients_error(int error) {
    return error == ECONNABORTED || error == EPROTO || error == EINTR;
}

}  // namespace

Server::Server(RequestHandler handler, void* arg, unsigned int max_connections, Counters& counters)
    : handler_(handler), arg_(arg), max_connections_(max_connections), counters_(counters) {
    list_init(&connections_);
}

Server::~Server() {
    event_timer_del(on_retry, this);
    listener_.reset();
    list_t* node;
    dll_foreach(node, &connections_) {
        connection_close(reinterpret_cast<Connection*>(node));
    }
}

bool Server::listen_on(unsigned int port) {
    listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener_.is_open() || !bind_and_listen(listener_.get(), port)) {
        return false;
    }
    port_ = bound_port(listener_.get());
    accepting_ = listener_.watch(on_client, this, EVENT_FD_READ);
    return accepting_;
}

void Server::add(Connection& connection) {
    list_add_tail(&connections_, &connection.link);
    ++open_;
    counters_.count("connections served");
}

void Server::connection_closed() {
    --open_;
    resume_accepting();
}

void Server::on_client(int /*fd*/, void* arg) noexcept {
    static_cast<Server*>(arg)->accept_clients();
}

void Server::on_retry(void* arg) noexcept { static_cast<Server*>(arg)->resume_accepting(); }

void Server::accept_clients() {
    for (unsigned int accepted = 0; accepted < kMaxAcceptsPerPass; ++accepted) {
        if (open_ >= max_connections_) {
            pause_accepting();  // Others wait in the kernel's queue until a connection closes.
            return;
        }
        const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            connection_open(*this, fd);
        } else if (errno == EAGAIN) {
            return;
        } else if (!is_clients_error(errno)) {
            // The client stays in the queue and the socket readable: watching on would spin.
            log_line("no new connections for %u ms: %s", kAcceptRetryMs, std::strerror(errno));
            pause_accepting();
            // If the timer can't be armed, the next close resumes.
            (void)arm_timer(on_retry, this, kAcceptRetryMs);
            return;
        }
    }
}

void Server::pause_accepting() {
    listener_.unwatch();
    accepting_ = false;
}

void Server::resume_accepting() {
    if (accepting_ || !listener_.is_open() || open_ >= max_connections_) {
        return;
    }
    event_timer_del(on_retry, this);
    accepting_ = listener_.watch(on_client, this, EVENT_FD_READ);
    if (!accepting_) {
        // If the timer can't be armed, the next close tries again.
        (void)arm_timer(on_retry, this, kAcceptRetryMs);
    }
}

}  // namespace bundled
