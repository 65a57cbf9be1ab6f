// The default context's loop on a thread of its own.
//
// The lock is held by a start until the new thread has answered, and by a stop until the thread has
// been joined. So starts and stops follow one another, and the thread's identity is taken out only
// after the join. Handlers on that thread, and a logger that tells of its failed start, may call
// both functions while another thread waits in one of them. So they take no lock: there a start
// fails, and a stop only cancels.
//
// The new thread itself arms the handshake's timer, on the loop that it has just started and that
// it alone walks. The first pass of the loop fires the timer, or the end of the loop drops it; both
// come before another loop can run on the context. `waiting` is the condition's predicate. The
// timer clears it, or the thread does if its loop didn't get that far.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

struct lock_cond_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
};

struct LoopThread {
    pthread_mutex_t mutex;  // The lock of starts and stops.
    lock_cond_t handshake;
    // The new thread alone changes these during a start.
    bool waiting;
    int start_error;  // Why the loop didn't get to its answer; 0 if it did.
    // The thread's identity until its end, for itself alone. async_loop lasts longer, and its value
    // may be the identity of a new thread by then.
    std::atomic<pthread_t> self;
};
constinit LoopThread loop_thread = {PTHREAD_MUTEX_INITIALIZER, {}, false, 0, {}};

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
    return timer_add(&default_el_ctx, event_loop_wait_for_async_loop_ready, &loop_thread.handshake,
                     0);
}

void* event_loop_thread(void* /*arg*/) {
    default_el_ctx.async_loop.store(pthread_self(), std::memory_order_relaxed);
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
    const pthread_t thread = default_el_ctx.async_loop.load(std::memory_order_relaxed);
    if (thread == kNoThread) return;
    (void)pthread_join(thread, nullptr);
    default_el_ctx.async_loop.store(kNoThread, std::memory_order_relaxed);
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
    if (default_el_ctx.async_loop_started.load() != 0) return EBUSY;
    join_locked();
    if (default_el_ctx.in_loop.load()) return EBUSY;  // It was cancelled, but hasn't returned.
    return run_handshake_locked();
}

}  // namespace

void thread_forget_parent() {
    loop_thread.mutex = PTHREAD_MUTEX_INITIALIZER;
    loop_thread.waiting = false;
    default_el_ctx.async_loop.store(kNoThread, std::memory_order_relaxed);
    loop_thread.self.store(kNoThread, std::memory_order_relaxed);
}

}  // namespace tessra

using namespace tessra;

int event_loop_async_start(void) {
    const CancelDisabled no_cancel;
    (void)register_fork_handlers();  // Before any lock; the loop's start fails without them.
    int error = EBUSY;
    if (default_el_ctx.async_loop_started.load() == 0 && !is_loop_thread()) {
        const MutexLock lock(loop_thread.mutex);
        error = start_locked();
    }
    if (error == 0) return 0;
    errno = error;
    return -1;
}

int event_loop_async_stop(void) {
    const CancelDisabled no_cancel;
    if (is_loop_thread()) {
        cancel_loop();
        return 0;
    }
    const MutexLock lock(loop_thread.mutex);
    cancel_loop();
    join_locked();
    return 0;
}

void event_loop_wait_for_async_loop_ready(void* arg) {
    if (arg == nullptr) fail(0, "invalid parameter", __LINE__);
    answer(*static_cast<lock_cond_t*>(arg));
}
