// The descriptor watchers of a context.
//
// Lock: `events_mutex` of the context guards the list. `watched_` is for the loop's thread alone,
// apart from `stale`. Handlers run with the lock held.
#ifndef TESSRA_EVENTLOOP_DESCRIPTORS_H
#define TESSRA_EVENTLOOP_DESCRIPTORS_H

#include "eventloop/channel.h"
#include "eventloop/fd_sets.h"
#include "eventloop/list_mutex.h"
#include "eventloop/run.h"
#include "eventloop/stale.h"
#include "tessra/eventloop.h"

namespace tessra {

struct event_fd_t;

class Descriptors {
public:
    constexpr Descriptors(Channel& channel, ListMutex& mutex)
        : channel_(&channel), mutex_(&mutex) {}

    // Any thread. add() returns false and sets errno if nothing was registered.
    bool add(fd_handler_t handler, void* arg, int fd, int type);
    void del(int fd);
    void free_all();

    // The loop's thread.
    void mark_stale() { watched_.stale.set(); }
    bool is_stale() const { return static_cast<bool>(watched_.stale); }
    // Fills the sets for one select(), the channel included, and returns the largest descriptor.
    int fill_sets(SelectSets& sets);
    // Exits the process if the descriptor of any watcher is closed.
    void exit_if_closed();
    // The descriptor phase. It follows `ready` as select() returned it, whatever handlers change.
    void run_ready_locked(const Run& run, const SelectSets& ready, int ready_count);

private:
    // The watcher of a descriptor, or null.
    struct Slot {
        event_fd_t* watcher;
    };
    // The sets of all watchers' conditions, kept until a watcher is added or deleted. The channel
    // isn't in them. The loop's thread only, apart from `stale`, so that it looks without a lock.
    struct Watched {
        int max_fd = 0;
        // Some watcher is in no set, so select() can't report that its descriptor is closed.
        bool has_unselected = false;
        // On the heap. Null while watchers are few, if two have the same descriptor, or if memory
        // is short.
        Slot* by_fd = nullptr;
        unsigned int slots = 0;  // Of that table.
        Stale stale{true};       // Set by whoever changes the list.
        SelectSets sets = {};
    };

    void test_locked(bool unselected_only);
    void drop_table();
    void make_table_locked();
    void rebuild_locked();
    list_t* first_ready(const SelectSets& ready, list_t* node);

    Channel* channel_;
    ListMutex* mutex_;
    list_t queue_ = {&queue_, &queue_};
    Watched watched_;
};

}  // namespace tessra

#endif
