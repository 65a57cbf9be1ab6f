// Identities of threads.
#ifndef TESSRA_INTERNAL_THREAD_ID_H
#define TESSRA_INTERNAL_THREAD_ID_H

#include <pthread.h>

namespace tessra {

inline const pthread_t kNoThread = (pthread_t)-1;

// pthread_equal() is a call in some C libraries, and a comparison in each.
inline bool is_caller(pthread_t thread) { return thread == pthread_self(); }

}  // namespace tessra

#endif
