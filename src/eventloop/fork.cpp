// The state that a child of fork() finds.
//
// The child has one thread. It has each lock and each list as they were at the instant of the copy.
// In the child every context is idle, and usable:
//   - A context that was idle keeps its watchers. During the copy the thread that forks holds
//     `events_mutex` and the lock of the timers, so that no other thread is in the middle of a
//     change. No thread holds these two for long.
//   - A walk may hold the lock of the children for long, also on an idle context. So the thread
//     that forks doesn't take it, and the child drops all child watchers. The processes are its
//     parent's children anyway.
//   - A context whose loop ran is like a new one. A handler that waits for the thread that forks
//     may hold its locks, so this thread can't wait for them. The records stay in memory, since the
//     thread may have forked in a handler, which returns into a walk of these records.
//   - The channels' descriptors stay open until exec. The child writes to none of them and closes
//     none, since it may have given the number to another file.

#include <new>

#include "eventloop/context.h"
#include "eventloop/dispositions.h"
#include "eventloop/running_loops.h"
#include "eventloop/thread.h"
#include "internal/at_fork.h"
#include "internal/export.h"
#include "tessra/misc.h"

namespace tessra {

namespace {

template <class Visit>
void for_each_idle(Visit visit) {
    list_t* node;
    dll_foreach(node, &contexts) {
        event_loop_ctx_t& el_ctx = *context_of(node);
        if (!el_ctx.run.is_active()) visit(el_ctx);
    }
}

void unlock_idle(event_loop_ctx_t& el_ctx) {
    el_ctx.timers.mutex().unlock();
    el_ctx.events_mutex.unlock();
}

void make_new(event_loop_ctx_t& el_ctx) {
    const list_t node = el_ctx.node;
    new (&el_ctx) event_loop_ctx_t(el_ctx.channel.waiting());
    el_ctx.node = node;
}

}  // namespace

TESSRA_EXPORTED void before_fork() {
    (void)pthread_mutex_lock(&contexts_mutex);
    running_loops.lock();
    for_each_idle([](event_loop_ctx_t& el_ctx) {
        el_ctx.events_mutex.lock();
        el_ctx.timers.mutex().lock();
    });
}

TESSRA_EXPORTED void after_fork_in_parent() {
    for_each_idle(unlock_idle);
    running_loops.unlock();
    (void)pthread_mutex_unlock(&contexts_mutex);
}

TESSRA_EXPORTED void after_fork_in_child() {
    rec_mutex = PTHREAD_MUTEX_INITIALIZER;
    disposition_mutex = PTHREAD_MUTEX_INITIALIZER;
    list_t* node;
    dll_foreach(node, &contexts) {
        event_loop_ctx_t& el_ctx = *context_of(node);
        if (el_ctx.run.is_active()) {
            make_new(el_ctx);
        } else {
            el_ctx.children.forget_parent();
            el_ctx.channel.forget_leftover();
            unlock_idle(el_ctx);
        }
    }
    children_forget_parent();
    thread_forget_parent();
    running_loops.forget_parent();
    (void)pthread_mutex_unlock(&contexts_mutex);
}

}  // namespace tessra
