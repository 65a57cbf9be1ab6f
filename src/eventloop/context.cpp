// The loop contexts: the default one, those of event_mc_init(), and the clock that all share.

#include <cstddef>
#include <cstdlib>
#include <new>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

constinit PendingSignals default_pending = {};

// A context of event_mc_init().
struct OwnContext {
    event_loop_ctx_t context;
    PendingSignals pending;
};

}  // namespace

// Guards the list of all contexts, and which one SIGCHLD looks after. fork() is made with it held.
pthread_mutex_t contexts_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit list_t contexts = {&default_el_ctx.contexts, &default_el_ctx.contexts};

event_loop_ctx_t* context_of(list_t* node) {
    return reinterpret_cast<event_loop_ctx_t*>(reinterpret_cast<char*>(node) -
                                               offsetof(event_loop_ctx_t, contexts));
}

// Clang takes the address of a member inside its own initialiser for a use of its value.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
constinit event_loop_ctx_t default_el_ctx = {
    .list = {&default_el_ctx.list, &default_el_ctx.list},
    .timer_queue = {&default_el_ctx.timer_queue, &default_el_ctx.timer_queue},
    .fd_queue = {&default_el_ctx.fd_queue, &default_el_ctx.fd_queue},
    .process_queue = {&default_el_ctx.process_queue, &default_el_ctx.process_queue},
    .signal_queue = {&default_el_ctx.signal_queue, &default_el_ctx.signal_queue},
    .ping_fd = kNoFd,
    .pong_fd = kNoFd,
    .eloopthread = (pthread_t)-1,
    .async_loop_started = 0,
    .async_loop = (pthread_t)-1,
    .ahead = {},
    .timerlist_mutex = {},
    .eventlists_mutex = {},
    .processlist_mutex = {},
    .do_events_reentrance = 0,
    .in_loop = false,
    .contexts = {&contexts, &contexts},
    .watched = {},
    .pending = &default_pending,
    .pending_turn = false,
    .first_timer = {},
    .timer_index = {},  // Its lanes begin with the first timer.
    .signals = {},
};
#pragma GCC diagnostic pop

void set_up(event_loop_ctx_t& el_ctx, PendingSignals* pending) {
    el_ctx.pending = pending;
    list_init(&el_ctx.timer_queue);
    list_init(&el_ctx.fd_queue);
    list_init(&el_ctx.process_queue);
    list_init(&el_ctx.signal_queue);
    el_ctx.ping_fd.store(kNoFd, std::memory_order_relaxed);
    el_ctx.pong_fd = kNoFd;
}

}  // namespace tessra

using namespace tessra;

event_loop_ctx_tp event_mc_init(void) {
    void* block = calloc(1, sizeof(OwnContext));
    if (block == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    auto* own = new (block) OwnContext{};
    event_loop_ctx_t* ctx = &own->context;
    set_up(*ctx, &own->pending);
    (void)register_fork_handlers();  // Without them, only fork() beside this is unsafe.
    const MutexLock lock(contexts_mutex);
    list_add_tail(&contexts, &ctx->contexts);
    return ctx;
}

void event_mc_free(event_loop_ctx_tp ctx) {
    if (ctx == nullptr) return;
    const CancelDisabled no_cancel;
    {
        const MutexLock lock(contexts_mutex);
        list_delete(&ctx->contexts);
        forget_child_context_locked(ctx);
    }
    event_timer_free(ctx);
    event_fd_free(ctx);
    process_free(ctx);
    event_signal_free(ctx);
    leave_child_walks(ctx);
    channel_discard_leftover(*ctx);
    ctx->processlist_mutex.destroy();
    ctx->eventlists_mutex.destroy();
    ctx->timerlist_mutex.destroy();
    free(ctx);
}

long long unsigned int event_get_time(void) {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<Milliseconds>(now.tv_sec) * 1000 +
           static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

time_t event_get_time_sec(void) {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return now.tv_sec;
}

int is_event_loop_thread_mc(event_loop_ctx_tp el_ctx) { return is_running_here(*el_ctx) ? 1 : 0; }

int is_event_loop_thread(void) { return is_event_loop_thread_mc(&default_el_ctx); }
