// Shell commands, and background tasks that run one at most once in a while.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

constexpr size_t kCommandSize = 1024;
constexpr unsigned int kDefaultMaxFds = 1024;
constexpr unsigned int kFirstClosedFd = 3;
// The same number on every architecture; older headers lack it.
constexpr long kCloseRange = 436;
// An entry of getdents64() is two 64-bit words, its length in two bytes, a byte, and the name.
constexpr unsigned int kEntryLength = 16;
constexpr unsigned int kEntryName = 19;

// The dispositions that a command needs, for as long as it runs. Whole records are put back, since
// a watched signal needs its SA_SIGINFO.
class CommandDispositions : NotCopyable {
public:
    CommandDispositions() {
        for (int i = 0; i < kCount; ++i) {
            struct sigaction action = {};
            action.sa_handler = kSignals[i] == SIGCHLD ? SIG_DFL : SIG_IGN;
            changed_[i] = sigaction(kSignals[i], &action, &before_[i]) == 0;
        }
    }
    // What another thread has set meanwhile stays, above all the catcher of a first watcher.
    ~CommandDispositions() {
        for (int i = 0; i < kCount; ++i) {
            if (!changed_[i]) continue;
            struct sigaction replaced = {};
            (void)sigaction(kSignals[i], &before_[i], &replaced);
            const auto ours = kSignals[i] == SIGCHLD ? SIG_DFL : SIG_IGN;
            if (replaced.sa_handler != ours) (void)sigaction(kSignals[i], &replaced, nullptr);
        }
    }

private:
    static constexpr int kCount = 3;
    static constexpr int kSignals[kCount] = {SIGQUIT, SIGINT, SIGCHLD};
    struct sigaction before_[kCount];
    bool changed_[kCount];
};

void set_default(int signal) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    (void)sigaction(signal, &action, nullptr);
}

// One more than the largest descriptor that the child closes.
unsigned int descriptor_bound() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max == static_cast<rlim_t>(-1)) {
        return kDefaultMaxFds;
    }
    constexpr rlim_t kMost = 0x7fffffff;
    return static_cast<unsigned int>(limit.rlim_max < kMost ? limit.rlim_max : kMost);
}

// Closes those that are open by their names in a directory of the kernel's. False if it can't be
// read to its end. Calls of the C library for directories allocate, which this child must not.
bool close_listed_descriptors(unsigned int max_fds) {
    const int listing = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listing == -1) return false;
    char entries[1024];
    long size;
    while ((size = syscall(SYS_getdents64, listing, entries, sizeof entries)) > 0) {
        unsigned short length;
        for (const char* entry = entries; entry < entries + size; entry += length) {
            memcpy(&length, entry + kEntryLength, sizeof length);
            unsigned int fd = 0;  // For "." and "..", too.
            for (const char* digit = entry + kEntryName; *digit >= '0' && *digit <= '9'; ++digit) {
                fd = fd * 10 + static_cast<unsigned int>(*digit - '0');
            }
            const bool ours = fd == static_cast<unsigned int>(listing);
            if (fd >= kFirstClosedFd && fd < max_fds && !ours) (void)close(static_cast<int>(fd));
        }
    }
    (void)close(listing);
    return size == 0;
}

// With a hard limit of a million, a close() each costs about a second per command.
void close_descriptors(unsigned int max_fds) {
    if (max_fds <= kFirstClosedFd) return;
    if (syscall(kCloseRange, kFirstClosedFd, max_fds - 1, 0U) == 0) return;
    if (close_listed_descriptors(max_fds)) return;
    for (unsigned int fd = kFirstClosedFd; fd < max_fds; ++fd) (void)close(static_cast<int>(fd));
}

// The child between vfork() and exec. It shares the parent's memory, so it touches nothing but its
// own dispositions, mask and descriptors. Signals stay blocked until the catcher is out of place:
// in here it would write to the parent's channel.
[[noreturn]] void exec_shell(const char* buffer, const char** env, unsigned int max_fds,
                             const AllSignalsBlocked& blocked) {
    set_default(SIGQUIT);
    set_default(SIGINT);
    set_default(SIGCHLD);
    reset_caught_signals();
    blocked.restore();
    close_descriptors(max_fds);
    if (env != nullptr) {
        (void)execle("/bin/sh", "sh", "-c", buffer, nullptr, env);
    } else {
        (void)execl("/bin/sh", "sh", "-c", buffer, nullptr);
    }
    _exit(127);
}

pid_t spawn_shell(const char* buffer, const char** env) {
    const unsigned int max_fds = descriptor_bound();
    const AllSignalsBlocked blocked;
    const pid_t child = vfork();
    if (child == 0) exec_shell(buffer, env, max_fds, blocked);
    return child;
}

int close_fds_system(const char* buffer, const char** env) {
    if (buffer == nullptr) return -1;
    const CommandDispositions dispositions;
    const pid_t child = spawn_shell(buffer, env);
    if (child == -1) return -1;
    int status = -1;
    return wait4(child, &status, 0, nullptr) == -1 ? -1 : status;
}

__attribute__((format(printf, 2, 0))) int format_and_run(const char** env, const char* format,
                                                         va_list arguments) {
    const CancelDisabled no_cancel;  // The child calls cancellation points, too.
    char buffer[kCommandSize];
    if (vsnprintf(buffer, sizeof buffer, format, arguments) < 0) return -1;
    return close_fds_system(buffer, env);
}

unsigned int uptime_seconds() {
    struct sysinfo info = {};
    (void)sysinfo(&info);
    return static_cast<unsigned int>(info.uptime);
}

void task_spawn_timer(void* arg) {
    auto* task = static_cast<bg_task_t*>(arg);
    const unsigned int uptime = uptime_seconds();
    const unsigned int tdiff = uptime - task->last_ran;
    if (tdiff >= task->minimum_delay) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
        (void)event_system(task->command_line);
#pragma GCC diagnostic pop
        task->last_ran = uptime;  // Of the start: the delay counts from start to start.
    } else {
        const unsigned int wait_ms = (task->minimum_delay - tdiff) * 1000U;
        event_timer_add(task_spawn_timer, task, wait_ms);
    }
}

}  // namespace

}  // namespace tessra

using namespace tessra;

int event_system(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int status = format_and_run(nullptr, format, arguments);
    va_end(arguments);
    return status;
}

int event_system_env(const char** env, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int status = format_and_run(env, format, arguments);
    va_end(arguments);
    return status;
}

void run_bg_task(bg_task_t* tospawn) {
    if (tospawn == nullptr) {
        errno = EINVAL;
        return;
    }
    if (event_timer_exists(task_spawn_timer, tospawn)) return;
    event_timer_add(task_spawn_timer, tospawn, 0);
}
