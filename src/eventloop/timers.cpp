// Timers: one list per context, sorted by deadline, those with equal deadlines in order of adding.
//
// The list is all that counts: walks, pins and marks are as on the other lists. Beside it stand two
// ways to find a place in it when it is long. Express lanes are sorted lists of ever fewer of the
// timers (W. Pugh, "Skip Lists", 1990), by which a place is found in logarithmic time. A table
// finds the timers of a handler and an argument. Both are made of nodes in the records, so that a
// timer leaves them without being looked for, and a table that finds no memory is done without.

#include "eventloop/eventloop_private.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

// The distance from which the seconds of a timeout no longer fit 32 signed bits, and what is waited
// for instead. The replacement counts milliseconds; the loop wakes, finds nothing due and waits on.
constexpr int kUnfitUpperWord = 500;
constexpr Milliseconds kLongestWait = 2147483647;
static_assert((1LL << 32) * kUnfitUpperWord == 2147483648LL * 1000);

Milliseconds clamp_distance(long long int tdiff) {
    if (tdiff < 0) return 0;
    if (static_cast<int32_t>(tdiff >> 32) >= kUnfitUpperWord) return kLongestWait;
    return static_cast<Milliseconds>(tdiff);
}

// For what clamp_distance() returns. In halves, since a division of 64 bits is a call on 32-bit
// processors; and with one division each, since quotient and rest together are another.
void set_timeval(timeval& to, Milliseconds wait) {
    constexpr uint32_t kSecondsOfUpper = (1ULL << 32) / 1000;
    constexpr uint32_t kRestOfUpper = (1ULL << 32) % 1000;
    const auto upper = static_cast<uint32_t>(wait >> 32);
    const auto lower = static_cast<uint32_t>(wait);
    const uint32_t seconds = lower / 1000;
    const uint32_t rest = upper * kRestOfUpper + lower - seconds * 1000;
    const uint32_t carry = rest / 1000;
    const uint32_t all_seconds = upper * kSecondsOfUpper + seconds + carry;
    const uint32_t microseconds = (rest - carry * 1000) * 1000;
    to.tv_sec = static_cast<decltype(to.tv_sec)>(all_seconds);
    to.tv_usec = static_cast<decltype(to.tv_usec)>(microseconds);
}

constexpr unsigned int kFewTimers = 32;  // Up to here a walk costs less than a table.
constexpr unsigned int kFirstBuckets = 64;

// Lane 0 is the queue itself.
list_t* node_on(event_timer_t* timer, unsigned int lane) {
    return lane == 0 ? &timer->list : reinterpret_cast<list_t*>(timer + 1) + (lane - 1);
}

event_timer_t* timer_on(list_t* node, unsigned int lane) {
    if (lane == 0) return entry_of<event_timer_t>(node);
    return reinterpret_cast<event_timer_t*>(node - (lane - 1)) - 1;
}

// One timer in four gets a lane more. Any generator does that has no rhythm.
unsigned int throw_lanes(TimerIndex& index) {
    uint32_t dice = index.adds.fetch_add(1, std::memory_order_relaxed) * 0x9e3779b1U;
    dice = (dice ^ dice >> 15) * 0x85ebca6bU;
    return static_cast<unsigned int>(__builtin_ctz(dice >> 16 | 1U << 2 * kTimerLanes)) / 2;
}

list_t* lane_head(event_loop_ctx_tp el_ctx, unsigned int lane) {
    return lane == 0 ? &el_ctx->timer_queue : &el_ctx->timer_index.lanes[lane - 1];
}

// Links a timer in behind all that aren't later. The search begins at the tail, where nearly every
// new timer belongs, and on the lane with the longest steps; the last one seen to be later is where
// the next lane goes on.
void enqueue_locked(event_loop_ctx_tp el_ctx, event_timer_t* timer) {
    list_t& queue = el_ctx->timer_queue;
    const bool is_last =
        queue.prev == &queue || entry_of<event_timer_t>(queue.prev)->time <= timer->time;
    if (is_last && timer->lanes == 0) return list_add_tail(&queue, &timer->list);
    event_timer_t* later = nullptr;
    for (unsigned int lane = kTimerLanes + 1; lane-- > 0;) {
        list_t* const head = lane_head(el_ctx, lane);
        list_t* after = later != nullptr ? node_on(later, lane) : head;
        while (after->prev != head && timer_on(after->prev, lane)->time > timer->time) {
            after = after->prev;
            later = timer_on(after, lane);
        }
        if (lane <= timer->lanes) list_insert(node_on(timer, lane), after->prev, after);
    }
}

list_t& bucket_of(TimerIndex& index, timer_handler_t handler, const void* arg) {
    const auto bits = reinterpret_cast<uintptr_t>(handler) + reinterpret_cast<uintptr_t>(arg);
    const auto hash = static_cast<uint32_t>(bits >> 2) * 0x9e3779b1U;
    return index.buckets[(hash >> 16 ^ hash) & (index.bucket_count - 1)];
}

event_timer_t* timer_of_bucket(list_t* node) {
    return reinterpret_cast<event_timer_t*>(reinterpret_cast<char*>(node) -
                                            offsetof(event_timer_t, bucket));
}

void enter_bucket(TimerIndex& index, event_timer_t* timer) {
    if (index.buckets == nullptr) {
        list_init(&timer->bucket);
    } else {
        list_add_tail(&bucket_of(index, timer->handler, timer->arg), &timer->bucket);
    }
}

// A bucket has two timers at most, on average, and a timer has eight buckets at most. The table
// stays as it is if memory is short.
void fit_table_locked(event_loop_ctx_tp el_ctx) {
    TimerIndex& index = el_ctx->timer_index;
    const unsigned int count = index.count;
    if (count > index.bucket_count ? count <= kFewTimers : index.bucket_count <= 8 * count) return;
    const ErrnoKeeper keep_errno;
    const unsigned int bucket_count = count > kFewTimers ? 2U << (31 - __builtin_clz(count)) : 0;
    list_t* buckets = nullptr;
    if (bucket_count != 0) {
        buckets = static_cast<list_t*>(malloc(bucket_count * sizeof(list_t)));
        if (buckets == nullptr) return;
    }
    free(index.buckets);
    index.buckets = buckets;
    index.bucket_count = bucket_count;
    for (unsigned int n = 0; n < bucket_count; ++n) list_init(&buckets[n]);
#if !defined(__clang_analyzer__)  // It doesn't follow the loop above to its end.
    list_t* node;
    dll_foreach(node, &el_ctx->timer_queue) enter_bucket(index, entry_of<event_timer_t>(node));
#endif
}

void start_index(TimerIndex& index) {
    for (list_t& lane : index.lanes) list_init(&lane);
}

// After changes of the list, for the loop's thread.
void look_over_locked(event_loop_ctx_tp el_ctx) {
    fit_table_locked(el_ctx);
    list_t* const node = el_ctx->timer_queue.next;
    FirstTimer& first = el_ctx->first_timer;
    first.exists = node != &el_ctx->timer_queue;
#if !defined(__clang_analyzer__)  // It takes what a walk has freed for the first still.
    if (first.exists) first.deadline = entry_of<event_timer_t>(node)->time;
#endif
}

bool matches(const event_timer_t* timer, timer_handler_t handler, const void* arg) {
    return timer->handler == handler && (arg == nullptr || timer->arg == arg);
}

// Calls visit() for the armed and the marked timers of a handler and an argument.
template <class Visit>
void for_each_match(event_loop_ctx_tp el_ctx, timer_handler_t handler, const void* arg,
                    Visit visit) {
    TimerIndex& index = el_ctx->timer_index;
    const bool by_bucket = arg != nullptr && index.buckets != nullptr;
    list_t* node;
    dll_foreach(node, by_bucket ? &bucket_of(index, handler, arg) : &el_ctx->timer_queue) {
        auto* timer = by_bucket ? timer_of_bucket(node) : entry_of<event_timer_t>(node);
        if (matches(timer, handler, arg)) visit(timer);
    }
}

}  // namespace

bool timer_add(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg, Milliseconds timeout) {
    TimerIndex& index = el_ctx->timer_index;
    const unsigned int lanes = throw_lanes(index);
    auto* timer =
        static_cast<event_timer_t*>(new_block(sizeof(event_timer_t) + lanes * sizeof(list_t)));
    if (timer == nullptr) return false;
    *timer = {{}, handler, arg, event_get_time() + timeout, {}, 0, 0, lanes, &index.count};
    const ChangeLock lock(el_ctx, el_ctx->timerlist_mutex);
    if (index.lanes[0].next == nullptr) start_index(index);
    enqueue_locked(el_ctx, timer);
    enter_bucket(index, timer);
    ++index.count;
    fit_table_locked(el_ctx);
    el_ctx->first_timer.stale.set();
    return true;
}

void unlink_entry(event_timer_t* timer) {
    for (unsigned int lane = 0; lane <= timer->lanes; ++lane) list_delete(node_on(timer, lane));
    list_delete(&timer->bucket);
    --*timer->count;
}

// The wait until the first deadline, in `timeout`, or null if there is no timer.
timeval* timer_timeout(event_loop_ctx_tp el_ctx, Milliseconds now, timeval& timeout) {
    const FirstTimer& first = el_ctx->first_timer;
    if (first.stale) {
        const ListLock lock(el_ctx->timerlist_mutex);
        look_over_locked(el_ctx);
    }
    if (!first.exists) return nullptr;
    set_timeval(timeout, clamp_distance(static_cast<long long int>(first.deadline - now)));
    return &timeout;
}

void update_timers(event_loop_ctx_tp el_ctx, long long int tdiff) {
    const ListLock lock(el_ctx->timerlist_mutex);
    list_t* node;
    dll_foreach(node, &el_ctx->timer_queue) {
        entry_of<event_timer_t>(node)->time += static_cast<Milliseconds>(tdiff);
    }
    look_over_locked(el_ctx);
}

// The timer phase, at `now` unless a handler has run since. A handler runs with its timer off the
// list and the lock released, so after it nothing that was remembered counts and the walk starts
// again. The clock isn't read again: a handler that keeps arming itself with 0 can't hold the phase
// beyond this millisecond. Returns whether a handler has run.
//
// A list that has been walked since its last change, and of which nothing is due, would be left by
// another walk as it is, pins included.
bool run_due_timers(event_loop_ctx_tp el_ctx, Milliseconds now, bool handler_ran) {
    FirstTimer& first = el_ctx->first_timer;
    const bool walked = !first.stale;
    if (walked && !first.exists) return false;
    const Milliseconds current_time = handler_ran ? event_get_time() : now;
    if (walked && first.deadline > current_time) return false;

    ListLock lock(el_ctx->timerlist_mutex);
    bool any_fired = false;
    bool fired;
    auto fire_if_due = [&](event_timer_t* timer) {
        if (timer->time > current_time) return false;
        unlink_entry(timer);
        lock.unlock();
        timer->handler(timer->arg);
        free(timer);
        lock.lock();
        fired = true;
        return false;
    };
    do {
        fired = false;
        pinned_walk<event_timer_t, FlagPins>(
            el_ctx->timer_queue, [](const event_timer_t*) { return true; }, fire_if_due);
        any_fired |= fired;
        // What a child of fork() has by now is for its own loop to look at.
        if (!is_running_here(*el_ctx)) return true;
    } while (fired);
    look_over_locked(el_ctx);
    first.stale.clear();
    return any_fired;
}

void event_timer_free(event_loop_ctx_tp el_ctx) {
    const ListLock lock(el_ctx->timerlist_mutex);
    free_all<event_timer_t>(el_ctx->timer_queue);
    el_ctx->first_timer.stale.set();
    fit_table_locked(el_ctx);
}

}  // namespace tessra

using namespace tessra;

void event_timer_add_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg,
                        long long unsigned int timeout) {
    (void)timer_add(el_ctx, handler, arg, timeout);  // errno tells.
}

void event_timer_add(timer_handler_t handler, void* arg, long long unsigned int timeout) {
    event_timer_add_mc(&default_el_ctx, handler, arg, timeout);
}

void event_timer_del_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg) {
    const ChangeLock lock(el_ctx, el_ctx->timerlist_mutex);
    for_each_match(el_ctx, handler, arg, [](event_timer_t* timer) { delete_or_mark(timer); });
    el_ctx->first_timer.stale.set();
}

void event_timer_del(timer_handler_t handler, void* arg) {
    event_timer_del_mc(&default_el_ctx, handler, arg);
}

int event_timer_exists_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg) {
    const ListLock lock(el_ctx->timerlist_mutex);
    int armed = 0;
    for_each_match(el_ctx, handler, arg, [&armed](const event_timer_t* timer) {
        if (!timer->to_be_deleted) armed = 1;
    });
    return armed;
}

int event_timer_exists(timer_handler_t handler, void* arg) {
    return event_timer_exists_mc(&default_el_ctx, handler, arg);
}
