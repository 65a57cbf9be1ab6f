// The default context's loop on a thread of its own.
#ifndef TESSRA_EVENTLOOP_THREAD_H
#define TESSRA_EVENTLOOP_THREAD_H

namespace tessra {

// Returns 0 or the number of an error.
int start_loop_thread();
void stop_loop_thread();

// Answers a start that waits at `handshake`.
void answer_handshake(void* handshake);

// For a child of fork(), which has no such thread.
void thread_forget_parent();

}  // namespace tessra

#endif
