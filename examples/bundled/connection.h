/**
 * One client. Readiness and deadlines lead from reading a request over its answer to the close.
 *
 * The phases of a connection are:
 * - reading, until the request is complete or refused;
 * - waiting, if the answer needs work that goes on elsewhere;
 * - writing;
 * - draining: the answer is under way, and the bytes that the client still sends are read and
 *   discarded. A close with unread bytes would reset the connection, and could destroy the answer.
 *
 * Each phase except waiting has a deadline, the server's idle time. A request must be complete by
 * then, even if some of its bytes arrive meanwhile. Writing and draining go on as long as the
 * client takes some of the answer in each such span, even if only the kernel's buffers show that.
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

/** Work that an answer waits for. cancel(work) runs once if the client leaves meanwhile. */
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
 * Answers the request. The server's request handler calls this function at once, or after
 * connection_wait() when the work is done. The call may close and free the connection.
 */
void connection_answer(Connection* connection, const Response& response);

/** Delays the answer until @p work is done. The work has a time limit of its own. */
void connection_wait(Connection* connection, PendingWork work);

/**
 * Call this when the work itself has sent the answer, or a part of it: the client then sees the end
 * of the answer. The call may close and free the connection.
 */
void connection_answered(Connection* connection);

/** Counts a client that no longer takes anything, and closes its connection at once. */
void connection_drop(Connection* connection);

/** Returns the number of bytes in the socket @p fd that its client has not acknowledged. */
std::size_t unacknowledged_bytes(int fd);

}  // namespace bundled

#endif
