// Child watchers, on top of the one SIGCHLD watcher of the process.

#include <sys/wait.h>
#include <syslog.h>

#include "eventloop/eventloop_private.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

// A watcher that has fired while an outer walk has it pinned stays on the list for that walk to
// reap. It is gone for everyone else: a delete must not find it.
constexpr int kReported = 2;

constinit std::atomic<int> handler_registered{0};

// The one context whose children SIGCHLD looks after: that of the first call, until it is freed.
// The first call stores it; contexts_mutex keeps it from being freed while SIGCHLD looks at it.
constinit std::atomic<event_loop_ctx_t*> child_context{nullptr};
// A handler of that context's child walk has freed the context. The walk's thread only.
constinit bool child_walk_over = false;

// Registers the SIGCHLD watcher on the first use. Under the lock that the registration takes
// anyway, so that two first calls at the same moment make one watcher.
bool register_sigchld_once(event_loop_ctx_tp el_ctx) {
    if (handler_registered.load(std::memory_order_acquire) != 0) return true;
    const ListLock lock(default_el_ctx.eventlists_mutex);
    if (handler_registered.load(std::memory_order_relaxed) != 0) return true;
    if (!signal_add(&default_el_ctx, event_sigchld_hndlr, nullptr, SIGCHLD)) return false;
    child_context.store(el_ctx);
    handler_registered.store(1, std::memory_order_release);
    return true;
}

void log_end(int pid, int status) {
    const bool exited = WIFEXITED(status);
    syslog(LOG_ERR, "Process %d exited %s %d", pid, exited ? "normally" : "by signal",
           exited ? WEXITSTATUS(status) : WTERMSIG(status));
}

// Off the list, then the handler, then the end of the record; but a pinned record stays linked.
void report_and_drop(process_t* child, int status) {
    const bool pinned = child->locked != 0;
    if (pinned) {
        child->to_be_deleted = kReported;
    } else {
        list_delete(&child->list);
    }
    (void)child->handler(child->pid, child->arg, status);
    if (!pinned) free(child);
}

void collect_if_ended(process_t* child) {
    int status = 0;
    if (waitpid(child->pid, &status, WNOHANG | WUNTRACED) <= 0) return;
    if (!WIFEXITED(status) && !WIFSIGNALED(status)) return;
    if (child->handler == nullptr) return;
    log_end(child->pid, status);
    report_and_drop(child, status);
}

// Takes the lock of the watched context's children; null if there is no such context any more. The
// lock is taken before contexts_mutex is given back, so that no thread frees the context in
// between.
event_loop_ctx_t* lock_child_context() {
    const MutexLock lock(contexts_mutex);
    event_loop_ctx_t* const el_ctx = child_context.load();
    if (el_ctx != nullptr) el_ctx->processlist_mutex.lock();
    return el_ctx;
}

}  // namespace

// One SIGCHLD can stand for several children, so each is tried.
void event_sigchld_hndlr(int /*signal*/, siginfo_t* /*info*/, void* /*arg*/) {
    event_loop_ctx_t* const el_ctx = lock_child_context();
    if (el_ctx == nullptr) return;
    bool lasts = true;
    pinned_walk<process_t, CountedPins>(
        el_ctx->process_queue, [](const process_t*) { return true; },
        [&lasts](process_t* child) {
            collect_if_ended(child);
            lasts = !child_walk_over && is_running_here(default_el_ctx);
            return lasts;
        });
    if (lasts) el_ctx->processlist_mutex.unlock();
}

void leave_child_walks(event_loop_ctx_tp el_ctx) {
    ListMutex& mutex = el_ctx->processlist_mutex;
    while (mutex.is_held()) {
        child_walk_over = true;
        mutex.unlock();
    }
}

void forget_child_context_locked(event_loop_ctx_tp el_ctx) {
    if (child_context.load() == el_ctx) child_context.store(nullptr);
}

void children_forget_parent() {
    handler_registered.store(0, std::memory_order_relaxed);
    child_context.store(nullptr);
    child_walk_over = false;
}

void process_free(event_loop_ctx_tp el_ctx) {
    const ListLock lock(el_ctx->processlist_mutex);
    free_all<process_t>(el_ctx->process_queue);
}

}  // namespace tessra

using namespace tessra;

void event_process_add_mc(event_loop_ctx_tp el_ctx, int pid, process_handler_t handler, void* arg) {
    auto* child = new_record<process_t>();
    if (child == nullptr) return;
    *child = {{}, pid, handler, arg, 0, 0};
    if (!register_sigchld_once(el_ctx)) {
        const ErrnoKeeper keep_errno;
        free(child);
        return;
    }
    const ChangeLock lock(el_ctx, el_ctx->processlist_mutex);
    list_add_tail(&el_ctx->process_queue, &child->list);
}

void event_process_add(int pid, process_handler_t handler, void* arg) {
    event_process_add_mc(&default_el_ctx, pid, handler, arg);
}

void event_process_del_mc(event_loop_ctx_tp el_ctx, int pid) {
    const ChangeLock lock(el_ctx, el_ctx->processlist_mutex);
    auto* child = find_first<process_t>(el_ctx->process_queue, [pid](const process_t* candidate) {
        return candidate->pid == pid && candidate->to_be_deleted != kReported;
    });
    if (child != nullptr) delete_or_mark(child);
}

void event_process_del(int pid) { event_process_del_mc(&default_el_ctx, pid); }
