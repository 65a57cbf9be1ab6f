/**
 * Sending /bundle.zip to clients. A watched child plans and sends each bundle, because a walk over
 * a tree of files, reading the files and a slow client would all delay the loop. The daemon keeps
 * the connection: it notices when the client leaves, and closes the connection.
 */
#ifndef BUNDLED_DELIVERY_H
#define BUNDLED_DELIVERY_H

#include "bundle.h"
#include "children.h"
#include "connection.h"
#include "status.h"

namespace bundled {

/** The bundles under way, and counts of the others. It must outlive the connections. */
class Deliveries {
public:
    explicit Deliveries(Counters& counters) : counters_(counters) {}

    /**
     * Answers the request of @p connection with the archive of @p settings as they are now. Answers
     * with 503 if the archive can't be planned, or if as many bundles are under way as the settings
     * allow.
     *
     * The head has the exact length, so a client can detect an archive that is cut short because a
     * file has changed. A client that takes nothing for the server's idle time is dropped. The call
     * may close and free the connection.
     */
    void start(Connection& connection, const BundleSettings& settings);

    unsigned int running() const { return children_.running(); }

private:
    struct Delivery;

    static void on_child_done(void* delivery, const ChildResult& result);
    static void on_client_gone(void* delivery);
    void count(int outcome, int status);

    Counters& counters_;
    ChildRunner children_;  ///< Last, so destroyed first: the ends of its children are counted.
};

}  // namespace bundled

#endif
