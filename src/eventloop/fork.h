// fork() while other threads use the library.
#ifndef TESSRA_EVENTLOOP_FORK_H
#define TESSRA_EVENTLOOP_FORK_H

namespace tessra {

// Registers the handlers that make fork() safe, once. Returns false if there is no memory for them.
bool register_fork_handlers();

}  // namespace tessra

#endif
