// fork() while other threads use the library.
#ifndef TESSRA_EVENTLOOP_FORK_H
#define TESSRA_EVENTLOOP_FORK_H

#include "internal/at_fork.h"

namespace tessra {

extern AtFork fork_handlers;
bool register_fork_handlers_now();

// Registers the handlers that make fork() safe, once. Returns false if there is no memory for them.
inline bool register_fork_handlers() {
    return fork_handlers.is_registered() || register_fork_handlers_now();
}

}  // namespace tessra

#endif
