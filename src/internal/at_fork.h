// Registers handlers of fork() when they are needed first.
#ifndef TESSRA_INTERNAL_AT_FORK_H
#define TESSRA_INTERNAL_AT_FORK_H

#include <atomic>

namespace tessra {

class AtFork {
public:
    using Handler = void (*)();

    // Relaxed: every change of a list looks here, and nothing else depends on the flag.
    bool is_registered() const { return registered_.load(std::memory_order_relaxed); }

    // Takes no lock: a fork() that is under way doesn't run the handlers, and its child would find
    // the lock held. Returns false if there is no memory for the handlers, and the next call tries
    // again.
    bool register_once(Handler before, Handler in_parent, Handler in_child);

private:
    std::atomic<bool> registered_{false};
};

}  // namespace tessra

#endif
