#include "eventloop/context.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "internal/alloc.h"
#include "internal/at_fork.h"
#include "internal/record_of.h"

namespace tessra {

namespace {

constinit WaitingSignals default_waiting = {};

// A context of event_mc_init().
struct OwnContext {
    event_loop_ctx_t context{waiting};
    WaitingSignals waiting = {};
};

}  // namespace

pthread_mutex_t contexts_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit list_t contexts = {&default_el_ctx.node, &default_el_ctx.node};
constinit event_loop_ctx_t default_el_ctx{default_waiting};

event_loop_ctx_t* context_of(list_t* node) {
    return record_of<event_loop_ctx_t>(node, offsetof(event_loop_ctx_t, node));
}

event_loop_ctx_t* make_context() {
    void* block = new_block(sizeof(OwnContext));
    if (block == nullptr) return nullptr;
    event_loop_ctx_t* el_ctx = &(new (block) OwnContext)->context;
    (void)register_fork_handlers();  // Without them, only a fork() beside this is unsafe.
    const MutexLock lock(contexts_mutex);
    list_add_tail(&contexts, &el_ctx->node);
    return el_ctx;
}

void free_context(event_loop_ctx_t* el_ctx) {
    if (el_ctx == nullptr) return;
    const CancelDisabled no_cancel;
    {
        const MutexLock lock(contexts_mutex);
        list_delete(&el_ctx->node);
        el_ctx->children.unwatch_contexts_locked();
    }
    el_ctx->timers.free_all();
    el_ctx->descriptors.free_all();
    el_ctx->children.free_all();
    el_ctx->signals.free_all();
    el_ctx->children.leave_walks();
    el_ctx->channel.close_leftover();
    el_ctx->children.mutex().destroy();
    el_ctx->events_mutex.destroy();
    el_ctx->timers.mutex().destroy();
    free(el_ctx);
}

}  // namespace tessra
