// Whether the loop must renew its own copy of a list's state.
#ifndef TESSRA_EVENTLOOP_STALE_H
#define TESSRA_EVENTLOOP_STALE_H

#include <atomic>

namespace tessra {

// A thread that changes the list sets this flag, then writes a wake-up byte. If one pass misses the
// flag, the byte causes another pass, which sees it. A start sets the flag as well, since a thread
// that changed the list earlier may have found no loop to wake.
class Stale {
public:
    constexpr explicit Stale(bool stale) : stale_(stale) {}
    explicit operator bool() const { return stale_.load(std::memory_order_relaxed); }
    // Always inlined: each is one store, and -Os would make calls of them.
    [[gnu::always_inline]] void set() { stale_.store(true, std::memory_order_relaxed); }
    [[gnu::always_inline]] void clear() { stale_.store(false, std::memory_order_relaxed); }

private:
    std::atomic<bool> stale_;
};

}  // namespace tessra

#endif
