/**
 * One client: a request is read and answered, the connection closed, by readiness and deadlines.
 *
 * Life: reading, until the request is complete or refused; waiting, if the answer takes work that
 * goes on outside; writing; draining, in which the answer is under way and what the client still
 * sends is read and thrown away, because closing on unread bytes would reset the connection and
 * could take the answer with it.
 *
 * Each phase but waiting has a deadline, the server's idle time. A request must be complete by
 * then, however many of its bytes trickle in. Writing and draining go on for as long as the client
 * takes some of the answer in each such span, even if only the kernel's buffers see that.
 */
#ifndef BUNDLED_CONNECTION_H
#define BUNDLED_CONNECTION_H

#include <cstddef>
#include <string>

#include <tessra/list.h>

#include "descriptor.h"
#include "http.h"
#include "tracking.h"

namespace bundled {

class Server;

/** Work that an answer waits for. cancel(work) runs once if the client goes away meanwhile. */
struct PendingWork {
    void (*cancel)(void* work) = nullptr;
    void* work = nullptr;
};

enum class Phase { kReading, kWaiting, kWriting, kDraining };

struct Connection : Tracked {
    list_t link;  ///< First, so that the address of the node is the address of the connection.
    Server* server = nullptr;
    Descriptor socket;
    Phase phase = Phase::kReading;
    std::string received;
    std::string answer;
    std::size_t answered = 0;  ///< How much of the answer the kernel has taken,
    std::size_t missing = 0;   ///< and how much the client had not yet taken at the last deadline.
    bool head_only = false;
    PendingWork pending;
};

/** Adds a connection for @p fd to the server's list, or closes @p fd if memory is short. */
void connection_open(Server& server, int fd);

/** Takes @p connection off the list, cancels its work, closes and frees it. */
void connection_close(Connection* connection);

/**
 * Answers the request. The server's request handler calls it at once, or after connection_wait()
 * when the work is done. The connection may be gone when it returns.
 */
void connection_answer(Connection* connection, const Response& response);

/** Puts the answer off until @p work is done, which has a time limit of its own. */
void connection_wait(Connection* connection, PendingWork work);

/**
 * Ends the wait when the work has itself sent the answer, or what there was of it: the client sees
 * the end. The connection may be gone when it returns.
 */
void connection_answered(Connection* connection);

/** Counts a client that takes nothing any more, and closes its connection at once. */
void connection_drop(Connection* connection);

/** How many bytes the socket @p fd still holds that its client has not acknowledged. */
std::size_t unacknowledged_bytes(int fd);

}  // namespace bundled

#endif
