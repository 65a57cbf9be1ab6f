// Signals that found the channel full, for one running loop.
//
// As the kernel does for a blocked signal, this keeps one record per number: of those that come
// while it waits, the first stands for all. A record is published by the catcher and taken by the
// loop's thread, without a lock on either side.
#ifndef TESSRA_EVENTLOOP_PENDING_SIGNALS_H
#define TESSRA_EVENTLOOP_PENDING_SIGNALS_H

#include <signal.h>

#include <atomic>
#include <cstring>

namespace tessra {

constexpr int kMaxSignal = 31;  // What the first byte of a signal message has room for.

class PendingSignals {
public:
    // Signal context, any thread. A record of the same number that another catcher is still writing
    // will be taken later than this, so it stands for this one, too.
    void keep(int signal, const siginfo_t& info) {
        Slot& slot = slots_[signal - 1];
        unsigned expected = kFree;
        if (!slot.state.compare_exchange_strong(expected, kWriting)) return;
        memcpy(&slot.info, &info, sizeof info);
        slot.state.store(kFull);
        full_.fetch_or(1U << signal);
    }

    bool any() const { return full_.load() != 0; }

    // The loop's thread: hands out a number and its record, or returns 0. The numbers take turns,
    // so that one which is kept again and again doesn't hold up the others.
    int take(siginfo_t& info) {
        const unsigned full = full_.load();
        if (full == 0) return 0;
        const unsigned later = full & (~1U << last_taken_);
        const int signal = __builtin_ctz(later != 0 ? later : full);
        last_taken_ = signal;
        Slot& slot = slots_[signal - 1];
        full_.fetch_and(~(1U << signal));
        memcpy(&info, &slot.info, sizeof info);
        slot.state.store(kFree);
        return signal;
    }

    // When no catcher can reach it.
    void clear() {
        full_.store(0, std::memory_order_relaxed);
        for (Slot& slot : slots_) slot.state.store(kFree, std::memory_order_relaxed);
    }

private:
    static constexpr unsigned kFree = 0, kWriting = 1, kFull = 2;

    struct Slot {
        std::atomic<unsigned> state;
        siginfo_t info = {};
    };

    std::atomic<unsigned> full_;  // A bit for each number whose slot is full.
    int last_taken_ = 0;          // The loop's thread only.
    Slot slots_[kMaxSignal];
};

}  // namespace tessra

#endif
