// fork() while other threads use the library.
//
// The child has one thread, and of each lock and each list the state at the instant of the copy. In
// the child every context is idle, and usable:
//   - A context that was idle keeps its watchers. The thread that forks holds the locks of its
//     lists meanwhile, so that no other thread is in the middle of a change. Nobody holds these
//     locks for long, with one exception: a walk of the children on an idle context.
//   - So the child drops all child watchers. The children are its parent's anyway.
//   - A context whose loop ran is as new. Its locks may be held by a handler that waits for the
//     thread that forks, so they can't be waited for. Its records are left as they are, since the
//     thread may have forked in a handler, which returns into a walk of them.
//   - The channels' descriptors stay open until exec, and nothing is written to them or closed:
//     their numbers may be other files by then.

#include <new>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

constinit std::atomic<bool> handlers_registered{false};

template <class Visit>
void for_each_idle(Visit visit) {
    list_t* node;
    dll_foreach(node, &contexts) {
        event_loop_ctx_t& el_ctx = *context_of(node);
        if (!el_ctx.in_loop.load(std::memory_order_relaxed)) visit(el_ctx);
    }
}

void before_fork() {
    (void)pthread_mutex_lock(&contexts_mutex);
    channel_lock();
    for_each_idle([](event_loop_ctx_t& el_ctx) {
        el_ctx.eventlists_mutex.lock();
        el_ctx.timerlist_mutex.lock();
    });
}

void unlock_idle(event_loop_ctx_t& el_ctx) {
    el_ctx.timerlist_mutex.unlock();
    el_ctx.eventlists_mutex.unlock();
}

void after_fork_in_parent() {
    for_each_idle(unlock_idle);
    channel_unlock();
    (void)pthread_mutex_unlock(&contexts_mutex);
}

void make_new(event_loop_ctx_t& el_ctx) {
    const list_t node = el_ctx.contexts;
    PendingSignals* const pending = el_ctx.pending;
    set_up(*new (&el_ctx) event_loop_ctx_t{}, pending);
    el_ctx.contexts = node;
}

void after_fork_in_child() {
    rec_mutex = PTHREAD_MUTEX_INITIALIZER;
    disposition_mutex = PTHREAD_MUTEX_INITIALIZER;
    list_t* node;
    dll_foreach(node, &contexts) {
        event_loop_ctx_t& el_ctx = *context_of(node);
        if (el_ctx.in_loop.load(std::memory_order_relaxed)) {
            make_new(el_ctx);
        } else {
            list_init(&el_ctx.process_queue);
            el_ctx.pong_fd = kNoFd;  // A failed start's; the same holds for its number.
            new (&el_ctx.processlist_mutex) ListMutex;
            unlock_idle(el_ctx);
        }
    }
    children_forget_parent();
    thread_forget_parent();
    channel_forget_parent();
    (void)pthread_mutex_unlock(&contexts_mutex);
}

}  // namespace

// Without a lock: a fork() that is under way doesn't run the handlers, and its child would find the
// lock held.
bool register_fork_handlers() {
    if (handlers_registered.load(std::memory_order_relaxed)) return true;  // On each change's way.
    if (handlers_registered.exchange(true)) return true;
    const ErrnoKeeper keep_errno;
    const bool done = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
    if (!done) handlers_registered.store(false);
    return done;
}

}  // namespace tessra
