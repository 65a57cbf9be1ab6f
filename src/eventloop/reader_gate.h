// A gate without a lock, between the threads that use an object and the one that withdraws it.
#ifndef TESSRA_EVENTLOOP_READER_GATE_H
#define TESSRA_EVENTLOOP_READER_GATE_H

#include <time.h>

#include <atomic>

namespace tessra {

// Lets a waiter wait for all readers that may still use the object that it has withdrawn. Entering
// and leaving are lock-free and signal-safe. The gate has two counters, so that newcomers don't
// prolong the wait: a waiter sends them to the other counter. The waiter does so twice, since a
// reader may be held up between the choice of its counter and its entry. That reader may enter the
// counter that the first round doesn't wait for.
class ReaderGate {
public:
    static constexpr timespec kPause = {0, 100000};

    unsigned enter() {
        const unsigned side = side_.load();
        inside_[side].fetch_add(1);
        return side;
    }

    void leave(unsigned side) { inside_[side].fetch_sub(1); }

    // For one waiter at a time. Readers only make non-blocking writes, so the wait is short. The
    // waiter sleeps, because a reader that has been preempted may have a lower priority.
    void wait_for_readers() {
        for (int round = 0; round < 2; ++round) {
            const unsigned old_side = side_.load();
            side_.store(old_side ^ 1U);
            while (inside_[old_side].load() != 0) (void)nanosleep(&kPause, nullptr);
        }
    }

    // For a child of fork(), which inherits the counts of threads that it doesn't have.
    void reset() {
        inside_[0].store(0, std::memory_order_relaxed);
        inside_[1].store(0, std::memory_order_relaxed);
    }

private:
    // Sequentially consistent, except in reset(): a reader's entry and the waiter's look at the
    // counter must have one order, or each could miss the other.
    std::atomic<unsigned> side_{0};
    std::atomic<int> inside_[2]{0, 0};
};

}  // namespace tessra

#endif
