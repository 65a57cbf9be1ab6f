#include "eventloop/dispositions.h"

namespace tessra {

pthread_mutex_t disposition_mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace tessra
