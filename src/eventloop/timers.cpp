// Timers: one list per context, sorted by deadline, those with equal deadlines in order of adding.

#include "eventloop/eventloop_private.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

// The distance from which the seconds of a timeout no longer fit 32 signed bits, and what is waited
// for instead. The replacement counts milliseconds; the loop wakes, finds nothing due and waits on.
constexpr int kUnfitUpperWord = 500;
constexpr long long int kLongestWait = 2147483647;
static_assert((1LL << 32) * kUnfitUpperWord == 2147483648LL * 1000);

long long int clamp_distance(long long int tdiff) {
    if (tdiff < 0) return 0;
    if (static_cast<int32_t>(tdiff >> 32) >= kUnfitUpperWord) return kLongestWait;
    return tdiff;
}

// The entry behind which a timer with this deadline belongs; the head if it comes first. Searched
// from the tail, where nearly every new timer belongs.
list_t* place_for(list_t& queue, Milliseconds deadline) {
    list_t* before = queue.prev;
    while (before != &queue && entry_of<event_timer_t>(before)->time > deadline) {
        before = before->prev;
    }
    return before;
}

bool matches(const event_timer_t* timer, timer_handler_t handler, const void* arg) {
    return timer->handler == handler && (arg == nullptr || timer->arg == arg);
}

}  // namespace

bool timer_add(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg, Milliseconds timeout) {
    auto* timer = new_record<event_timer_t>();
    if (timer == nullptr) return false;
    *timer = {{}, handler, arg, event_get_time() + timeout, 0, 0};
    const RecursiveLock lock(el_ctx->timerlist_mutex);
    list_t* before = place_for(el_ctx->timer_queue, timer->time);
    list_insert(&timer->list, before, before->next);
    ping_eventloop(el_ctx, kWakeUp);
    return true;
}

void update_timers(event_loop_ctx_tp el_ctx, long long int tdiff) {
    const RecursiveLock lock(el_ctx->timerlist_mutex);
    list_t* node;
    dll_foreach(node, &el_ctx->timer_queue) {
        entry_of<event_timer_t>(node)->time += static_cast<Milliseconds>(tdiff);
    }
}

// The wait until the first deadline, in `timeout`, or null if there is no timer.
timeval* timer_timeout(event_loop_ctx_tp el_ctx, Milliseconds now, timeval& timeout) {
    const RecursiveLock lock(el_ctx->timerlist_mutex);
    list_t* first = el_ctx->timer_queue.next;
    if (first == &el_ctx->timer_queue) return nullptr;
    const long long int wait =
        clamp_distance(static_cast<long long int>(entry_of<event_timer_t>(first)->time - now));
    timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(wait / 1000);
    timeout.tv_usec = static_cast<decltype(timeout.tv_usec)>(wait % 1000 * 1000);
    return &timeout;
}

// The timer phase. A handler runs with its timer off the list and the lock released, so after it
// nothing that was remembered counts and the walk starts again. The clock is read once: a handler
// that keeps arming itself with 0 can't hold the phase beyond this millisecond.
void run_due_timers(event_loop_ctx_tp el_ctx) {
    RecursiveLock lock(el_ctx->timerlist_mutex);
    const Milliseconds current_time = event_get_time();
    bool fired;
    auto fire_if_due = [&](event_timer_t* timer) {
        if (timer->time > current_time) return false;
        list_delete(&timer->list);
        lock.unlock();
        timer->handler(timer->arg);
        free(timer);
        lock.lock();
        fired = true;
        return false;
    };
    do {
        fired = false;
        pinned_walk<event_timer_t, FlagPins>(el_ctx->timer_queue, fire_if_due);
    } while (fired);
}

void event_timer_free(event_loop_ctx_tp el_ctx) {
    const RecursiveLock lock(el_ctx->timerlist_mutex);
    free_all<event_timer_t>(el_ctx->timer_queue);
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
    const RecursiveLock lock(el_ctx->timerlist_mutex);
    list_t* node;
    dll_foreach(node, &el_ctx->timer_queue) {
        auto* timer = entry_of<event_timer_t>(node);
        if (matches(timer, handler, arg)) delete_or_mark(timer);
    }
    ping_eventloop(el_ctx, kWakeUp);
}

void event_timer_del(timer_handler_t handler, void* arg) {
    event_timer_del_mc(&default_el_ctx, handler, arg);
}

int event_timer_exists_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg) {
    const RecursiveLock lock(el_ctx->timerlist_mutex);
    const auto* armed = find_first<event_timer_t>(el_ctx->timer_queue, [=](event_timer_t* timer) {
        return matches(timer, handler, arg) && !timer->to_be_deleted;
    });
    return armed != nullptr ? 1 : 0;
}

int event_timer_exists(timer_handler_t handler, void* arg) {
    return event_timer_exists_mc(&default_el_ctx, handler, arg);
}
