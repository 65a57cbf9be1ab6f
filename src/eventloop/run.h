// The run of a loop: from a start to the return after a cancel.
//
// Locks: a start and an end hold the lock of running_loops.
#ifndef TESSRA_EVENTLOOP_RUN_H
#define TESSRA_EVENTLOOP_RUN_H

#include <signal.h>

#include <atomic>

#include "eventloop/channel.h"
#include "internal/thread_id.h"
#include "tessra/list.h"

namespace tessra {

class Run {
public:
    constexpr explicit Run(Channel& channel) : channel_(&channel) {}

    // Opens the channel and makes the calling thread the loop's. Returns false and sets errno if
    // the loop runs already or a step fails. A step that fails is logged.
    bool start();
    // The loop's thread, after its last pass.
    void end();
    // The loop's thread, before its first pass: the loop then runs no pass.
    void clear_flag() { keeps_running_.store(false); }
    // Any thread: clears the flag and wakes the loop.
    void cancel();

    // The run flag: set from the start until a cancel.
    bool keeps_running() const { return keeps_running_.load(); }
    // From the start until the end, beyond a cancel. Relaxed: a start and an end change it under
    // the lock. If a caller without the lock reads an old value and starts a loop, that start reads
    // the value again, under the lock.
    bool is_active() const { return is_active_.load(std::memory_order_relaxed); }
    // Whether the calling thread runs the loop. In a child of fork() that returns from a handler
    // this is false: the lists that the context has there are not for the pass that called the
    // handler. Relaxed: only the thread itself stores its identity.
    bool is_here() const { return is_caller(thread_.load(std::memory_order_relaxed)); }

private:
    friend void send_to_running_loops(int signal, const siginfo_t& info);

    bool start_locked(StartFailure& failure);

    list_t node_ = {};  // On the list of running loops.
    Channel* channel_;
    std::atomic<bool> keeps_running_{false};
    std::atomic<bool> is_active_{false};
    std::atomic<pthread_t> thread_{kNoThread};
};

// Signal context: sends a caught signal to every running loop.
void send_to_running_loops(int signal, const siginfo_t& info);

}  // namespace tessra

#endif
