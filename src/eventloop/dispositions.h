// The lock of the library's own changes of signal dispositions.
#ifndef TESSRA_EVENTLOOP_DISPOSITIONS_H
#define TESSRA_EVENTLOOP_DISPOSITIONS_H

#include <pthread.h>

namespace tessra {

// Held where the library sets the catcher, and where the end of a shell command looks at a
// disposition and puts an older one back. No other lock is taken under it.
extern pthread_mutex_t disposition_mutex;

}  // namespace tessra

#endif
