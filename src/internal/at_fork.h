// Registers handlers of fork() when they are needed first.
#ifndef TESSRA_INTERNAL_AT_FORK_H
#define TESSRA_INTERNAL_AT_FORK_H

#include <atomic>

namespace tessra {

class AtFork {
public:
    using Handler = void (*)();

    // Takes no lock: a fork() that is under way doesn't run the handlers, and its child would find
    // the lock held. Returns false if there is no memory for the handlers, and the next call tries
    // again.
    bool register_once(Handler before, Handler in_parent, Handler in_child) {
        // Relaxed: every change of a list looks here, and nothing else depends on the flag.
        if (registered_.load(std::memory_order_relaxed)) return true;
        return register_first(before, in_parent, in_child);
    }

private:
    bool register_first(Handler before, Handler in_parent, Handler in_child);

    std::atomic<bool> registered_{false};
};

}  // namespace tessra

#endif
