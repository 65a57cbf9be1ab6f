// The recursive mutex, with its count and owner under rec_mutex, and the lock of a context's lists.

#include "tessra/misc.h"

#include "eventloop/eventloop_private.h"

namespace tessra {

void ListMutex::lock() {
    const pthread_t self = pthread_self();
    if (owner_.load(std::memory_order_relaxed) != self) {
        (void)register_fork_handlers();  // Without them, only fork() beside this is unsafe.
        (void)pthread_mutex_lock(&mutex_);
        owner_.store(self, std::memory_order_relaxed);
    }
    ++depth_;
}

void ListMutex::unlock() {
    if (!is_held() || --depth_ != 0) return;
    owner_.store(kNoThread, std::memory_order_relaxed);
    (void)pthread_mutex_unlock(&mutex_);
}

}  // namespace tessra

pthread_mutex_t rec_mutex = PTHREAD_MUTEX_INITIALIZER;

void recursive_mutex_lock(recursive_mutex* tolock) {
    (void)tessra::register_fork_handlers();  // Without them, only fork() beside this is unsafe.
    const pthread_t self = pthread_self();
    (void)pthread_mutex_lock(&rec_mutex);
    if (tolock->owner != self && pthread_mutex_trylock(&tolock->mutex) != 0) {
        // The wait for another holder must not stop the bookkeeping of all other locks.
        (void)pthread_mutex_unlock(&rec_mutex);
        (void)pthread_mutex_lock(&tolock->mutex);
        (void)pthread_mutex_lock(&rec_mutex);
    }
    ++tolock->refcount;
    tolock->owner = self;
    (void)pthread_mutex_unlock(&rec_mutex);
}

void recursive_mutex_unlock(recursive_mutex* tounlock) {
    const tessra::MutexLock bookkeeping(rec_mutex);
    if (!tessra::is_caller(tounlock->owner)) return;
    if (tounlock->refcount != 0) --tounlock->refcount;
    if (tounlock->refcount == 0) {
        tounlock->owner = tessra::kNoThread;
        (void)pthread_mutex_unlock(&tounlock->mutex);
    }
}
