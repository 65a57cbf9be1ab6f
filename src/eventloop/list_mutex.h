// The lock of a context's lists, which its holder may take again.
//
// The lock does what recursive_mutex does, but shares nothing with other locks. Only the holder
// writes the owner. So a thread that reads its own identity there is the holder, in whatever order
// it sees the writes of other threads.
#ifndef TESSRA_EVENTLOOP_LIST_MUTEX_H
#define TESSRA_EVENTLOOP_LIST_MUTEX_H

#include <pthread.h>

#include <atomic>

#include "internal/guards.h"
#include "internal/thread_id.h"

namespace tessra {

class ListMutex {
public:
    void lock();
    // From a thread that isn't the holder this has no effect.
    void unlock();
    bool is_held() const { return is_caller(owner_.load(std::memory_order_relaxed)); }
    void destroy() { (void)pthread_mutex_destroy(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<pthread_t> owner_{kNoThread};
    unsigned depth_ = 0;  // Unmatched locks of the holder.
};

// Holds a ListMutex. unlock() and lock() release it for a while, around foreign code.
class ListLock : NotCopyable {
public:
    explicit ListLock(ListMutex& mutex) : mutex_(mutex) { lock(); }
    ~ListLock() { unlock(); }

    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    ListMutex& mutex_;
};

}  // namespace tessra

#endif
