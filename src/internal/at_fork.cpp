#include "internal/at_fork.h"

#include <pthread.h>

#include "internal/guards.h"

namespace tessra {

constinit std::atomic<bool> fork_handlers_registered{false};

// Without a lock: a fork() that is under way doesn't run the handlers, and its child would find the
// lock held.
bool register_fork_handlers_now() {
    if (fork_handlers_registered.exchange(true)) return true;
    const ErrnoKeeper keep_errno;
    const bool done = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    if (!done) fork_handlers_registered.store(false);
    return done;
}

}  // namespace tessra
