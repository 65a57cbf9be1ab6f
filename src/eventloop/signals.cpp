// Signal watchers: a caught signal travels through the channel and becomes an ordinary event.

#include "eventloop/eventloop_private.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

pthread_mutex_t disposition_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// The one function of the library that runs in signal context.
void event_signal_cb(int sig, siginfo_t* info, void* /*ctx*/) { channel_send_signal(sig, *info); }

bool catch_signal(int signal) {
    struct sigaction action = {};
    action.sa_sigaction = event_signal_cb;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    const MutexLock lock(disposition_mutex);
    if (sigaction(signal, &action, nullptr) == 0) return true;
    // These two are always refused; their watcher stays and never runs.
    return signal == SIGKILL || signal == SIGSTOP;
}

}  // namespace

bool signal_add(event_loop_ctx_tp el_ctx, signal_handler_t handler, void* arg, int signal) {
    if (signal < 1 || signal > kMaxSignal) {
        errno = EINVAL;
        return false;
    }
    auto* watcher = new_record<event_signal_t>();
    if (watcher == nullptr) return false;
    *watcher = {{}, handler, arg, signal, 0, 0};
    const ChangeLock lock(el_ctx, el_ctx->eventlists_mutex);
    if (!catch_signal(signal)) {
        const ErrnoKeeper keep_errno;
        free(watcher);
        return false;
    }
    list_add_tail(&el_ctx->signal_queue, &watcher->list);
    return true;
}

void run_signal_watchers_locked(event_loop_ctx_tp el_ctx, int signal, siginfo_t& info) {
    pinned_walk<event_signal_t, CountedPins>(
        el_ctx->signal_queue,
        [signal](const event_signal_t* watcher) { return watcher->signal == signal; },
        [el_ctx, &info](const event_signal_t* watcher) {
            watcher->handler(watcher->signal, &info, watcher->arg);
            return is_running_here(*el_ctx);
        });
}

void event_signal_free(event_loop_ctx_tp el_ctx) {
    const ListLock lock(el_ctx->eventlists_mutex);
    free_all<event_signal_t>(el_ctx->signal_queue);
}

}  // namespace tessra

using namespace tessra;

void event_signal_add_mc(event_loop_ctx_tp el_ctx, signal_handler_t handler, void* arg,
                         int signal) {
    (void)signal_add(el_ctx, handler, arg, signal);  // errno tells.
}

void event_signal_add(signal_handler_t handler, void* arg, int signal) {
    event_signal_add_mc(&default_el_ctx, handler, arg, signal);
}

void event_signal_del_mc(event_loop_ctx_tp el_ctx, int signal) {
    const ChangeLock lock(el_ctx, el_ctx->eventlists_mutex);
    auto* watcher = find_first<event_signal_t>(
        el_ctx->signal_queue,
        [signal](const event_signal_t* candidate) { return candidate->signal == signal; });
    if (watcher != nullptr) delete_or_mark(watcher);
}

void event_signal_del(int signal) { event_signal_del_mc(&default_el_ctx, signal); }
