#include "eventloop/run.h"

#include <cerrno>
#include <cstddef>

#include "eventloop/running_loops.h"
#include "internal/at_fork.h"
#include "internal/record_of.h"

namespace tessra {

bool Run::start_locked(StartFailure& failure) {
    if (is_active() || keeps_running()) {
        errno = EBUSY;
        return false;
    }
    if (!channel_->open(failure)) return false;
    is_active_.store(true, std::memory_order_relaxed);
    thread_.store(pthread_self(), std::memory_order_relaxed);
    keeps_running_.store(true);
    running_loops.add_locked(node_);  // Its store makes the stores above visible to the catcher.
    return true;
}

// Logs a failure after it has released the lock, since the logger may run or end a loop of its own.
bool Run::start() {
    if (!register_fork_handlers()) {
        errno = ENOMEM;
        return false;
    }
    StartFailure failure;
    running_loops.lock();
    const bool started = start_locked(failure);
    running_loops.unlock();
    if (failure.text != nullptr) log_start_failure(failure);
    return started;
}

void Run::end() {
    running_loops.lock();
    int ping_fd = kNoFd;
    running_loops.remove_locked(node_, [&] { ping_fd = channel_->withdraw(); });
    channel_->close_ends(ping_fd);
    thread_.store(kNoThread, std::memory_order_relaxed);
    is_active_.store(false, std::memory_order_relaxed);
    running_loops.unlock();
}

void Run::cancel() {
    const InsideGate inside;
    keeps_running_.store(false);
    channel_->wake(channel_->ping_fd());
}

void send_to_running_loops(int signal, const siginfo_t& info) {
    unsigned char message[kMessageSize];
    make_message(signal, info, message);
    running_loops.for_each([&](list_t* node) {
        record_of<Run>(node, offsetof(Run, node_))->channel_->send_signal(signal, info, message);
    });
}

}  // namespace tessra
