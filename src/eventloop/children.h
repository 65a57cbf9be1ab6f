// The child watchers of a context, on top of the one SIGCHLD watcher of the process.
//
// Lock: `mutex_`. Handlers run with this lock held, and with `events_mutex` of the default context.
#ifndef TESSRA_EVENTLOOP_CHILDREN_H
#define TESSRA_EVENTLOOP_CHILDREN_H

#include "eventloop/channel.h"
#include "eventloop/list_mutex.h"
#include "eventloop/run.h"
#include "eventloop/signals.h"
#include "tessra/eventloop.h"

namespace tessra {

class Children {
public:
    constexpr explicit Children(Channel& channel) : channel_(&channel) {}

    // Any thread. `signals` and `run` are the default context's, which watches SIGCHLD. Returns
    // false and sets errno if nothing was registered.
    bool add(Signals& signals, const Run& run, int pid, process_handler_t handler, void* arg);
    void del(int pid);
    void free_all();

    // From now on SIGCHLD doesn't look at these children, whose context is about to be freed. The
    // caller holds contexts_mutex.
    void unwatch_contexts_locked();
    // Stops the walks of these children that are on this thread's stack, and releases the lock that
    // they hold.
    void leave_walks();
    // For a child of fork(), on a context that was idle: the processes are the parent's children.
    void forget_parent();
    ListMutex& mutex() { return mutex_; }

    // For SIGCHLD. The caller holds the lock, and collect() releases it. It tries each child, since
    // several children that end close together may cause one signal.
    void collect(const Run& run);

private:
    bool register_sigchld_once(Signals& signals, const Run& run);

    Channel* channel_;
    ListMutex mutex_;
    list_t queue_ = {&queue_, &queue_};
};

// For a child of fork(): its next watcher is the first one of the process.
void children_forget_parent();

}  // namespace tessra

#endif
