// The main loop, the nested pass, and the order of a pass: descriptors, one message, timers.

#include <cstdlib>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

constexpr long long int kLargestPause = 86400000;     // A day; what takes longer is a clock jump.
constexpr unsigned int kLongestNestedWait = 2147483;  // Its microseconds still fit 32 signed bits.
constexpr int kNestedSelectTries = 3;

// Deadlines move along with a clock that has jumped between two readings.
void follow_clock_jump(event_loop_ctx_tp el_ctx, Milliseconds older, Milliseconds newer) {
    const auto before = static_cast<long long int>(older);
    const auto after = static_cast<long long int>(newer);
    if (before > after || after > before + kLargestPause) update_timers(el_ctx, after - before);
}

// Takes at most one message, and returns the number of at most one signal. Those that are kept
// beside a full channel go when the message was a wake-up, and take turns with other signals.
int take_signal(event_loop_ctx_tp el_ctx, bool has_message, siginfo_t& info) {
    int signal = 0;
    if (has_message && !(el_ctx->pending_turn && el_ctx->pending->any())) {
        signal = channel_take_message(*el_ctx, info);
    }
    el_ctx->pending_turn = signal != 0;
    return signal != 0 ? signal : el_ctx->pending->take(info);
}

// The descriptor handlers, then one message. Returns whether a handler may have run.
bool run_ready_watchers(event_loop_ctx_tp el_ctx, const SelectSets& ready, int ready_count) {
    const bool is_readable = ready_count > 0 && contains_fd(el_ctx->pong_fd, ready.read);
    if (is_readable) channel_read_ahead(*el_ctx);
    const bool message = has_message(el_ctx->ahead);
    const bool has_descriptor = ready_count > (is_readable ? 1 : 0);
    siginfo_t info;
    // A wake-up alone, of which there is one for each change of a list, needs no lock.
    const int first_signal = has_descriptor ? 0 : take_signal(el_ctx, message, info);
    if (!has_descriptor && first_signal == 0) return false;

    const ListLock lock(el_ctx->eventlists_mutex);
    // Marked watchers can't be waiting for this walk: it reaps within the pass what it marks.
    if (has_descriptor) run_ready_descriptors_locked(el_ctx, ready, ready_count);
    if (!is_running_here(*el_ctx)) return false;
    const int signal = has_descriptor ? take_signal(el_ctx, message, info) : first_signal;
    if (signal != 0) run_signal_watchers_locked(el_ctx, signal, info);
    return true;
}

// One pass over what select() returned: `ready_count` bits in `ready`, at `now`. Returns whether a
// handler may have run; while none has, one reading of the clock is as good as the next.
bool event_handle_events(event_loop_ctx_tp el_ctx, const SelectSets& ready, int ready_count,
                         Milliseconds now) {
    const bool ran = run_ready_watchers(el_ctx, ready, ready_count);
    if (!is_running_here(*el_ctx)) return ran;
    return run_due_timers(el_ctx, now, ran) || ran;
}

// Whether a pass is owed, whatever select() finds.
bool has_work(const event_loop_ctx_t& el_ctx) {
    return has_message(el_ctx.ahead) || el_ctx.pending->any();
}

// One wait and pass of the main loop; `ptime` is the reading after the last wait. Takes and returns
// whether a handler may have run since that reading.
bool iterate(event_loop_ctx_tp el_ctx, Milliseconds& ptime, bool ran) {
    const Milliseconds ntime = ran ? event_get_time() : ptime;
    follow_clock_jump(el_ctx, ptime, ntime);

    timeval storage;
    timeval* timeout = timer_timeout(el_ctx, ntime, storage);
    if (has_work(*el_ctx)) *(timeout = &storage) = {};
    SelectSets sets;
    const int max_fd = fill_select_sets(el_ctx, sets);
    const int count = select(max_fd + 1, &sets.read, &sets.write, &sets.except, timeout);
    const int error = errno;

    ptime = event_get_time();
    follow_clock_jump(el_ctx, ntime, ptime);
    if (count >= 0) return event_handle_events(el_ctx, sets, count, ptime);
    if (error != EINTR) {
        if (error == EBADF) {
            exit_if_descriptor_closed(el_ctx);
            // Deleted and closed on another thread since the sets were copied.
            if (el_ctx->watched.stale) return false;
        }
        log_select_failure(error, __LINE__);
        exit(1);
    }
    return false;
}

// The wait of the nested pass, in which a failure that lasts must not turn into a loop of its own.
// Sets that another thread has made stale by a delete don't count: the next try has new ones.
int select_with_retries(event_loop_ctx_tp el_ctx, SelectSets& sets, timeval& timeout) {
    for (int failures = 0; failures < kNestedSelectTries;) {
        const int max_fd = fill_select_sets(el_ctx, sets);
        const int count = select(max_fd + 1, &sets.read, &sets.write, &sets.except, &timeout);
        if (count >= 0 || errno == EINTR) return count;
        if (errno == EBADF) exit_if_descriptor_closed(el_ctx);
        if (!el_ctx->watched.stale) ++failures;
    }
    return -1;
}

}  // namespace

// Runs a loop. `on_start` is called once the loop has started, unless it is null; if it returns
// false, the loop ends before its first pass, and the watchers stay.
int run_loop(event_loop_ctx_t& el_ctx, bool (*on_start)()) {
    const CancelDisabled no_cancel;
    if (!channel_start(el_ctx)) return -1;
    if (on_start != nullptr && !on_start()) {
        const ErrnoKeeper keep_errno;
        el_ctx.async_loop_started.store(0);
        channel_end(el_ctx);
        return -1;
    }
    exit_if_descriptor_closed(&el_ctx);
    Milliseconds ptime = event_get_time();
    bool ran = false;
    while (el_ctx.async_loop_started.load() != 0 && is_running_here(el_ctx)) {
        ran = iterate(&el_ctx, ptime, ran);
    }
    if (!is_running_here(el_ctx)) {
        errno = ECANCELED;
        return -1;
    }
    if (&el_ctx == &default_el_ctx) {
        event_timer_free(&el_ctx);
        event_fd_free(&el_ctx);
        process_free(&el_ctx);
        event_signal_free(&el_ctx);
    }
    channel_end(el_ctx);
    return 0;
}

}  // namespace tessra

using namespace tessra;

int et_event_loop_mc(event_loop_ctx_tp el_ctx) { return run_loop(*el_ctx, nullptr); }

int et_event_loop(void) { return et_event_loop_mc(&default_el_ctx); }

void cancel_loop_mc(event_loop_ctx_tp el_ctx) { channel_cancel(*el_ctx); }

void cancel_loop(void) { cancel_loop_mc(&default_el_ctx); }

int do_events_mc(event_loop_ctx_tp el_ctx, unsigned int timeout) {
    if (!is_event_loop_thread_mc(el_ctx) || el_ctx->do_events_reentrance > 0) return -1;
    if (timeout > kLongestNestedWait) {
        errno = EINVAL;
        return -1;
    }
    ++el_ctx->do_events_reentrance;
    // Not normalised into seconds: the kernel takes any count of microseconds.
    timeval wait = {};
    const unsigned int microseconds = has_work(*el_ctx) ? 0 : timeout * 1000;
    wait.tv_usec = static_cast<decltype(wait.tv_usec)>(microseconds);
    SelectSets sets;
    const int count = select_with_retries(el_ctx, sets, wait);
    if (count >= 0) (void)event_handle_events(el_ctx, sets, count, event_get_time());
    el_ctx->do_events_reentrance = 0;
    return count >= 0 && is_running_here(*el_ctx) ? 0 : -1;
}

int do_events(unsigned int timeout) { return do_events_mc(&default_el_ctx, timeout); }
