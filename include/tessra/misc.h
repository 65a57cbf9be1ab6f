/**
 * @file misc.h
 * Helpers that every daemon needs: the recursive mutex.
 */
#ifndef TESSRA_MISC_H
#define TESSRA_MISC_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * A lock that its holder may take again.
 *
 * Life: set up field by field (@ref RECURSIVE_MUTEX_INITIALIZER for a static one), then
 * recursive_mutex_lock() and recursive_mutex_unlock() in pairs, then pthread_mutex_destroy() of
 * @c mutex. Not copyable. There is no initialising call: pthread_mutex_init() with default
 * attributes for @c mutex, 0 for @c refcount, and a value that no thread has for @c owner.
 */
typedef struct {
    pthread_mutex_t mutex; /**< The real lock; held from the outermost lock to its unlock. */
    unsigned int refcount; /**< Unmatched locks of the owner; 0 when free. Guarded by rec_mutex. */
    pthread_t owner;       /**< Holding thread; all ones after a release. Guarded by rec_mutex. */
} recursive_mutex;

/** Initialiser of a free recursive_mutex with static storage. */
#define RECURSIVE_MUTEX_INITIALIZER \
    { PTHREAD_MUTEX_INITIALIZER, 0, (pthread_t)-1 }

/**
 * Guards refcount and owner of every recursive_mutex of the process and nothing else. Never held
 * while foreign code runs. Exported for debuggers and for daemons with a lock checker: leave it
 * alone.
 */
extern pthread_mutex_t rec_mutex;

/**
 * Takes @p tolock for the calling thread, and once more if that thread holds it already.
 *
 * Threads: any; never from a signal handler. Memory: allocates nothing. Blocks: until the holder
 * has released the lock. Cannot fail.
 */
void recursive_mutex_lock(recursive_mutex* tolock);

/**
 * Undoes one lock of the calling thread; the last one frees the lock.
 *
 * From a thread that doesn't hold @p tounlock, and on a free lock, it has no effect.
 * Threads: any; never from a signal handler. Memory: allocates nothing. Blocks: never for long.
 */
void recursive_mutex_unlock(recursive_mutex* tounlock);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
