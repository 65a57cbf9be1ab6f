// The list of all contexts of the process.
#ifndef TESSRA_EVENTLOOP_ALL_CONTEXTS_H
#define TESSRA_EVENTLOOP_ALL_CONTEXTS_H

#include <pthread.h>

#include "tessra/list.h"

namespace tessra {

// Guards the list, and keeps the context whose children SIGCHLD looks after from being freed. A
// fork() is made with it held.
extern pthread_mutex_t contexts_mutex;
extern list_t contexts;

}  // namespace tessra

#endif
