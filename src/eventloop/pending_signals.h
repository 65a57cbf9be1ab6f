// Signals that found the channel full, for one running loop.
//
// As the kernel does for a blocked signal, this keeps one record per number. While a record waits,
// further signals of its number are dropped. The catcher publishes a record and the loop's thread
// takes it, both without a lock.
#ifndef TESSRA_EVENTLOOP_PENDING_SIGNALS_H
#define TESSRA_EVENTLOOP_PENDING_SIGNALS_H

#include <signal.h>

#include <atomic>
#include <cstring>

namespace tessra {

constexpr int kMaxSignal = 31;  // The largest that can be watched: `full_` has a bit for each.

class PendingSignals {
public:
    // Signal context, any thread. If another catcher is still writing a record of the same number,
    // the loop takes that record after this call, so the record also reports this signal.
    void keep(int signal, const siginfo_t& info) {
        Slot& slot = slots_[signal - 1];
        unsigned expected = kFree;
        if (!slot.state.compare_exchange_strong(expected, kWriting)) return;
        memcpy(&slot.info, &info, sizeof info);
        slot.state.store(kFull);
        full_.fetch_or(1U << signal);
    }

    bool any() const { return full_.load() != 0; }

    // The loop's thread: takes a record and returns its number, or 0 if there is none. The numbers
    // take turns, so that a signal that is kept again and again doesn't delay the others.
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

    // Only while no catcher can reach this object.
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
