#include "eventloop/clock.h"

#include <time.h>

#include <cstdint>

#include "internal/export.h"

using namespace tessra;

TESSRA_EXPORTED long long unsigned int event_get_time(void) {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<Milliseconds>(now.tv_sec) * 1000 +
           static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

TESSRA_EXPORTED time_t event_get_time_sec(void) {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return now.tv_sec;
}
