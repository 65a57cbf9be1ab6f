#include "eventloop/timers.h"

#include <cstdlib>

#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

struct event_timer_t {
    list_t list;
    timer_handler_t handler;
    void* arg;
    Milliseconds time;
    list_t bucket;  // Node among the timers with the same hash of handler and argument.
    int pins;
    Mark mark;
    unsigned int lanes;   // Express lanes, whose nodes follow the record.
    unsigned int* count;  // That of its list.
};

namespace {

// From this upper word of a distance on, the seconds of a timeout don't fit 32 signed bits. The
// loop then waits kLongestWait milliseconds, finds no timer due, and waits again.
constexpr int kUnfitUpperWord = 500;
constexpr Milliseconds kLongestWait = 2147483647;
static_assert((1LL << 32) * kUnfitUpperWord == 2147483648LL * 1000);

Milliseconds clamp_distance(long long int tdiff) {
    if (tdiff < 0) return 0;
    if (static_cast<int32_t>(tdiff >> 32) >= kUnfitUpperWord) return kLongestWait;
    return static_cast<Milliseconds>(tdiff);
}

// Takes a result of clamp_distance(). Divides in halves, since a division of 64 bits is a function
// call on 32-bit processors. Each half has one division, since quotient and remainder together are
// another such call.
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

constexpr unsigned int kFewTimers = 32;  // Up to so many a walk costs less than a table.

bool matches(const event_timer_t* timer, timer_handler_t handler, const void* arg) {
    return timer->handler == handler && (arg == nullptr || timer->arg == arg);
}

}  // namespace

// Lane 0 is the queue itself.
list_t* Timers::node_on(event_timer_t* timer, unsigned int lane) {
    return lane == 0 ? &timer->list : reinterpret_cast<list_t*>(timer + 1) + (lane - 1);
}

event_timer_t* Timers::timer_on(list_t* node, unsigned int lane) {
    if (lane == 0) return record_of<event_timer_t>(node);
    return reinterpret_cast<event_timer_t*>(node - (lane - 1)) - 1;
}

// One timer in four gets one lane more. Any generator without a regular pattern is good enough.
unsigned int Timers::throw_lanes() {
    uint32_t dice = adds_.fetch_add(1, std::memory_order_relaxed) * 0x9e3779b1U;
    dice = (dice ^ dice >> 15) * 0x85ebca6bU;
    return static_cast<unsigned int>(__builtin_ctz(dice >> 16 | 1U << 2 * kLanes)) / 2;
}

void Timers::start_lanes_locked() {
    for (list_t& lane : lanes_) list_init(&lane);
}

// Links a timer in behind all that aren't later. The search begins at the tail, where nearly every
// new timer belongs, and on the lane with the longest steps. It continues one lane down, from the
// last timer that it has found to be later.
void Timers::enqueue_locked(event_timer_t* timer) {
    const bool is_last =
        queue_.prev == &queue_ || record_of<event_timer_t>(queue_.prev)->time <= timer->time;
    if (is_last && timer->lanes == 0) return list_add_tail(&queue_, &timer->list);
    event_timer_t* later = nullptr;
    for (unsigned int lane = kLanes + 1; lane-- > 0;) {
        list_t* const head = head_of(lane);
        list_t* after = later != nullptr ? node_on(later, lane) : head;
        while (after->prev != head && timer_on(after->prev, lane)->time > timer->time) {
            after = after->prev;
            later = timer_on(after, lane);
        }
        if (lane <= timer->lanes) list_insert(node_on(timer, lane), after->prev, after);
    }
}

// The buckets of a new table are zeroed, and each becomes a list when it is used first.
list_t& Timers::bucket_of(timer_handler_t handler, const void* arg) {
    const auto bits = reinterpret_cast<uintptr_t>(handler) + reinterpret_cast<uintptr_t>(arg);
    const auto hash = static_cast<uint32_t>(bits >> 2) * 0x9e3779b1U;
    list_t& bucket = buckets_[(hash >> 16 ^ hash) & (bucket_count_ - 1)];
    if (bucket.next == nullptr) list_init(&bucket);
    return bucket;
}

void Timers::enter_bucket_locked(event_timer_t* timer) {
    if (buckets_ == nullptr) {
        list_init(&timer->bucket);
    } else {
        list_add_tail(&bucket_of(timer->handler, timer->arg), &timer->bucket);
    }
}

// A table has at least as many buckets as there are timers, and at most eight times as many. It
// stays as it is if memory is short.
void Timers::fit_table_locked() {
    if (count_ > bucket_count_ ? count_ <= kFewTimers : bucket_count_ <= 8 * count_) return;
    const ErrnoKeeper keep_errno;
    const unsigned int bucket_count = count_ > kFewTimers ? 2U << (31 - __builtin_clz(count_)) : 0;
    list_t* buckets = nullptr;
    if (bucket_count != 0) {
        buckets = static_cast<list_t*>(calloc(bucket_count, sizeof(list_t)));
        if (buckets == nullptr) return;
    }
    free(buckets_);
    buckets_ = buckets;
    bucket_count_ = bucket_count;
    list_t* node;
    dll_foreach(node, &queue_) enter_bucket_locked(record_of<event_timer_t>(node));
}

// The loop's thread, after changes of the list.
void Timers::look_over_locked() {
    fit_table_locked();
    first_.exists = queue_.next != &queue_;
    if (first_.exists) first_.deadline = record_of<event_timer_t>(queue_.next)->time;
}

// Calls visit() for the armed and the marked timers of a handler and an argument.
template <class Visit>
void Timers::for_each_match_locked(timer_handler_t handler, const void* arg, Visit visit) {
    const bool by_bucket = arg != nullptr && buckets_ != nullptr;
    const size_t offset = by_bucket ? offsetof(event_timer_t, bucket) : 0;
    list_t* node;
    dll_foreach(node, by_bucket ? &bucket_of(handler, arg) : &queue_) {
        auto* timer = record_of<event_timer_t>(node, offset);
        if (matches(timer, handler, arg)) visit(timer);
    }
}

bool Timers::add(timer_handler_t handler, void* arg, Milliseconds timeout) {
    const unsigned int lanes = throw_lanes();
    auto* timer =
        static_cast<event_timer_t*>(new_block(sizeof(event_timer_t) + lanes * sizeof(list_t)));
    if (timer == nullptr) return false;
    *timer = {{}, handler, arg, event_get_time() + timeout, {}, 0, Mark::kNone, lanes, &count_};
    const Change change(*channel_, mutex_);
    if (lanes_[0].next == nullptr) start_lanes_locked();
    enqueue_locked(timer);
    enter_bucket_locked(timer);
    ++count_;
    fit_table_locked();
    first_.stale.set();
    return true;
}

void unlink_entry(event_timer_t* timer) {
    for (unsigned int lane = 0; lane <= timer->lanes; ++lane) {
        list_delete(Timers::node_on(timer, lane));
    }
    list_delete(&timer->bucket);
    --*timer->count;
}

void Timers::del(timer_handler_t handler, const void* arg) {
    const Change change(*channel_, mutex_);
    for_each_match_locked(handler, arg, [](event_timer_t* timer) { delete_or_mark(timer); });
    first_.stale.set();
}

bool Timers::exists(timer_handler_t handler, const void* arg) {
    const ListLock lock(mutex_);
    bool is_armed = false;
    for_each_match_locked(handler, arg, [&is_armed](const event_timer_t* timer) {
        if (timer->mark == Mark::kNone) is_armed = true;
    });
    return is_armed;
}

void Timers::free_all() {
    const ListLock lock(mutex_);
    tessra::free_all<event_timer_t>(queue_);
    first_.stale.set();
    fit_table_locked();
}

timeval* Timers::timeout(Milliseconds now, timeval& storage) {
    if (first_.stale) {
        const ListLock lock(mutex_);
        look_over_locked();
    }
    if (!first_.exists) return nullptr;
    set_timeval(storage, clamp_distance(static_cast<long long int>(first_.deadline - now)));
    return &storage;
}

void Timers::move_deadlines(long long int distance) {
    const ListLock lock(mutex_);
    list_t* node;
    dll_foreach(node, &queue_) {
        record_of<event_timer_t>(node)->time += static_cast<Milliseconds>(distance);
    }
    look_over_locked();
}

// A handler runs with its timer off the list and the lock released. So after a handler the walk
// has no valid pointer, and starts again. The clock isn't read again, so that a handler that always
// arms itself with 0 can't extend the phase beyond this millisecond.
//
// If the list has been walked since its last change, and no timer is due, another walk would change
// nothing, not even a pin.
bool Timers::run_due(const Run& run, Milliseconds now, bool handler_ran) {
    const bool walked = !first_.stale;
    if (walked && !first_.exists) return false;
    const Milliseconds current_time = handler_ran ? event_get_time() : now;
    if (walked && first_.deadline > current_time) return false;

    ListLock lock(mutex_);
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
            queue_, [](const event_timer_t*) { return true; }, fire_if_due);
        any_fired |= fired;
        // In a child of fork() the list is left to the child's own loop.
        if (!run.is_here()) return true;
    } while (fired);
    look_over_locked();
    first_.stale.clear();
    return any_fired;
}

}  // namespace tessra
