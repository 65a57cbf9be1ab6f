// Compares the timers with their model. The bytes decide which are added and deleted, how each wait
// ends and when the clock jumps. This program is the loop's clock and its select().
#include <sys/select.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "support/timer_model.h"

using tessra_test::TimerModel;

namespace {

const uint8_t *next_byte, *end_byte;
unsigned long long clock_ms;
TimerModel* model;

unsigned below(unsigned bound) { return next_byte < end_byte ? *next_byte++ % bound : 0; }
void check(bool holds, const char*) {
    if (!holds) abort();
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC_RAW || !model) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    }
    now->tv_sec = static_cast<time_t>(clock_ms / 1000);
    now->tv_nsec = static_cast<long>(clock_ms % 1000 * 1000000);
    return 0;
}

int select(int, fd_set* rset, fd_set*, fd_set*, struct timeval* tv) {
    FD_ZERO(rset);
    if (next_byte == end_byte) cancel_loop();
    return model->wait(tv);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TimerModel here;
    here.below = below;
    here.clock = [](unsigned long long ms) { clock_ms = ms; };
    here.check = check;
    next_byte = data;
    end_byte = data + size;
    model = &here;
    here.begin(1000000000);
    check(et_event_loop() == 0, "runs");
    model = nullptr;
    return 0;
}

}  // extern "C"
