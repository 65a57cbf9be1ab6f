// The registration of the library's handlers of fork(), by whatever needs them first.
#ifndef TESSRA_INTERNAL_AT_FORK_H
#define TESSRA_INTERNAL_AT_FORK_H

#include <atomic>

namespace tessra {

// eventloop/fork.cpp defines the handlers, since only that file knows all that a fork() concerns.
// They are declared here for the callers below that file.
void before_fork();
void after_fork_in_parent();
void after_fork_in_child();

extern std::atomic<bool> fork_handlers_registered;
bool register_fork_handlers_now();

// Makes fork() safe from now on. Returns false if there is no memory for the handlers, and the next
// call tries again. Relaxed: every lock of a list looks here, and nothing else depends on the flag.
inline bool register_fork_handlers() {
    return fork_handlers_registered.load(std::memory_order_relaxed) || register_fork_handlers_now();
}

}  // namespace tessra

#endif
