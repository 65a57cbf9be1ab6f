// The list of all contexts of the process.
#ifndef TESSRA_EVENTLOOP_ALL_CONTEXTS_H
#define TESSRA_EVENTLOOP_ALL_CONTEXTS_H

#include <pthread.h>

#include "tessra/list.h"

namespace tessra {

// Guards the list. The SIGCHLD watcher holds it until that watcher has the lock of the children, so
// that no thread frees their context in between. A thread that calls fork() holds it during the
// copy.
extern pthread_mutex_t contexts_mutex;
extern list_t contexts;

}  // namespace tessra

#endif
