// The recursive mutex: a plain mutex, a count and an owner, the latter two under rec_mutex.

#include "tessra/misc.h"

#include "eventloop/eventloop_private.h"

pthread_mutex_t rec_mutex = PTHREAD_MUTEX_INITIALIZER;

void recursive_mutex_lock(recursive_mutex* tolock) {
    (void)tessra::register_fork_handlers();  // Without them, only fork() beside this is unsafe.
    const pthread_t self = pthread_self();
    (void)pthread_mutex_lock(&rec_mutex);
    if (!pthread_equal(tolock->owner, self) && pthread_mutex_trylock(&tolock->mutex) != 0) {
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
    if (!pthread_equal(tounlock->owner, pthread_self())) return;
    if (tounlock->refcount != 0) --tounlock->refcount;
    if (tounlock->refcount == 0) {
        tounlock->owner = tessra::kNoThread;
        (void)pthread_mutex_unlock(&tounlock->mutex);
    }
}
