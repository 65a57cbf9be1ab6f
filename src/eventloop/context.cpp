// The loop contexts: the default one, those of event_mc_init(), and the clock that all share.

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
    .timerlist_mutex = RECURSIVE_MUTEX_INITIALIZER,
    .eventlists_mutex = RECURSIVE_MUTEX_INITIALIZER,
    .processlist_mutex = RECURSIVE_MUTEX_INITIALIZER,
    .do_events_reentrance = 0,
    .in_loop = false,
    .watched = {.sets = {}, .max_fd = kNoFd, .has_unselected = false, .by_fd = nullptr},
    .pending = &default_pending,
    .pending_turn = false,
    .first_timer = {},
    .timer_index = {},  // Its lanes begin with the first timer.
};
#pragma GCC diagnostic pop

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
    ctx->pending = &own->pending;
    list_init(&ctx->timer_queue);
    list_init(&ctx->fd_queue);
    list_init(&ctx->process_queue);
    list_init(&ctx->signal_queue);
    ctx->ping_fd.store(kNoFd);
    ctx->pong_fd = kNoFd;
    (void)pthread_mutex_init(&ctx->timerlist_mutex.mutex, nullptr);
    (void)pthread_mutex_init(&ctx->eventlists_mutex.mutex, nullptr);
    (void)pthread_mutex_init(&ctx->processlist_mutex.mutex, nullptr);
    return ctx;
}

void event_mc_free(event_loop_ctx_tp ctx) {
    if (ctx == nullptr) return;
    // The process's SIGCHLD watcher may name this context as the one whose children it looks after.
    forget_signal_arg(&default_el_ctx, event_sigchld_hndlr, ctx);
    event_timer_free(ctx);
    event_fd_free(ctx);
    process_free(ctx);
    event_signal_free(ctx);
    channel_discard_leftover(*ctx);
    (void)pthread_mutex_destroy(&ctx->processlist_mutex.mutex);
    (void)pthread_mutex_destroy(&ctx->eventlists_mutex.mutex);
    (void)pthread_mutex_destroy(&ctx->timerlist_mutex.mutex);
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

int is_event_loop_thread_mc(event_loop_ctx_tp el_ctx) {
    return pthread_equal(el_ctx->eloopthread.load(), pthread_self()) ? 1 : 0;
}

int is_event_loop_thread(void) { return is_event_loop_thread_mc(&default_el_ctx); }
