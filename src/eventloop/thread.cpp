// The default context's loop on a thread of its own.
//
// The starter holds the handshake's mutex before its timer and the thread exist, and lets go of it
// only in pthread_cond_wait(); the timer of the new loop's first pass takes it before it signals.
// So the signal can't come too early. waiting_starter is the condition's predicate: whoever ends
// the wait, the timer or the thread of a loop that didn't get that far, sets it to null.

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

constinit std::atomic<lock_cond_t*> waiting_starter{nullptr};
constinit std::atomic<int> loop_failed{0};

// A failing step of the handshake means that the process is broken.
[[noreturn]] void fail(int error, const char* text, int line) {
    (void)fprintf(stderr, "%s at \"%s\":%d: %s\n", text, "src/eventloop", line, strerror(error));
    abort();
}

void expect_success(int error, const char* text, int line) {
    if (error != 0) fail(error, text, line);
}

// The loop ended before its first pass, or never began.
void report_failed_start(lock_cond_t* starter) {
    const MutexLock lock(starter->mutex);
    loop_failed.store(1);
    waiting_starter.store(nullptr);
    (void)pthread_cond_signal(&starter->cond);
}

void* event_loop_thread(void* /*arg*/) {
    (void)et_event_loop();
    lock_cond_t* starter = waiting_starter.load();
    if (starter != nullptr) report_failed_start(starter);
    return nullptr;
}

// A loop that cancel_loop() has ended leaves its thread to be joined. False on that very thread.
bool join_former_thread() {
    const pthread_t former = default_el_ctx.async_loop.exchange(kNoThread);
    if (pthread_equal(former, kNoThread)) return true;
    if (pthread_equal(former, pthread_self())) {
        default_el_ctx.async_loop.store(former);
        return false;
    }
    (void)pthread_join(former, nullptr);
    return true;
}

bool create_loop_thread(lock_cond_t* handshake) {
    loop_failed.store(0);
    waiting_starter.store(handshake);
    if (!timer_add(&default_el_ctx, event_loop_wait_for_async_loop_ready, handshake, 0)) {
        return false;
    }
    pthread_t thread;
    if (pthread_create(&thread, nullptr, event_loop_thread, nullptr) != 0) return false;
    default_el_ctx.async_loop.store(thread);
    return true;
}

}  // namespace

}  // namespace tessra

using namespace tessra;

int event_loop_async_start(void) {
    if (default_el_ctx.async_loop_started.load() != 0 || !join_former_thread()) return -1;
    lock_cond_t handshake;
    expect_success(pthread_mutex_init(&handshake.mutex, nullptr), "mutex init failed", __LINE__);
    expect_success(pthread_cond_init(&handshake.cond, nullptr), "cond init failed", __LINE__);
    expect_success(pthread_mutex_lock(&handshake.mutex), "mutex issue", __LINE__);
    const bool created = create_loop_thread(&handshake);
    while (created && waiting_starter.load() == &handshake) {
        expect_success(pthread_cond_wait(&handshake.cond, &handshake.mutex), "wait issue",
                       __LINE__);
    }
    expect_success(pthread_mutex_unlock(&handshake.mutex), "mutex issue", __LINE__);
    const bool failed = !created || loop_failed.load() != 0;
    if (failed) {
        waiting_starter.store(nullptr);
        (void)join_former_thread();
        event_timer_del(event_loop_wait_for_async_loop_ready, &handshake);
    }
    expect_success(pthread_cond_destroy(&handshake.cond), "destroy cond issue", __LINE__);
    expect_success(pthread_mutex_destroy(&handshake.mutex), "destroy cond issue", __LINE__);
    return failed ? -1 : 0;
}

int event_loop_async_stop(void) {
    cancel_loop();
    if (join_former_thread()) default_el_ctx.async_loop_started.store(0);
    return 0;
}

void event_loop_wait_for_async_loop_ready(void* arg) {
    if (arg == nullptr) fail(0, "invalid parameter", __LINE__);
    auto* handshake = static_cast<lock_cond_t*>(arg);
    expect_success(pthread_mutex_lock(&handshake->mutex), "mutex issue", __LINE__);
    lock_cond_t* starter = handshake;
    (void)waiting_starter.compare_exchange_strong(starter, nullptr);
    expect_success(pthread_cond_signal(&handshake->cond), "signal issue", __LINE__);
    expect_success(pthread_mutex_unlock(&handshake->mutex), "mutex issue", __LINE__);
}
