// The recursive mutex: a plain mutex, a count and an owner. rec_mutex guards the counts and owners
// of all of them.

#include <pthread.h>

#include "internal/at_fork.h"
#include "internal/guards.h"
#include "internal/thread_id.h"
#include "tessra/misc.h"

using namespace tessra;

pthread_mutex_t rec_mutex = PTHREAD_MUTEX_INITIALIZER;

void recursive_mutex_lock(recursive_mutex* tolock) {
    (void)register_fork_handlers();  // Without them, only a fork() beside this call is unsafe.
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
    const MutexLock bookkeeping(rec_mutex);
    if (!is_caller(tounlock->owner)) return;
    if (tounlock->refcount != 0) --tounlock->refcount;
    if (tounlock->refcount == 0) {
        tounlock->owner = kNoThread;
        (void)pthread_mutex_unlock(&tounlock->mutex);
    }
}
