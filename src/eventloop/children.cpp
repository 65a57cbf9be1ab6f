#include "eventloop/children.h"

#include <sys/wait.h>
#include <syslog.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "eventloop/all_contexts.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

struct process_t {
    list_t list;
    int pid;
    process_handler_t handler;
    void* arg;
    int pins;
    Mark mark;
};

constinit std::atomic<int> handler_registered{0};

// The children that SIGCHLD looks at. The first add() of the process stores them. The release of
// their context clears the pointer under contexts_mutex, under which SIGCHLD takes their lock.
constinit std::atomic<Children*> watched{nullptr};
// Whether a handler of their walk has freed their context. The walk's thread only.
constinit bool walk_over = false;

void log_end(int pid, int status) {
    const bool exited = WIFEXITED(status);
    syslog(LOG_ERR, "Process %d exited %s %d", pid, exited ? "normally" : "by signal",
           exited ? WEXITSTATUS(status) : WTERMSIG(status));
}

// Takes the record off the list, runs the handler, and frees the record. A record that an outer
// walk has pinned stays linked: that walk frees it.
void report_and_drop(process_t* child, int status) {
    const bool pinned = child->pins != 0;
    if (pinned) {
        child->mark = Mark::kReported;
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

// Takes the lock of the watched children and returns them, or null if their context is gone. Takes
// the lock before it releases contexts_mutex, so that no thread frees the context in between.
Children* lock_watched() {
    const MutexLock lock(contexts_mutex);
    Children* const children = watched.load();
    if (children != nullptr) children->mutex().lock();
    return children;
}

void event_sigchld_hndlr(int /*signal*/, siginfo_t* /*info*/, void* run) {
    Children* const children = lock_watched();
    if (children != nullptr) children->collect(*static_cast<const Run*>(run));
}

}  // namespace

void Children::collect(const Run& run) {
    bool lasts = true;
    pinned_walk<process_t, CountedPins>(
        queue_, [](const process_t*) { return true; },
        [&lasts, &run](process_t* child) {
            collect_if_ended(child);
            lasts = !walk_over && run.is_here();
            return lasts;
        });
    if (lasts) mutex_.unlock();
}

// Holds the lock that Signals::add() takes anyway, so that two first calls at the same moment make
// one watcher.
bool Children::register_sigchld_once(Signals& signals, const Run& run) {
    if (handler_registered.load(std::memory_order_acquire) != 0) return true;
    const ListLock lock(signals.mutex());
    if (handler_registered.load(std::memory_order_relaxed) != 0) return true;
    if (!signals.add(event_sigchld_hndlr, const_cast<Run*>(&run), SIGCHLD)) return false;
    watched.store(this);
    handler_registered.store(1, std::memory_order_release);
    return true;
}

bool Children::add(Signals& signals, const Run& run, int pid, process_handler_t handler,
                   void* arg) {
    auto* child = new_record<process_t>();
    if (child == nullptr) return false;
    *child = {{}, pid, handler, arg, 0, Mark::kNone};
    if (!register_sigchld_once(signals, run)) {
        const ErrnoKeeper keep_errno;
        free(child);
        return false;
    }
    const Change change(*channel_, mutex_);
    list_add_tail(&queue_, &child->list);
    return true;
}

void Children::del(int pid) {
    const Change change(*channel_, mutex_);
    auto* child = find_first<process_t>(queue_, [pid](const process_t* candidate) {
        return candidate->pid == pid && candidate->mark != Mark::kReported;
    });
    if (child != nullptr) delete_or_mark(child);
}

void Children::free_all() {
    const ListLock lock(mutex_);
    tessra::free_all<process_t>(queue_);
}

void Children::unwatch_contexts_locked() {
    if (watched.load() == this) watched.store(nullptr);
}

void Children::leave_walks() {
    while (mutex_.is_held()) {
        walk_over = true;
        mutex_.unlock();
    }
}

// A thread of the parent may have held the lock, in a walk or a change, so the child makes it anew.
void Children::forget_parent() {
    list_init(&queue_);
    new (&mutex_) ListMutex;
}

void children_forget_parent() {
    handler_registered.store(0, std::memory_order_relaxed);
    watched.store(nullptr);
    walk_over = false;
}

}  // namespace tessra
