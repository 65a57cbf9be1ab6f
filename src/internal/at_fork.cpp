#include "internal/at_fork.h"

#include <pthread.h>

#include "internal/guards.h"

namespace tessra {

bool AtFork::register_once(Handler before, Handler in_parent, Handler in_child) {
    if (registered_.exchange(true)) return true;
    const ErrnoKeeper keep_errno;
    const bool done = pthread_atfork(before, in_parent, in_child) == 0;
    if (!done) registered_.store(false);
    return done;
}

}  // namespace tessra
