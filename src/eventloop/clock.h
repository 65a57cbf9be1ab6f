// The clock of all loops; event_get_time() reads it.
#ifndef TESSRA_EVENTLOOP_CLOCK_H
#define TESSRA_EVENTLOOP_CLOCK_H

#include "tessra/eventloop.h"

namespace tessra {

using Milliseconds = long long unsigned int;

}  // namespace tessra

#endif
