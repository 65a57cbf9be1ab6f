/** The listening socket and its clients. */
#ifndef BUNDLED_SERVER_H
#define BUNDLED_SERVER_H

#include <tessra/list.h>

#include "connection.h"
#include "descriptor.h"
#include "http.h"
#include "status.h"

namespace bundled {

/**
 * Life: call listen_on(), then the default loop serves the clients, then the destructor closes the
 * listening socket and every connection. Can't be copied or moved, since watchers point to it.
 */
class Server {
public:
    /** Calls connection_answer() or connection_wait() once for the request. */
    using RequestHandler = void (*)(void* arg, Connection& connection, const Request& request);

    Server(RequestHandler handler, void* arg, unsigned int max_connections, Counters& counters);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    /** Listens on a loopback port; 0 takes a free one. Returns false with errno after a failure. */
    bool listen_on(unsigned int port);
    unsigned int port() const { return port_; }

    /** Sets how long a client may go without progress, for deadlines that start from now on. */
    void set_idle_ms(unsigned int idle_ms) { idle_ms_ = idle_ms; }
    unsigned int idle_ms() const { return idle_ms_; }

    unsigned int open_connections() const { return open_; }

    /** @name For connections
     *  @{ */
    void add(Connection& connection);
    void connection_closed();
    void count_timeout() { counters_.count("connections timed out"); }
    void handle(Connection& connection, const Request& request) {
        handler_(arg_, connection, request);
    }
    /** @} */

private:
    static void on_client(int fd, void* arg) noexcept;
    static void on_retry(void* arg) noexcept;
    void accept_clients();
    void pause_accepting();
    void resume_accepting();

    RequestHandler handler_;
    void* arg_;
    unsigned int max_connections_;
    Counters& counters_;
    unsigned int idle_ms_ = 5000;
    unsigned int port_ = 0;
    unsigned int open_ = 0;
    bool accepting_ = false;
    Descriptor listener_;
    list_t connections_;
};

}  // namespace bundled

#endif
