// The timers of a context: one list, sorted by deadline, those with equal deadlines in order of
// adding.
//
// The list is all that counts: walks, pins and marks are as on the other lists. Two ways lead to a
// place in the list when it is long. Express lanes are sorted lists of ever fewer of the timers (W.
// Pugh, "Skip Lists", 1990), by which a place is found in logarithmic time. A table finds the
// timers of a handler and an argument. Both are made of nodes in the records, so a timer leaves
// them without being looked for. If there is no memory for a table, the list is searched.
//
// Lock: `mutex_` guards all but `first_`. Handlers run with the lock released.
#ifndef TESSRA_EVENTLOOP_TIMERS_H
#define TESSRA_EVENTLOOP_TIMERS_H

#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "eventloop/channel.h"
#include "eventloop/clock.h"
#include "eventloop/list_mutex.h"
#include "eventloop/run.h"
#include "eventloop/stale.h"

namespace tessra {

struct event_timer_t;

class Timers {
public:
    constexpr explicit Timers(Channel& channel) : channel_(&channel) {}

    // Any thread.
    bool add(timer_handler_t handler, void* arg, Milliseconds timeout);
    void del(timer_handler_t handler, const void* arg);
    bool exists(timer_handler_t handler, const void* arg);
    void free_all();

    // The loop's thread.
    void mark_stale() { first_.stale.set(); }
    // The wait until the first deadline, in `storage`, or null if there is no timer.
    timeval* timeout(Milliseconds now, timeval& storage);
    void move_deadlines(long long int distance);
    // The timer phase, at `now` unless a handler has run since. Returns whether a handler has run.
    bool run_due(const Run& run, Milliseconds now, bool handler_ran);

    // For fork() and for the release of the context.
    ListMutex& mutex() { return mutex_; }

private:
    // A timer has a bucket once there is a table. One timer in four is on the first express lane,
    // one in four of those on the next.
    static constexpr unsigned int kLanes = 6;

    // The first timer as the loop has last seen it, so that a pass with nothing due takes no lock.
    // The loop's thread only, apart from `stale`.
    struct First {
        Milliseconds deadline = 0;
        bool exists = false;
        Stale stale{true};  // Set by whoever changes the list, until a timer phase has walked it.
    };

    static list_t* node_on(event_timer_t* timer, unsigned int lane);
    static event_timer_t* timer_on(list_t* node, unsigned int lane);
    list_t* head_of(unsigned int lane) { return lane == 0 ? &queue_ : &lanes_[lane - 1]; }
    unsigned int throw_lanes();
    void start_lanes_locked();
    void enqueue_locked(event_timer_t* timer);
    list_t& bucket_of(timer_handler_t handler, const void* arg);
    void enter_bucket_locked(event_timer_t* timer);
    void fit_table_locked();
    void look_over_locked();
    template <class Visit>
    void for_each_match_locked(timer_handler_t handler, const void* arg, Visit visit);
    friend void unlink_entry(event_timer_t* timer);

    Channel* channel_;
    ListMutex mutex_;
    list_t queue_ = {&queue_, &queue_};
    First first_;
    list_t lanes_[kLanes] = {};  // They begin with the first timer.
    list_t* buckets_ = nullptr;  // Null while timers are few, and if memory is short.
    unsigned int bucket_count_ = 0;
    unsigned int count_ = 0;         // Of the timers on the list.
    std::atomic<uint32_t> adds_{0};  // Without the lock.
};

}  // namespace tessra

#endif
