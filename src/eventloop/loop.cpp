// A pass has this order: descriptors, one message, timers.

#include "eventloop/loop.h"

#include <cerrno>
#include <cstdlib>

#include "eventloop/log.h"

namespace tessra {

namespace {

constexpr long long int kLargestPause = 86400000;     // A day; what takes longer is a clock jump.
constexpr unsigned int kLongestNestedWait = 2147483;  // Its microseconds still fit 32 signed bits.
constexpr int kNestedSelectTries = 3;

// Deadlines move along with a clock that has jumped between two readings.
void follow_clock_jump(Timers& timers, Milliseconds older, Milliseconds newer) {
    const auto before = static_cast<long long int>(older);
    const auto after = static_cast<long long int>(newer);
    if (before > after || after > before + kLargestPause) timers.move_deadlines(after - before);
}

int wait_in_select(event_loop_ctx_t& el_ctx, SelectSets& sets, timeval* timeout) {
    const int max_fd = el_ctx.descriptors.fill_sets(sets);
    return select(max_fd + 1, &sets.read, &sets.write, &sets.except, timeout);
}

// The descriptor handlers, then one message. Returns whether a handler may have run.
bool run_ready_watchers(event_loop_ctx_t& el_ctx, const SelectSets& ready, int ready_count) {
    Channel& channel = el_ctx.channel;
    const bool is_readable = ready_count > 0 && contains_fd(channel.pong_fd(), ready.read);
    if (is_readable) channel.read_ahead();
    const bool has_message = channel.has_message();
    const bool has_descriptor = ready_count > (is_readable ? 1 : 0);
    siginfo_t info;
    // A wake-up alone, of which there is one for each change of a list, needs no lock.
    const int first_signal = has_descriptor ? 0 : channel.take_signal(has_message, info);
    if (!has_descriptor && first_signal == 0) return false;

    const ListLock lock(el_ctx.events_mutex);
    // Marked watchers can't be waiting for this walk: it reaps within the pass what it marks.
    if (has_descriptor) el_ctx.descriptors.run_ready_locked(el_ctx.run, ready, ready_count);
    if (!el_ctx.run.is_here()) return false;
    const int signal = has_descriptor ? channel.take_signal(has_message, info) : first_signal;
    if (signal != 0) el_ctx.signals.run_watchers_locked(el_ctx.run, signal, info);
    return true;
}

// One pass over what select() returned: `ready_count` bits in `ready`, at `now`. Returns whether a
// handler may have run. While none has, one reading of the clock is as good as the next.
bool run_pass(event_loop_ctx_t& el_ctx, const SelectSets& ready, int ready_count,
              Milliseconds now) {
    const bool ran = run_ready_watchers(el_ctx, ready, ready_count);
    if (!el_ctx.run.is_here()) return ran;
    return el_ctx.timers.run_due(el_ctx.run, now, ran) || ran;
}

// One wait and pass of the main loop. `last_reading` is the clock's after the last wait. Takes and
// returns whether a handler may have run since that reading.
bool iterate(event_loop_ctx_t& el_ctx, Milliseconds& last_reading, bool ran) {
    const Milliseconds before_wait = ran ? event_get_time() : last_reading;
    follow_clock_jump(el_ctx.timers, last_reading, before_wait);

    timeval storage = {};
    timeval* timeout = &storage;
    if (!el_ctx.channel.has_work()) timeout = el_ctx.timers.timeout(before_wait, storage);
    SelectSets sets;
    const int count = wait_in_select(el_ctx, sets, timeout);
    const int error = errno;

    last_reading = event_get_time();
    follow_clock_jump(el_ctx.timers, before_wait, last_reading);
    if (count >= 0) return run_pass(el_ctx, sets, count, last_reading);
    if (error != EINTR) {
        if (error == EBADF) {
            el_ctx.descriptors.exit_if_closed();
            // Deleted and closed on another thread since the sets were copied.
            if (el_ctx.descriptors.is_stale()) return false;
        }
        log_select_failure(error, __LINE__);
        exit(1);
    }
    return false;
}

// The wait of the nested pass, in which a failure that lasts must not turn into a loop of its own.
// Sets that another thread has made stale by a delete don't count: the next try has new ones.
int select_with_retries(event_loop_ctx_t& el_ctx, SelectSets& sets, timeval& timeout) {
    for (int failures = 0; failures < kNestedSelectTries;) {
        const int count = wait_in_select(el_ctx, sets, &timeout);
        if (count >= 0 || errno == EINTR) return count;
        if (errno == EBADF) el_ctx.descriptors.exit_if_closed();
        if (!el_ctx.descriptors.is_stale()) ++failures;
    }
    return -1;
}

}  // namespace

int run_loop(event_loop_ctx_t& el_ctx, bool (*on_start)()) {
    const CancelDisabled no_cancel;
    if (!el_ctx.run.start()) return -1;
    // Who has changed a list while the channel came up may not have seen it, and so woke nobody.
    // The first look takes the lists' locks: a change that it misses comes later and does see the
    // channel.
    el_ctx.descriptors.mark_stale();
    el_ctx.timers.mark_stale();
    if (on_start != nullptr && !on_start()) {
        const ErrnoKeeper keep_errno;
        el_ctx.run.clear_flag();
        el_ctx.run.end();
        return -1;
    }
    el_ctx.descriptors.exit_if_closed();
    Milliseconds last_reading = event_get_time();
    bool ran = false;
    while (el_ctx.run.keeps_running() && el_ctx.run.is_here()) {
        ran = iterate(el_ctx, last_reading, ran);
    }
    if (!el_ctx.run.is_here()) {
        errno = ECANCELED;
        return -1;
    }
    if (&el_ctx == &default_el_ctx) {
        el_ctx.timers.free_all();
        el_ctx.descriptors.free_all();
        el_ctx.children.free_all();
        el_ctx.signals.free_all();
    }
    el_ctx.run.end();
    return 0;
}

int run_nested_pass(event_loop_ctx_t& el_ctx, unsigned int timeout) {
    if (!el_ctx.run.is_here() || el_ctx.in_nested_pass) return -1;
    if (timeout > kLongestNestedWait) {
        errno = EINVAL;
        return -1;
    }
    el_ctx.in_nested_pass = true;
    // Not normalised into seconds: the kernel takes any count of microseconds.
    timeval wait = {};
    const unsigned int microseconds = el_ctx.channel.has_work() ? 0 : timeout * 1000;
    wait.tv_usec = static_cast<decltype(wait.tv_usec)>(microseconds);
    SelectSets sets;
    const int count = select_with_retries(el_ctx, sets, wait);
    if (count >= 0) (void)run_pass(el_ctx, sets, count, event_get_time());
    el_ctx.in_nested_pass = false;
    return count >= 0 && el_ctx.run.is_here() ? 0 : -1;
}

}  // namespace tessra
