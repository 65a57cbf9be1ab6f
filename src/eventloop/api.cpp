// The exported functions that work on a context. Each calls the part that does the work.

#include <cerrno>

#include "eventloop/context.h"
#include "eventloop/loop.h"
#include "eventloop/thread.h"
#include "internal/export.h"

using namespace tessra;

namespace {

int failed_with(int error) {
    errno = error;
    return -1;
}

}  // namespace

TESSRA_EXPORTED event_loop_ctx_tp event_mc_init(void) { return make_context(); }

TESSRA_EXPORTED void event_mc_free(event_loop_ctx_tp ctx) { free_context(ctx); }

TESSRA_EXPORTED int et_event_loop_mc(event_loop_ctx_tp el_ctx) {
    return run_loop(*el_ctx, nullptr);
}

TESSRA_EXPORTED int et_event_loop(void) { return et_event_loop_mc(&default_el_ctx); }

TESSRA_EXPORTED int do_events_mc(event_loop_ctx_tp el_ctx, unsigned int timeout) {
    return run_nested_pass(*el_ctx, timeout);
}

TESSRA_EXPORTED int do_events(unsigned int timeout) {
    return do_events_mc(&default_el_ctx, timeout);
}

TESSRA_EXPORTED void cancel_loop_mc(event_loop_ctx_tp el_ctx) { el_ctx->run.cancel(); }

TESSRA_EXPORTED void cancel_loop(void) { cancel_loop_mc(&default_el_ctx); }

TESSRA_EXPORTED int is_event_loop_thread_mc(event_loop_ctx_tp el_ctx) {
    return el_ctx->run.is_here() ? 1 : 0;
}

TESSRA_EXPORTED int is_event_loop_thread(void) { return is_event_loop_thread_mc(&default_el_ctx); }

TESSRA_EXPORTED void event_timer_add_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler,
                                        void* arg, long long unsigned int timeout) {
    (void)el_ctx->timers.add(handler, arg, timeout);  // The caller reads errno, here and below.
}

TESSRA_EXPORTED void event_timer_add(timer_handler_t handler, void* arg,
                                     long long unsigned int timeout) {
    event_timer_add_mc(&default_el_ctx, handler, arg, timeout);
}

TESSRA_EXPORTED void event_timer_del_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler,
                                        void* arg) {
    el_ctx->timers.del(handler, arg);
}

TESSRA_EXPORTED void event_timer_del(timer_handler_t handler, void* arg) {
    event_timer_del_mc(&default_el_ctx, handler, arg);
}

TESSRA_EXPORTED int event_timer_exists_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler,
                                          void* arg) {
    return el_ctx->timers.exists(handler, arg) ? 1 : 0;
}

TESSRA_EXPORTED int event_timer_exists(timer_handler_t handler, void* arg) {
    return event_timer_exists_mc(&default_el_ctx, handler, arg);
}

TESSRA_EXPORTED void event_fd_add_mc(event_loop_ctx_tp el_ctx, fd_handler_t handler, void* arg,
                                     int fd, int type) {
    (void)el_ctx->descriptors.add(handler, arg, fd, type);
}

TESSRA_EXPORTED void event_fd_add(fd_handler_t handler, void* arg, int fd, int type) {
    event_fd_add_mc(&default_el_ctx, handler, arg, fd, type);
}

TESSRA_EXPORTED void event_fd_del_mc(event_loop_ctx_tp el_ctx, int fd) {
    el_ctx->descriptors.del(fd);
}

TESSRA_EXPORTED void event_fd_del(int fd) { event_fd_del_mc(&default_el_ctx, fd); }

TESSRA_EXPORTED void event_signal_add_mc(event_loop_ctx_tp el_ctx, signal_handler_t handler,
                                         void* arg, int signal) {
    (void)el_ctx->signals.add(handler, arg, signal);
}

TESSRA_EXPORTED void event_signal_add(signal_handler_t handler, void* arg, int signal) {
    event_signal_add_mc(&default_el_ctx, handler, arg, signal);
}

TESSRA_EXPORTED void event_signal_del_mc(event_loop_ctx_tp el_ctx, int signal) {
    el_ctx->signals.del(signal);
}

TESSRA_EXPORTED void event_signal_del(int signal) { event_signal_del_mc(&default_el_ctx, signal); }

TESSRA_EXPORTED void event_process_add_mc(event_loop_ctx_tp el_ctx, int pid,
                                          process_handler_t handler, void* arg) {
    (void)el_ctx->children.add(default_el_ctx.signals, default_el_ctx.run, pid, handler, arg);
}

TESSRA_EXPORTED void event_process_add(int pid, process_handler_t handler, void* arg) {
    event_process_add_mc(&default_el_ctx, pid, handler, arg);
}

TESSRA_EXPORTED void event_process_del_mc(event_loop_ctx_tp el_ctx, int pid) {
    el_ctx->children.del(pid);
}

TESSRA_EXPORTED void event_process_del(int pid) { event_process_del_mc(&default_el_ctx, pid); }

TESSRA_EXPORTED int event_loop_async_start(void) {
    const int error = start_loop_thread();
    return error == 0 ? 0 : failed_with(error);
}

TESSRA_EXPORTED int event_loop_async_stop(void) {
    stop_loop_thread();
    return 0;
}

TESSRA_EXPORTED void event_loop_wait_for_async_loop_ready(void* arg) { answer_handshake(arg); }
