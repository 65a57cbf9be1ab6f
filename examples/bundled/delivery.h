/**
 * /bundle.zip on its way to clients. Each bundle is planned and sent by a watched child, because
 * looking at a tree of files, reading them and a client that takes its time would all hold up the
 * loop. The daemon keeps the connection: it sees the client leave, and closes.
 */
#ifndef BUNDLED_DELIVERY_H
#define BUNDLED_DELIVERY_H

#include "bundle.h"
#include "children.h"
#include "connection.h"
#include "status.h"

namespace bundled {

/** The bundles under way and what became of the others. It must outlive the connections. */
class Deliveries {
public:
    explicit Deliveries(Counters& counters) : counters_(counters) {}

    /**
     * Answers the request of @p connection with the archive of @p settings as they are now, or with
     * 503 if it can't be planned or as many bundles are under way as the settings allow.
     *
     * The head carries the exact length, so a client can tell an archive that ended short because a
     * file changed under way. A client that takes nothing for the server's idle time is dropped.
     * The connection may be gone when it returns.
     */
    void start(Connection& connection, const BundleSettings& settings);

    unsigned int running() const { return children_.running(); }

private:
    struct Delivery;

    static void on_child_done(void* delivery, const ChildResult& result);
    static void on_client_gone(void* delivery);
    void count(int outcome, int status);

    Counters& counters_;
    ChildRunner children_;  ///< Last, so that it goes first: the ends of its children are counted.
};

}  // namespace bundled

#endif
