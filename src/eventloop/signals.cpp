#include "eventloop/signals.h"

#include <cerrno>

#include "eventloop/dispositions.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

struct event_signal_t {
    list_t list;
    signal_handler_t handler;
    void* arg;
    int signal;
    int pins;
    Mark mark;
};

// The catcher: the library's only signal handler.
void event_signal_cb(int sig, siginfo_t* info, void* /*ctx*/) { send_to_running_loops(sig, *info); }

bool catch_signal(int signal) {
    struct sigaction action = {};
    action.sa_sigaction = event_signal_cb;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    const MutexLock lock(disposition_mutex);
    if (sigaction(signal, &action, nullptr) == 0) return true;
    // The system always refuses these two. Their watcher is registered, and never runs.
    return signal == SIGKILL || signal == SIGSTOP;
}

}  // namespace

bool Signals::add(signal_handler_t handler, void* arg, int signal) {
    if (signal < 1 || signal > kMaxSignal) {
        errno = EINVAL;
        return false;
    }
    auto* watcher = new_record<event_signal_t>();
    if (watcher == nullptr) return false;
    *watcher = {{}, handler, arg, signal, 0, Mark::kNone};
    const Change change(*channel_, *mutex_);
    if (!catch_signal(signal)) {
        const ErrnoKeeper keep_errno;
        free(watcher);
        return false;
    }
    list_add_tail(&queue_, &watcher->list);
    return true;
}

void Signals::del(int signal) {
    const Change change(*channel_, *mutex_);
    auto* watcher = find_first<event_signal_t>(
        queue_, [signal](const event_signal_t* candidate) { return candidate->signal == signal; });
    if (watcher != nullptr) delete_or_mark(watcher);
}

void Signals::free_all() {
    const ListLock lock(*mutex_);
    tessra::free_all<event_signal_t>(queue_);
}

void Signals::run_watchers_locked(const Run& run, int signal, siginfo_t& info) {
    pinned_walk<event_signal_t, CountedPins>(
        queue_, [signal](const event_signal_t* watcher) { return watcher->signal == signal; },
        [&run, &info](const event_signal_t* watcher) {
            watcher->handler(watcher->signal, &info, watcher->arg);
            return run.is_here();
        });
}

}  // namespace tessra
