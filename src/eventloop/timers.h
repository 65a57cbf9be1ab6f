// The timers of a context: one list, sorted by deadline. Timers with equal deadlines are in order
// of adding.
//
// The list alone decides: walks, pins and marks are as on the other lists. Two indexes find a place
// in a long list. Express lanes are sorted lists of ever fewer of the timers (W. Pugh, "Skip
// Lists", 1990), by which a place is found in logarithmic time. A table finds the timers of a
// handler and an argument. Both consist of nodes in the records, so removing a timer from them
// needs no search. If there is no memory for a table, the list is searched.
//
// Lock: `mutex_` guards all but `first_` and `adds_`. Handlers run with the lock released.
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
    // Returns the wait until the first deadline, in `storage`, or null if there is no timer.
    timeval* timeout(Milliseconds now, timeval& storage);
    void move_deadlines(long long int distance);
    // The timer phase. The time is `now`, or read again if a handler has run since. Returns whether
    // a timer has fired.
    bool run_due(const Run& run, Milliseconds now, bool handler_ran);

    // For fork() and for the release of the context.
    ListMutex& mutex() { return mutex_; }

private:
    // The number of express lanes. One timer in four is on the first, one in four of those on the
    // next.
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
    list_t lanes_[kLanes] = {};  // Set up with the first timer.
    list_t* buckets_ = nullptr;  // Of all timers. Null while they are few or memory is short.
    unsigned int bucket_count_ = 0;
    unsigned int count_ = 0;         // Of the timers on the list.
    std::atomic<uint32_t> adds_{0};  // Calls of add(). Without the lock.
};

}  // namespace tessra

#endif
