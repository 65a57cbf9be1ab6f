// The lock of the library's own changes of signal dispositions.
#ifndef TESSRA_EVENTLOOP_DISPOSITIONS_H
#define TESSRA_EVENTLOOP_DISPOSITIONS_H

#include <pthread.h>

namespace tessra {

// Held while the library sets the catcher, and while the end of a shell command reads a disposition
// and restores an older one. No other lock is taken under it.
extern pthread_mutex_t disposition_mutex;

}  // namespace tessra

#endif
