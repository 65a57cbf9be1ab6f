// A start holds the lock until the new thread has answered, and a stop until the thread has been
// joined. So starts and stops follow one another, and `to_join` is cleared only after the join.
// Handlers on that thread, and a logger that reports its failed start, may call both functions
// while another thread waits in one of them. So on that thread they take no lock: a start fails,
// and a stop only cancels.
//
// The new thread itself arms the handshake's timer, on the loop that it has just started. No other
// thread walks the timers of this loop. The first pass of the loop fires the timer, or the end of
// the loop drops it. Both come before another loop can run on the context. `waiting` is the
// condition's predicate. The timer's handler clears it, or the thread does if its loop didn't get
// that far.

#include "eventloop/thread.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "eventloop/loop.h"
#include "internal/at_fork.h"

namespace tessra {

namespace {

struct lock_cond_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
};

struct LoopThread {
    pthread_mutex_t mutex;  // The lock of starts and stops.
    lock_cond_t handshake;
    // While a start waits, only the new thread changes these.
    bool waiting;
    int start_error;                 // The error of a loop that didn't get to its answer, or 0.
    std::atomic<pthread_t> to_join;  // The thread's identity until the join.
    // The thread's identity until its end. Other threads only compare it with their own. `to_join`
    // lasts longer, when a new thread may already have the same identity.
    std::atomic<pthread_t> self;
};
constinit LoopThread loop_thread = {PTHREAD_MUTEX_INITIALIZER, {}, false, 0, kNoThread, kNoThread};

// A failing step of the handshake means that the process is broken.
[[noreturn]] void fail(int error, const char* text, int line) {
    (void)fprintf(stderr, "%s at \"%s\":%d: %s\n", text, "src/eventloop", line, strerror(error));
    abort();
}

void expect_success(int error, const char* text, int line) {
    if (error != 0) fail(error, text, line);
}

void answer(lock_cond_t& handshake) {
    expect_success(pthread_mutex_lock(&handshake.mutex), "mutex issue", __LINE__);
    if (&handshake == &loop_thread.handshake) loop_thread.waiting = false;
    expect_success(pthread_cond_signal(&handshake.cond), "signal issue", __LINE__);
    expect_success(pthread_mutex_unlock(&handshake.mutex), "mutex issue", __LINE__);
}

bool arm_handshake() {
    return default_el_ctx.timers.add(event_loop_wait_for_async_loop_ready, &loop_thread.handshake,
                                     0);
}

void* event_loop_thread(void* /*arg*/) {
    loop_thread.to_join.store(pthread_self(), std::memory_order_relaxed);
    loop_thread.self.store(pthread_self(), std::memory_order_relaxed);
    const int result = run_loop(default_el_ctx, arm_handshake);
    if (loop_thread.waiting) {
        loop_thread.start_error = result == 0 ? ECANCELED : errno;
        answer(loop_thread.handshake);
    }
    loop_thread.self.store(kNoThread, std::memory_order_relaxed);
    return nullptr;
}

bool is_loop_thread() { return is_caller(loop_thread.self.load(std::memory_order_relaxed)); }

void join_locked() {
    const pthread_t thread = loop_thread.to_join.load(std::memory_order_relaxed);
    if (thread == kNoThread) return;
    (void)pthread_join(thread, nullptr);
    loop_thread.to_join.store(kNoThread, std::memory_order_relaxed);
}

// Makes the thread and waits for its answer. Returns 0, or the number of the error.
int run_handshake_locked() {
    lock_cond_t& handshake = loop_thread.handshake;
    expect_success(pthread_mutex_init(&handshake.mutex, nullptr), "mutex init failed", __LINE__);
    expect_success(pthread_cond_init(&handshake.cond, nullptr), "cond init failed", __LINE__);
    expect_success(pthread_mutex_lock(&handshake.mutex), "mutex issue", __LINE__);
    loop_thread.start_error = 0;
    loop_thread.waiting = true;
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, event_loop_thread, nullptr);
    if (error != 0) loop_thread.waiting = false;
    while (loop_thread.waiting) {
        expect_success(pthread_cond_wait(&handshake.cond, &handshake.mutex), "wait issue",
                       __LINE__);
    }
    expect_success(pthread_mutex_unlock(&handshake.mutex), "mutex issue", __LINE__);
    expect_success(pthread_cond_destroy(&handshake.cond), "destroy cond issue", __LINE__);
    expect_success(pthread_mutex_destroy(&handshake.mutex), "destroy cond issue", __LINE__);
    if (error != 0) return error;
    if (loop_thread.start_error != 0) join_locked();
    return loop_thread.start_error;
}

// Returns 0, or the number of the error.
int start_locked() {
    if (default_el_ctx.run.keeps_running()) return EBUSY;
    join_locked();
    if (default_el_ctx.run.is_active()) return EBUSY;  // A cancelled loop hasn't returned.
    return run_handshake_locked();
}

}  // namespace

int start_loop_thread() {
    const CancelDisabled no_cancel;
    (void)register_fork_handlers();  // Before any lock; the loop's start fails without them.
    if (default_el_ctx.run.keeps_running() || is_loop_thread()) return EBUSY;
    const MutexLock lock(loop_thread.mutex);
    return start_locked();
}

void stop_loop_thread() {
    const CancelDisabled no_cancel;
    if (is_loop_thread()) return default_el_ctx.run.cancel();
    const MutexLock lock(loop_thread.mutex);
    default_el_ctx.run.cancel();
    join_locked();
}

void answer_handshake(void* handshake) {
    if (handshake == nullptr) fail(0, "invalid parameter", __LINE__);
    answer(*static_cast<lock_cond_t*>(handshake));
}

void thread_forget_parent() {
    loop_thread.mutex = PTHREAD_MUTEX_INITIALIZER;
    loop_thread.waiting = false;
    loop_thread.to_join.store(kNoThread, std::memory_order_relaxed);
    loop_thread.self.store(kNoThread, std::memory_order_relaxed);
}

}  // namespace tessra
