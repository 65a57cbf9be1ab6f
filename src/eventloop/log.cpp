#include "eventloop/log.h"

#include <cstring>

#include "internal/guards.h"

extern "C" {
int logzone_enabled(int zone, int level);
int __vask_log(int zone, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
}

namespace tessra {

namespace {

constexpr int kLogTessra = 6;  // LOG_TESSRA, this library's zone.
constexpr int kLogLevel = 1;
constexpr char kSource[] = "src/eventloop";
constexpr char kFunction[] = "et_event_loop_mc";

}  // namespace

void log_start_failure(const StartFailure& failure) {
    const ErrnoKeeper keep_errno;  // The caller reads errno to see why the start failed.
    if (!logzone_enabled(kLogTessra, kLogLevel)) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    __vask_log(kLogTessra, kLogLevel, failure.text, kLogLevel, kSource, kFunction, failure.line);
#pragma GCC diagnostic pop
}

void log_select_failure(int error, int line) {
    if (!logzone_enabled(kLogTessra, kLogLevel)) return;
    __vask_log(kLogTessra, kLogLevel, "<%x> %s:%s(%d) - Error in select(), errno=%s(%d) - exit\n",
               kLogLevel, kSource, kFunction, line, strerror(error), error);
}

}  // namespace tessra
