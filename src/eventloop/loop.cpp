// A pass has this order: descriptors, one message, timers.

#include "eventloop/loop.h"

#include <cerrno>
#include <cstdlib>

#include "eventloop/log.h"

namespace tessra {

namespace {

constexpr long long int kLargestPause = 86400000;     // A day. A longer pause is a clock jump.
constexpr unsigned int kLongestNestedWait = 2147483;  // Its microseconds still fit 32 signed bits.
constexpr int kNestedSelectTries = 3;

// If the clock has jumped between two readings, moves the deadlines along.
void follow_clock_jump(Timers& timers, Milliseconds older, Milliseconds newer) {
    const auto before = static_cast<long long int>(older);
    const auto after = static_cast<long long int>(newer);
    if (before > after || after > before + kLargestPause) timers.move_deadlines(after - before);
}

int wait_in_select(event_loop_ctx_t& el_ctx, SelectSets& sets, timeval* timeout) {
    const int max_fd = el_ctx.descriptors.fill_sets(sets);
    return select(max_fd + 1, &sets.read, &sets.write, &sets.except, timeout);
}

// Runs the descriptor handlers, then takes one message. Returns whether a handler may have run.
bool run_ready_watchers(event_loop_ctx_t& el_ctx, const SelectSets& ready, int ready_count) {
    Channel& channel = el_ctx.channel;
    const bool is_readable = ready_count > 0 && contains_fd(channel.pong_fd(), ready.read);
    if (is_readable) channel.read_ahead();
    const bool has_message = channel.has_message();
    const bool has_descriptor = ready_count > (is_readable ? 1 : 0);
    siginfo_t info;
    // Each change of a list causes a pass that only takes a wake-up. Such a pass needs no lock.
    const int first_signal = has_descriptor ? 0 : channel.take_signal(has_message, info);
    if (!has_descriptor && first_signal == 0) return false;

    const ListLock lock(el_ctx.events_mutex);
    // If no descriptor is ready, no walk is needed. No marked watcher waits for one, since the walk
    // that has pinned it also frees it.
    if (has_descriptor) el_ctx.descriptors.run_ready_locked(el_ctx.run, ready, ready_count);
    if (!el_ctx.run.is_here()) return false;
    const int signal = has_descriptor ? channel.take_signal(has_message, info) : first_signal;
    if (signal != 0) el_ctx.signals.run_watchers_locked(el_ctx.run, signal, info);
    return true;
}

// One pass after select() has returned, at `now`, with `ready_count` bits in `ready`. Returns
// whether a handler may have run. If none has, the next step can use the same reading of the clock.
bool run_pass(event_loop_ctx_t& el_ctx, const SelectSets& ready, int ready_count,
              Milliseconds now) {
    const bool ran = run_ready_watchers(el_ctx, ready, ready_count);
    if (!el_ctx.run.is_here()) return ran;
    return el_ctx.timers.run_due(el_ctx.run, now, ran) || ran;
}

// One wait and pass of the main loop. `last_reading` is the reading of the clock after the last
// wait. `ran` and the result say whether a handler may have run since that reading.
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
            // Since the sets were copied, another thread has deleted a watcher and closed its
            // descriptor.
            if (el_ctx.descriptors.is_stale()) return false;
        }
        log_select_failure(error, __LINE__);
        exit(1);
    }
    return false;
}

// The wait of the nested pass. A failure may last, so the number of tries is limited. If another
// thread's delete has made the sets stale, the failure doesn't count: the next try has new sets.
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
    // A thread that changed a list during the start may not have seen the channel, and then woke
    // nobody. So the loop's first look takes the lists' locks. A change that the look misses comes
    // later, and its thread sees the channel.
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
    // The whole wait is in microseconds: the kernel accepts any number of them.
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
