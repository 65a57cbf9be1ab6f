// Background tasks: shell commands with a least time between two starts.

#include <sys/sysinfo.h>

#include <cerrno>

#include "internal/export.h"
#include "tessra/eventloop.h"

namespace {

unsigned int uptime_seconds() {
    struct sysinfo info = {};
    (void)sysinfo(&info);
    return static_cast<unsigned int>(info.uptime);
}

void task_spawn_timer(void* arg) {
    auto* task = static_cast<bg_task_t*>(arg);
    const unsigned int uptime = uptime_seconds();
    const unsigned int since_last = uptime - task->last_ran;
    if (since_last >= task->minimum_delay) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
        (void)event_system(task->command_line);
#pragma GCC diagnostic pop
        task->last_ran = uptime;  // The delay counts from start to start.
    } else {
        const unsigned int wait_ms = (task->minimum_delay - since_last) * 1000U;
        event_timer_add(task_spawn_timer, task, wait_ms);
    }
}

}  // namespace

TESSRA_EXPORTED void run_bg_task(bg_task_t* tospawn) {
    if (tospawn == nullptr) {
        errno = EINVAL;
        return;
    }
    if (event_timer_exists(task_spawn_timer, tospawn)) return;
    event_timer_add(task_spawn_timer, tospawn, 0);
}
